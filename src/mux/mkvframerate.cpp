// PatchMkvFrameRate: an EBML walk that adds the default duration to a Matroska file's video track.
#include "mux/mkvframerate.h"

#include <array>
#include <cstdio>
#include <fstream>
#include <map>
#include <vector>

#include "framework/console.h"

namespace sonvex {

namespace {

constexpr uint32_t kEbmlHeader = 0x1A45DFA3;
constexpr uint32_t kSegment = 0x18538067;
constexpr uint32_t kSeekHead = 0x114D9B74;
constexpr uint32_t kSeek = 0x4DBB;
constexpr uint32_t kSeekPosition = 0x53AC;
constexpr uint32_t kTracks = 0x1654AE6B;
constexpr uint32_t kTrackEntry = 0xAE;
constexpr uint32_t kTrackType = 0x83;
constexpr uint32_t kVideo = 0xE0;
constexpr uint32_t kDefaultDuration = 0x23E383;
constexpr uint32_t kCluster = 0x1F43B675;
constexpr uint32_t kVoid = 0xEC;
constexpr uint32_t kCrc32 = 0xBF;
constexpr uint64_t kUnknownSize = ~uint64_t(0);
constexpr uint64_t kHeadLimit = 64ull << 20;  // a head larger than this isn't rewritten

// One element: where it starts, the length of its id and size fields, and its data size.
struct Element {
  uint32_t id = 0;
  uint64_t start = 0;
  uint32_t idLength = 0, sizeLength = 0;
  uint64_t size = 0;
  uint64_t DataStart() const { return start + idLength + sizeLength; }
  uint64_t End() const { return DataStart() + size; }
};

// Reads the element header at `at` of `data` (of `length` bytes); false if it doesn't fit.
bool ReadElement(const uint8_t* data, uint64_t length, uint64_t at, Element& e) {
  if (at >= length) return false;
  uint8_t first = data[at];
  uint32_t idLength = 1;
  while (idLength <= 4 && !(first & (0x80 >> (idLength - 1)))) idLength++;
  if (idLength > 4 || at + idLength >= length) return false;
  uint32_t id = 0;
  for (uint32_t i = 0; i < idLength; i++) id = id << 8 | data[at + i];
  uint64_t p = at + idLength;
  uint8_t lead = data[p];
  uint32_t sizeLength = 1;
  while (sizeLength <= 8 && !(lead & (0x80 >> (sizeLength - 1)))) sizeLength++;
  if (sizeLength > 8 || p + sizeLength > length) return false;
  uint64_t size = lead & (0xFF >> sizeLength);
  bool allOnes = size == (0xFFu >> sizeLength);
  for (uint32_t i = 1; i < sizeLength; i++) {
    size = size << 8 | data[p + i];
    allOnes = allOnes && data[p + i] == 0xFF;
  }
  e.id = id;
  e.start = at;
  e.idLength = idLength;
  e.sizeLength = sizeLength;
  e.size = allOnes ? kUnknownSize : size;
  return true;
}

// The children of an element whose data is [from, to) of `data`; false on a broken layout.
bool Children(const std::string& data, uint64_t from, uint64_t to, std::vector<Element>& list) {
  const auto* bytes = reinterpret_cast<const uint8_t*>(data.data());
  for (uint64_t at = from; at < to;) {
    Element e;
    if (!ReadElement(bytes, to, at, e) || e.size == kUnknownSize || e.size > to - e.DataStart())
      return false;
    list.push_back(e);
    at = e.End();
  }
  return true;
}

uint64_t ReadUnsigned(const std::string& data, const Element& e) {
  uint64_t value = 0;
  for (uint64_t i = 0; i < e.size && i < 8; i++) value = value << 8 | uint8_t(data[e.DataStart() + i]);
  return value;
}

// An element size in exactly `length` bytes; false if it doesn't fit.
bool PutSize(std::string& out, uint64_t size, uint32_t length) {
  if (length < 1 || length > 8 || size >= (uint64_t(1) << (7 * length)) - 1) return false;
  uint64_t coded = size | (uint64_t(1) << (7 * length));
  for (uint32_t i = length; i-- > 0;) out.push_back(char(coded >> (8 * i)));
  return true;
}

uint32_t SizeLength(uint64_t size, uint32_t least) {
  uint32_t length = least < 1 ? 1 : least;
  while (length < 8 && size >= (uint64_t(1) << (7 * length)) - 1) length++;
  return length;
}

void PutId(std::string& out, uint32_t id) {
  int bytes = id > 0xFFFFFF ? 4 : id > 0xFFFF ? 3 : id > 0xFF ? 2 : 1;
  for (int i = bytes; i-- > 0;) out.push_back(char(id >> (8 * i)));
}

uint32_t Crc32(const char* data, size_t size) {
  static const std::array<uint32_t, 256> table = [] {
    std::array<uint32_t, 256> t{};
    for (uint32_t n = 0; n < 256; n++) {
      uint32_t c = n;
      for (int k = 0; k < 8; k++) c = (c & 1) ? 0xEDB88320u ^ (c >> 1) : c >> 1;
      t[n] = c;
    }
    return t;
  }();
  uint32_t crc = 0xFFFFFFFFu;
  for (size_t i = 0; i < size; i++) crc = table[(crc ^ uint8_t(data[i])) & 0xFF] ^ (crc >> 8);
  return crc ^ 0xFFFFFFFFu;
}

// A master element from its id and new data. A CRC-32 element standing first in the data is
// computed anew over the rest. The size field keeps `sizeLength` bytes where the size fits.
std::string Master(uint32_t id, std::string data, uint32_t sizeLength) {
  if (data.size() >= 6 && uint8_t(data[0]) == kCrc32 && uint8_t(data[1]) == 0x84) {
    uint32_t crc = Crc32(data.data() + 6, data.size() - 6);
    for (int i = 0; i < 4; i++) data[size_t(2 + i)] = char(crc >> (8 * i));
  }
  std::string out;
  PutId(out, id);
  PutSize(out, data.size(), SizeLength(data.size(), sizeLength));
  return out + data;
}

std::string Slice(const std::string& data, uint64_t from, uint64_t to) {
  return data.substr(size_t(from), size_t(to - from));
}

// The Tracks element with the default duration added to its video entry. Empty when there's
// no video entry; `already` when the entry has the value.
std::string NewTracks(const std::string& head, const Element& tracks, uint64_t duration,
                      bool& already) {
  std::vector<Element> entries;
  if (!Children(head, tracks.DataStart(), tracks.End(), entries)) return {};
  std::string data;
  bool done = false;
  for (const Element& entry : entries) {
    std::string bytes = Slice(head, entry.start, entry.End());
    std::vector<Element> fields;
    bool video = false, hasDuration = false;
    if (!done && entry.id == kTrackEntry &&
        Children(head, entry.DataStart(), entry.End(), fields)) {
      for (const Element& f : fields) {
        if (f.id == kVideo || (f.id == kTrackType && ReadUnsigned(head, f) == 1)) video = true;
        if (f.id == kDefaultDuration) hasDuration = true;
      }
    }
    if (video && hasDuration) {
      already = true;
      return {};
    }
    if (video) {
      std::string value;
      PutId(value, kDefaultDuration);
      PutSize(value, 4, 1);
      for (int i = 4; i-- > 0;) value.push_back(char(duration >> (8 * i)));
      bytes = Master(kTrackEntry, Slice(head, entry.DataStart(), entry.End()) + value,
                     entry.sizeLength);
      done = true;
    }
    data += bytes;
  }
  if (!done) return {};
  return Master(kTracks, data, tracks.sizeLength);
}

// A Void element of exactly `total` bytes (0, or at least 2).
std::string NewVoid(uint64_t total, uint32_t sizeLength) {
  std::string out;
  if (total == 0) return out;
  uint32_t length = sizeLength;
  if (length > total - 1) length = uint32_t(total - 1);
  out.push_back(char(kVoid));
  if (!PutSize(out, total - 1 - length, length)) return {};
  out.resize(size_t(total), '\0');
  return out;
}

// Seek positions inside `seekHead` that point at a moved element get its new place.
bool FixSeekHead(std::string& head, const Element& seekHead, uint64_t segmentData,
                 const std::map<uint64_t, uint64_t>& moved) {
  std::vector<Element> seeks;
  if (!Children(head, seekHead.DataStart(), seekHead.End(), seeks)) return false;
  bool changed = false;
  for (const Element& seek : seeks) {
    std::vector<Element> fields;
    if (seek.id != kSeek || !Children(head, seek.DataStart(), seek.End(), fields)) continue;
    for (const Element& f : fields) {
      if (f.id != kSeekPosition || f.size == 0 || f.size > 8) continue;
      auto it = moved.find(segmentData + ReadUnsigned(head, f));
      if (it == moved.end()) continue;
      uint64_t value = it->second - segmentData;
      if (f.size < 8 && value >> (8 * f.size)) return false;
      for (uint64_t i = 0; i < f.size; i++)
        head[size_t(f.DataStart() + i)] = char(value >> (8 * (f.size - 1 - i)));
      changed = true;
    }
  }
  if (changed) {
    std::string rebuilt = Master(kSeekHead, Slice(head, seekHead.DataStart(), seekHead.End()),
                                 seekHead.sizeLength);
    if (rebuilt.size() != seekHead.End() - seekHead.start) return false;
    head.replace(size_t(seekHead.start), rebuilt.size(), rebuilt);
  }
  return true;
}

// The EBML header and the Segment at the start of `data`; false if they aren't there.
bool FindSegment(const uint8_t* data, uint64_t length, Element& segment) {
  Element ebml;
  if (!ReadElement(data, length, 0, ebml) || ebml.id != kEbmlHeader || ebml.size == kUnknownSize)
    return false;
  return ReadElement(data, length, ebml.End(), segment) && segment.id == kSegment;
}

}  // namespace

TMkvPatchResult PatchMkvHead(std::string& head, uint64_t defaultDuration) {
  const auto* bytes = reinterpret_cast<const uint8_t*>(head.data());
  Element segment;
  if (!FindSegment(bytes, head.size(), segment)) return TMkvPatchResult::failed;
  uint64_t segmentData = segment.DataStart();
  std::vector<Element> level1;
  for (uint64_t at = segmentData; at < head.size();) {
    Element e;
    if (!ReadElement(bytes, head.size(), at, e) || e.id == kCluster) break;
    if (e.size == kUnknownSize || e.size > head.size() - e.DataStart()) break;
    level1.push_back(e);
    at = e.End();
  }
  const Element* tracks = nullptr;
  for (const Element& e : level1)
    if (e.id == kTracks) tracks = &e;
  if (!tracks) return TMkvPatchResult::failed;
  bool already = false;
  std::string newTracks = NewTracks(head, *tracks, defaultDuration, already);
  if (already) {
    WriteLine(0, "This MKV already has the fps value set.");
    return TMkvPatchResult::alreadySet;
  }
  if (newTracks.empty()) return TMkvPatchResult::failed;
  uint64_t growth = newTracks.size() - (tracks->End() - tracks->start);

  // The nearest Void with room for the growth gives the bytes.
  const Element* room = nullptr;
  for (const Element& e : level1) {
    uint64_t total = e.End() - e.start;
    if (e.id != kVoid || (total != growth && total < growth + 2)) continue;
    uint64_t distance = e.start > tracks->start ? e.start - tracks->start : tracks->start - e.start;
    uint64_t best = !room ? ~uint64_t(0)
                   : room->start > tracks->start ? room->start - tracks->start
                                                 : tracks->start - room->start;
    if (distance < best) room = &e;
  }
  if (!room) return TMkvPatchResult::failed;

  std::string rebuilt;
  std::map<uint64_t, uint64_t> moved;
  uint64_t first = std::min(room->start, tracks->start);
  uint64_t last = std::max(room->End(), tracks->End());
  for (const Element& e : level1) {
    if (e.start < first || e.End() > last) continue;
    moved[e.start] = first + rebuilt.size();
    if (&e == tracks) {
      rebuilt += newTracks;
    } else if (&e == room) {
      std::string shrunk = NewVoid(e.End() - e.start - growth, e.sizeLength);
      if (shrunk.size() != e.End() - e.start - growth) return TMkvPatchResult::failed;
      rebuilt += shrunk;
    } else {
      rebuilt += Slice(head, e.start, e.End());
    }
  }
  if (rebuilt.size() != last - first) return TMkvPatchResult::failed;
  head.replace(size_t(first), rebuilt.size(), rebuilt);
  for (auto it = moved.begin(); it != moved.end();)
    it = it->first == it->second ? moved.erase(it) : std::next(it);

  // Seek heads are found again in the new layout.
  bytes = reinterpret_cast<const uint8_t*>(head.data());
  for (uint64_t at = segmentData; at < head.size();) {
    Element e;
    if (!ReadElement(bytes, head.size(), at, e) || e.id == kCluster || e.size == kUnknownSize ||
        e.size > head.size() - e.DataStart())
      break;
    if (e.id == kSeekHead && !FixSeekHead(head, e, segmentData, moved))
      return TMkvPatchResult::failed;
    at = e.End();
  }
  return TMkvPatchResult::added;
}

uint64_t MkvHeadLength(const std::string& name) {
  std::ifstream file(name, std::ios::binary);
  if (!file) return 0;
  auto readAt = [&](uint64_t at, uint8_t* buffer, size_t size) -> uint64_t {
    file.clear();
    file.seekg(std::streamoff(at));
    file.read(reinterpret_cast<char*>(buffer), std::streamsize(size));
    return uint64_t(file.gcount());
  };
  file.seekg(0, std::ios::end);
  uint64_t fileSize = uint64_t(file.tellg());
  uint8_t buffer[64];
  uint64_t got = readAt(0, buffer, sizeof buffer);
  Element segment;
  if (!FindSegment(buffer, got, segment)) return 0;
  for (uint64_t at = segment.DataStart(); at < fileSize;) {
    got = readAt(at, buffer, 12);
    Element e;
    if (!ReadElement(buffer, got, 0, e)) return 0;
    if (e.id == kCluster) return at;
    if (e.size == kUnknownSize) return 0;
    at += e.idLength + e.sizeLength + e.size;
    if (at > kHeadLimit) return 0;
  }
  return fileSize <= kHeadLimit ? fileSize : 0;
}

TMkvPatchResult PatchMkvFrameRate(const std::string& name, uint32_t numerator,
                                  uint32_t denominator) {
  if (numerator == 0) return TMkvPatchResult::failed;
  uint64_t duration = (uint64_t(1000000000) * denominator + numerator / 2) / numerator;
  uint64_t length = MkvHeadLength(name);
  if (length == 0) return TMkvPatchResult::failed;
  std::fstream file(name, std::ios::binary | std::ios::in | std::ios::out);
  if (!file) return TMkvPatchResult::failed;
  std::string head(size_t(length), '\0');
  if (!file.read(head.data(), std::streamsize(length))) return TMkvPatchResult::failed;
  std::string before = head;
  TMkvPatchResult result = PatchMkvHead(head, duration);
  if (result != TMkvPatchResult::added) return result;
  size_t from = 0;
  while (from < head.size() && head[from] == before[from]) from++;
  size_t to = head.size();
  while (to > from && head[to - 1] == before[to - 1]) to--;
  file.clear();
  file.seekp(std::streamoff(from));
  if (!file.write(head.data() + from, std::streamsize(to - from)) || !file.flush())
    return TMkvPatchResult::failed;
  return TMkvPatchResult::added;
}

}  // namespace sonvex
