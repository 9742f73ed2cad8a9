// A small scanner for the XML of HD DVD playlists: one level of elements at a time, with their
// attributes and inner text. Children are scanned by calling the scanner again on the parent's
// text. Elements of the same name nested in each other are not understood, and comments must
// be removed by the caller.
#pragma once

#include <string>
#include <utility>
#include <vector>

namespace sonvex {

struct TXmlItem {
  std::string Name;
  std::vector<std::pair<std::string, std::string>> Attributes;
  std::string Text;  // inner text; a single blank for an empty element
};
using TXmlList = std::vector<TXmlItem>;

TXmlList ScanXml(const std::string& text);
// Case-insensitive lookups; the first match wins, no match gives an empty text.
std::string GetAttribute(const TXmlList& list, size_t index, const std::string& name);
std::string GetAttribute(const TXmlItem& item, const std::string& name);
std::string GetElementText(const TXmlList& list, const std::string& name);

}  // namespace sonvex
