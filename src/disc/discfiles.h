// File access for disc structures: whole small files read at once, folders and files found
// whatever the case a copy gave them, listings sorted by name, and checked big-endian access to
// the bytes of a file that may be damaged or hostile.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace sonvex {

// Disc structure files are small; anything larger than this is not one of them.
constexpr uintmax_t kDiscFileLimit = 64u << 20;

// The whole file; false if it can't be read, is larger than `limit` or is read short.
bool ReadWholeFile(const std::string& path, std::vector<uint8_t>& data,
                   uintmax_t limit = kDiscFileLimit);

// `relative` ("a/b/..", "/" separated) followed from `base`: ".." goes up, every other part is
// the entry of that name, or else the first entry in name order whose name matches it without
// regard to case. Empty if a part can't be found.
std::string FindDiscPath(const std::string& base, const std::string& relative);
bool IsDiscFolder(const std::string& path);
bool IsDiscFile(const std::string& path);

// Names of the regular files in `folder` whose name ends in `extension` (any case), sorted in
// byte order.
std::vector<std::string> ListDiscFiles(const std::string& folder, const std::string& extension);

// A folder path with exactly one "/" at its end.
std::string WithSlash(const std::string& folder);
std::string LowerText(std::string text);
bool EqualNoCase(const std::string& a, const std::string& b);
bool ContainsNoCase(const std::string& text, const std::string& part);

// Big-endian reads that never leave the buffer: a read outside sets `failed` and gives zero.
class TByteView {
public:
  TByteView(const uint8_t* data, size_t size) : data_(data), size_(size) {}
  explicit TByteView(const std::vector<uint8_t>& data) : TByteView(data.data(), data.size()) {}

  uint32_t U8(uint64_t at) { return Has(at, 1) ? data_[at] : 0; }
  uint32_t U16(uint64_t at) { return Has(at, 2) ? uint32_t(data_[at] << 8 | data_[at + 1]) : 0; }
  uint32_t U32(uint64_t at) {
    return Has(at, 4) ? uint32_t(data_[at]) << 24 | uint32_t(data_[at + 1]) << 16 |
                            uint32_t(data_[at + 2]) << 8 | data_[at + 3]
                      : 0;
  }
  std::string Text(uint64_t at, uint64_t length) {
    return Has(at, length) ? std::string(reinterpret_cast<const char*>(data_ + at), length) : "";
  }
  size_t Size() const { return size_; }
  bool Failed() const { return failed_; }

private:
  bool Has(uint64_t at, uint64_t length) {
    if (at > size_ || length > size_ - at) failed_ = true;
    return !failed_;
  }
  const uint8_t* data_;
  size_t size_;
  bool failed_ = false;
};

}  // namespace sonvex
