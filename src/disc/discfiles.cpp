// Disc file access: whole-file reads, case-insensitive lookups, sorted listings.
#include "disc/discfiles.h"

#include <algorithm>
#include <cctype>
#include <filesystem>
#include <fstream>

namespace fs = std::filesystem;

namespace sonvex {

bool ReadWholeFile(const std::string& path, std::vector<uint8_t>& data, uintmax_t limit) {
  data.clear();
  std::error_code error;
  if (!fs::is_regular_file(path, error)) return false;
  uintmax_t size = fs::file_size(path, error);
  if (error || size > limit) return false;
  std::ifstream in(path, std::ios::binary);
  if (!in) return false;
  data.resize(size_t(size));
  if (size && !in.read(reinterpret_cast<char*>(data.data()), std::streamsize(size))) {
    data.clear();
    return false;
  }
  return true;
}

std::string LowerText(std::string text) {
  for (char& c : text) c = char(std::tolower(static_cast<unsigned char>(c)));
  return text;
}

bool EqualNoCase(const std::string& a, const std::string& b) { return LowerText(a) == LowerText(b); }

bool ContainsNoCase(const std::string& text, const std::string& part) {
  return LowerText(text).find(LowerText(part)) != std::string::npos;
}

std::string WithSlash(const std::string& folder) {
  if (folder.empty()) return "./";
  return folder.back() == '/' ? folder : folder + "/";
}

namespace {

std::vector<std::string> SortedNames(const std::string& folder) {
  std::vector<std::string> names;
  std::error_code error;
  fs::directory_iterator it(folder.empty() ? "." : folder, error), end;
  for (; !error && it != end; it.increment(error)) names.push_back(it->path().filename().string());
  std::sort(names.begin(), names.end());
  return names;
}

}  // namespace

std::string FindDiscPath(const std::string& base, const std::string& relative) {
  std::string path = base.empty() ? "." : base;
  std::error_code error;
  if (!fs::exists(path, error)) return "";
  size_t start = 0;
  while (start <= relative.size()) {
    size_t end = relative.find('/', start);
    if (end == std::string::npos) end = relative.size();
    std::string part = relative.substr(start, end - start);
    start = end + 1;
    if (part.empty() || part == ".") continue;
    std::string next = WithSlash(path) + part;
    if (part != ".." && !fs::exists(next, error)) {
      next.clear();
      for (const std::string& name : SortedNames(path))
        if (EqualNoCase(name, part)) {
          next = WithSlash(path) + name;
          break;
        }
      if (next.empty()) return "";
    }
    if (!fs::exists(next, error)) return "";
    path = next;
  }
  return path;
}

bool IsDiscFolder(const std::string& path) {
  std::error_code error;
  return !path.empty() && fs::is_directory(path, error);
}

bool IsDiscFile(const std::string& path) {
  std::error_code error;
  return !path.empty() && fs::is_regular_file(path, error);
}

std::vector<std::string> ListDiscFiles(const std::string& folder, const std::string& extension) {
  std::vector<std::string> files;
  std::string ext = LowerText(extension);
  for (const std::string& name : SortedNames(folder)) {
    if (name.size() < ext.size() || LowerText(name.substr(name.size() - ext.size())) != ext) continue;
    if (IsDiscFile(WithSlash(folder) + name)) files.push_back(name);
  }
  return files;
}

}  // namespace sonvex
