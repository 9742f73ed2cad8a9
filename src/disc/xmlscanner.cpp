// The XML scanner of HD DVD playlists.
#include "disc/xmlscanner.h"

#include <unordered_map>

#include "disc/discfiles.h"

namespace sonvex {
namespace {

std::string Trim(const std::string& text) {
  size_t first = text.find_first_not_of(" \t\r\n");
  if (first == std::string::npos) return "";
  return text.substr(first, text.find_last_not_of(" \t\r\n") - first + 1);
}

void ReplaceAll(std::string& text, const std::string& from, const std::string& to) {
  for (size_t at = 0; (at = text.find(from, at)) != std::string::npos; at += to.size())
    text.replace(at, from.size(), to);
}

// Finds `part` in `text` from `from` on, without regard to case.
size_t FindNoCase(const std::string& lowerText, const std::string& part, size_t from) {
  return lowerText.find(LowerText(part), from);
}

}  // namespace

TXmlList ScanXml(const std::string& text) {
  TXmlList list;
  std::string lower = LowerText(text);
  std::unordered_map<std::string, size_t> nextEndTag;
  size_t at = 0;
  for (;;) {
    size_t open = text.find('<', at);
    if (open == std::string::npos) break;
    size_t close = text.find('>', open);
    if (close == std::string::npos) break;
    size_t nameEnd = text.find_first_of(" \t\r\n>", open);
    TXmlItem item;
    item.Name = Trim(text.substr(open + 1, nameEnd - open - 1));
    // The attribute text is the whole tag: line ends made blanks, blanks inside quotes made tabs
    // for the moment, so that it splits at blanks; its first word is the name.
    std::string attributes = text.substr(open + 1, close - open - 1);
    ReplaceAll(attributes, "\r\n", " ");
    for (char& c : attributes)
      if (c == '\r' || c == '\n') c = ' ';
    bool quoted = false;
    for (char& c : attributes) {
      if (c == '"') quoted = !quoted;
      if (!quoted && c == '\t') c = ' ';  // tabs between attributes separate them as blanks do
      else if (quoted && c == ' ') c = '\t';
    }
    bool selfClosing = close > open && text[close - 1] == '/';
    if (selfClosing) {
      if (!item.Name.empty() && item.Name.back() == '/') item.Name.pop_back();
      if (!attributes.empty() && attributes.back() == '/') attributes.pop_back();
      item.Text = " ";
      at = close + 1;
    } else {
      std::string endTag = "</" + item.Name + ">";
      // Positions only grow, so an end tag found (or missed) once for a name holds for every
      // later search behind an earlier position: many open tags cost one search, not one each.
      auto cached = nextEndTag.find(LowerText(endTag));
      size_t end;
      if (cached != nextEndTag.end() && (cached->second == std::string::npos || cached->second > close)) {
        end = cached->second;
      } else {
        end = FindNoCase(lower, endTag, close + 1);
        nextEndTag[LowerText(endTag)] = end;
      }
      if (end == std::string::npos) {
        at = close + 1;  // no end tag: the element is dropped
        continue;
      }
      item.Text = Trim(text.substr(close + 1, end - close - 1));
      if (item.Text.empty()) item.Text = " ";
      at = end + endTag.size();
    }
    while (attributes.find("\t\t") != std::string::npos) ReplaceAll(attributes, "\t\t", "\t");
    ReplaceAll(attributes, " = \"", "=\"");
    ReplaceAll(attributes, "= \"", "=\"");
    ReplaceAll(attributes, " =\"", "=\"");
    while (attributes.find("  ") != std::string::npos) ReplaceAll(attributes, "  ", " ");
    attributes = Trim(attributes);
    if (item.Name.empty() || attributes.empty() || item.Text.empty()) continue;
    size_t start = attributes.find(' ');
    start = start == std::string::npos ? attributes.size() : start + 1;
    while (start < attributes.size()) {
      size_t blank = attributes.find(' ', start);
      if (blank == std::string::npos) blank = attributes.size();
      std::string word = attributes.substr(start, blank - start);
      start = blank + 1;
      if (word.empty()) continue;
      size_t equals = word.find('=');
      std::string name = word.substr(0, equals);
      std::string value = equals == std::string::npos ? "" : word.substr(equals + 1);
      if (value.size() >= 2 && value.front() == '"' && value.back() == '"')
        value = value.substr(1, value.size() - 2);
      else if (!value.empty() && value.front() == '"')
        value.erase(0, 1);
      for (char& c : value)
        if (c == '\t') c = ' ';
      item.Attributes.emplace_back(name, value);
    }
    list.push_back(std::move(item));
  }
  return list;
}

std::string GetAttribute(const TXmlItem& item, const std::string& name) {
  for (const auto& [key, value] : item.Attributes)
    if (EqualNoCase(key, name)) return value;
  return "";
}

std::string GetAttribute(const TXmlList& list, size_t index, const std::string& name) {
  return index < list.size() ? GetAttribute(list[index], name) : "";
}

std::string GetElementText(const TXmlList& list, const std::string& name) {
  for (const TXmlItem& item : list)
    if (EqualNoCase(item.Name, name)) return item.Text;
  return "";
}

}  // namespace sonvex
