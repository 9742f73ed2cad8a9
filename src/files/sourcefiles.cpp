// TSourceFiles: joined source files as one stream, the probe at construction, the read loop.
#include "files/sourcefiles.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <new>

#include "files/junkscan.h"
#include "files/sourceprobe.h"
#include "framework/console.h"

namespace sonvex {

namespace {

constexpr size_t kProbeHead = 0xA00000;    // 10 MiB from the start of each file
constexpr size_t kEvoTail = 0x1E00000;     // 30 MiB at the end of an EVO/VOB file
constexpr uint32_t kTsHeadPackets = 51200;
constexpr uint32_t kTsTailPackets = 153600;
constexpr uint32_t kCacheSize = 0x100000;  // one operating-system read serves 64 blocks

}  // namespace

std::shared_ptr<TSourceFiles> TSourceFiles::Create(const std::vector<std::string>& names,
                                                   uint32_t frameNumerator,
                                                   uint32_t frameDenominator, int64_t limit,
                                                   const TSourceFiles* probed) {
  return std::make_shared<TSourceFiles>(names, frameNumerator, frameDenominator, limit, probed);
}

TSourceFiles::TSourceFiles(const std::vector<std::string>& fileNames, uint32_t numerator,
                           uint32_t denominator, int64_t byteLimit, const TSourceFiles* probed)
    : names(fileNames),
      frameNumerator(numerator),
      frameDenominator(denominator),
      limit(byteLimit) {
  Probe(Reusable(probed) ? probed : nullptr);
}

// An earlier probe of the same files serves again when it went through without a word and the
// files still have the sizes it saw.
bool TSourceFiles::Reusable(const TSourceFiles* probed) const {
  if (!probed || !probed->IsValid() || probed->probeSpoke || probed->names != names) return false;
  for (size_t i = 0; i < names.size(); i++) {
    struct stat info {};
    if (stat(names[i].c_str(), &info) != 0 || int64_t(info.st_size) != probed->sizes[i])
      return false;
  }
  return true;
}

TSourceFiles::~TSourceFiles() {
  for (int handle : handles)
    if (handle >= 0) close(handle);
}

// The length of one frame in 90 kHz ticks, such as 1001 x 90 / 24 = 3753 for 24000/1001.
int64_t TSourceFiles::FrameTicks() const {
  if (frameNumerator >= 1000) return int64_t(frameDenominator) * 90 / (frameNumerator / 1000);
  if (frameNumerator > 0) return int64_t(frameDenominator) * 90000 / frameNumerator;
  return 0;
}

bool TSourceFiles::ReadAt(size_t index, int64_t offset, uint8_t* buffer, size_t size,
                          size_t& got) {
  got = 0;
  while (got < size) {
    ssize_t n = pread(handles[index], buffer + got, size - got, off_t(offset + int64_t(got)));
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) return false;
    if (n == 0) break;
    got += size_t(n);
  }
  return true;
}

void TSourceFiles::Probe(const TSourceFiles* earlier) {
  std::unique_ptr<uint8_t[]> head, tail;
  size_t headCapacity = 0, tailCapacity = 0;
  TTsProbe ts([this](int level, const std::string& text, bool force) {
    probeSpoke = true;
    Log(level, text, force);
  });
  for (size_t i = 0; i < names.size(); i++) {
    const std::string& name = names[i];
    int handle = open(name.c_str(), O_RDONLY | O_CLOEXEC);
    struct stat info {};
    if (handle >= 0 && (fstat(handle, &info) != 0 || S_ISDIR(info.st_mode))) {
      close(handle);
      handle = -1;
    }
    handles.push_back(handle);
    sizes.push_back(handle >= 0 ? int64_t(info.st_size) : 0);
    firstStamps.push_back(-1);
    lastStamps.push_back(-1);
    if (handle < 0) {
      Fail("The source file \"" + name + "\" could not be opened.");
      continue;
    }
    posix_fadvise(handle, 0, 0, POSIX_FADV_SEQUENTIAL);
    totalSize += sizes[i];
    if (earlier) continue;

    bool evoProbe = isEvo && (i == 0 || playTime > 0);
    if (!evoProbe && !isTs) continue;
    // The buffers grow with the files, up to the 10 MiB head and the 30 MiB tail.
    size_t fileSize = size_t(sizes[i]);
    if (std::min(fileSize, kEvoTail) > tailCapacity) {
      headCapacity = std::min(fileSize, kProbeHead);
      tailCapacity = std::min(fileSize, kEvoTail);
      head.reset(new (std::nothrow) uint8_t[headCapacity]);
      tail.reset(new (std::nothrow) uint8_t[tailCapacity]);
      if (!head || !tail) {
        Fail("The source file reader couldn't allocate enough memory.");
        return;
      }
    }
    size_t headSize = 0;
    if (!ReadAt(i, 0, head.get(), std::min(fileSize, kProbeHead), headSize)) {
      Fail("Error reading file \"" + name + "\".");
      continue;
    }
    if (evoProbe) ProbeEvo(i, head.get(), headSize, tail.get());
    if (isTs) ProbeTs(i, head.get(), headSize, tail.get(), ts);
  }
  if (earlier) {
    // The stamps as found; the end of a file lies one frame of this chain's rate behind them.
    isEvo = earlier->isEvo;
    isTs = earlier->isTs;
    playTime = earlier->playTime;
    firstStamps = earlier->firstStamps;
    for (size_t i = 0; i < names.size(); i++)
      if (firstStamps[i] >= 0)
        lastStamps[i] = earlier->lastStamps[i] - earlier->FrameTicks() + FrameTicks();
    return;
  }
  if (!isEvo && !isTs) playTime = totalSize;
}

// The time stamps of a file: the span from first to last adds to the play time, and the file
// ends one frame behind its last stamp. A last stamp below the first has wrapped.
void TSourceFiles::UseStamps(size_t index, int64_t first, int64_t last) {
  if (last < first) last += int64_t(1) << 32;
  playTime += last - first;
  firstStamps[index] = first;
  lastStamps[index] = last + FrameTicks();
}

void TSourceFiles::ProbeEvo(size_t index, const uint8_t* head, size_t headSize, uint8_t* tail) {
  const std::string& name = names[index];
  auto noDsi = [&] {
    if (index == 0) {
      isEvo = false;
    } else {
      probeSpoke = true;
      Log(1, "The EVO/VOB file \"" + name + "\" doesn't contain a valid DSI packet.");
      playTime = 0;
    }
  };
  if (headSize < 13) return noDsi();
  TProbeStamps stamps;
  TEvoWalk walk = WalkEvoPackets(head, headSize, true, stamps);
  if (walk == TEvoWalk::kCutPacket) return noDsi();
  if (walk == TEvoWalk::kBadCode) {
    if (index == 0) {
      isEvo = false;
    } else {
      probeSpoke = true;
      Log(1, "The file \"" + name + "\" doesn't look like a valid EVO/VOB file.");
      playTime = 0;
    }
    return;
  }
  if (stamps.firstAny >= 0) {
    // The last 30 MiB, from a sector boundary.
    int64_t start = std::max<int64_t>(0, sizes[index] - int64_t(kEvoTail));
    start = (start + 2047) / 2048 * 2048;
    size_t tailSize = 0;
    size_t want = size_t(std::min<int64_t>(int64_t(kEvoTail), sizes[index] - start));
    if (!ReadAt(index, start, tail, want, tailSize)) {
      Fail("Error reading file \"" + name + "\".");
      return;
    }
    WalkEvoPackets(tail, tailSize, false, stamps);
  }
  if (stamps.firstVideo >= 0 && stamps.lastVideo >= 0)
    UseStamps(index, stamps.firstVideo, stamps.lastVideo);
  else if (stamps.firstAny >= 0 && stamps.lastAny >= 0)
    UseStamps(index, stamps.firstAny, stamps.lastAny);
  else if (stamps.dsiPlayTime >= 0)
    playTime += stamps.dsiPlayTime;
}

void TSourceFiles::ProbeTs(size_t index, const uint8_t* head, size_t headSize, uint8_t* tail,
                           TTsProbe& ts) {
  uint32_t packetSize = DetectTsPacketSize(head, headSize);
  // Leading junk in front of the first file's packets: detection skips it, and so does the walk.
  size_t junk = 0;
  if (packetSize == 0 && index == 0) {
    uint64_t start = FindTransportStreamStart(head, headSize, kJunkSearchLimit);
    if (start != kNoStart && start < headSize) {
      junk = size_t(start);
      packetSize = DetectTsPacketSize(head + junk, headSize - junk);
    }
  }
  if (packetSize == 0) {
    isTs = false;
    return;
  }
  auto badPes = [&] {
    if (index == 0) {
      probeSpoke = true;
      Log(2, "This doesn't seem to be a valid PES packet.");
      isTs = false;
    } else {
      probeSpoke = true;
      Log(1, "This doesn't seem to be a valid PES packet.");
      playTime = 0;
    }
  };
  ts.Reset();
  TProbeStamps stamps;
  TTsProbe::TWalk walk =
      ts.Walk(head + junk, headSize - junk, packetSize, kTsHeadPackets, true, stamps);
  if (walk == TTsProbe::TWalk::kBadPes) return badPes();
  if (walk == TTsProbe::TWalk::kDamaged || stamps.firstAny < 0) return;
  // The last packets, from a packet boundary.
  int64_t span = int64_t(kTsTailPackets) * packetSize;
  int64_t start = std::max<int64_t>(int64_t(junk), sizes[index] - span) - int64_t(junk);
  start = int64_t(junk) + (start + packetSize - 1) / packetSize * packetSize;
  size_t tailSize = 0;
  size_t want = size_t(std::min<int64_t>(span, sizes[index] - start));
  if (!ReadAt(index, start, tail, want, tailSize)) {
    Fail("Error reading file \"" + names[index] + "\".");
    return;
  }
  walk = ts.Walk(tail, tailSize, packetSize, kTsTailPackets, false, stamps);
  if (walk == TTsProbe::TWalk::kBadPes) return badPes();
  if (walk == TTsProbe::TWalk::kDamaged) return;
  if (stamps.firstVideo >= 0 && stamps.lastVideo >= 0)
    UseStamps(index, stamps.firstVideo, stamps.lastVideo);
  else if (stamps.lastAny >= 0)
    UseStamps(index, stamps.firstAny, stamps.lastAny);
}

bool TSourceFiles::Seek(int64_t newPosition) {
  if (newPosition < 0 || newPosition > totalSize) return false;
  if (newPosition == position) return true;
  fileIndex = 0;
  filePosition = 0;
  position = newPosition;
  int64_t rest = newPosition;
  while (fileIndex + 1 < sizes.size() && rest >= sizes[fileIndex]) {
    rest -= sizes[fileIndex];
    fileIndex++;
  }
  filePosition = rest;
  return true;
}

bool TSourceFiles::ReadSpan(const uint8_t*& data, uint32_t& size) {
  if (fileIndex >= handles.size() || handles[fileIndex] < 0) return false;
  if (filePosition >= sizes[fileIndex]) {
    size = 0;
    if (fileIndex + 1 >= handles.size()) return false;
    fileIndex++;
    filePosition = 0;
    crossedFile = true;
    return true;
  }
  if (!cache) {
    cache.reset(new (std::nothrow) uint8_t[kCacheSize]);
    if (!cache) return false;
    cacheSize = kCacheSize;
  }
  if (cacheFile != fileIndex || filePosition < cacheOffset ||
      filePosition >= cacheOffset + cacheFill) {
    size_t want = size_t(std::min<int64_t>(cacheSize, sizes[fileIndex] - filePosition));
    size_t got = 0;
    cacheFill = 0;
    if (!ReadAt(fileIndex, filePosition, cache.get(), want, got) || got == 0) return false;
    cacheFile = fileIndex;
    cacheOffset = filePosition;
    cacheFill = uint32_t(got);
  }
  int64_t available = cacheOffset + cacheFill - filePosition;
  size = uint32_t(std::min<int64_t>(size, available));
  data = cache.get() + (filePosition - cacheOffset);
  filePosition += size;
  position += size;
  return true;
}

bool TSourceFiles::Read(uint8_t* buffer, uint32_t& size) {
  if (position + int64_t(size) > totalSize) size = uint32_t(std::max<int64_t>(0, totalSize - position));
  uint32_t want = size;
  size = 0;
  while (size < want) {
    const uint8_t* span = nullptr;
    uint32_t n = want - size;
    if (!ReadSpan(span, n)) return false;
    if (n == 0) break;  // crossed into the next file
    std::memcpy(buffer + size, span, n);
    size += n;
  }
  return true;
}

bool TSourceFiles::ReadBlock(const uint8_t*& data, uint32_t& size) {
  uint32_t want = size;
  if (!ReadSpan(data, size)) return false;
  if (size == want || size == 0 || filePosition >= sizes[fileIndex]) return true;
  // The cache ended inside the block: gather the block in buffer 0.
  uint8_t* block = BufferData(0);
  std::memcpy(block, data, size);
  uint32_t more = want - size;
  if (!Read(block + size, more)) return false;
  size += more;
  data = block;
  return true;
}

bool TSourceFiles::Write(SenderId, bool, const uint8_t*, uint32_t, int64_t sendPosition,
                         bool flush) {
  if (!valid) return false;
  if (!CheckUpStreams("source file")) return false;
  const std::string tag = isEvo ? "evo" : isTs ? "m2ts" : "?";
  for (auto& up : upStreams)
    if (up) up->InitContainer(tag, totalSize, playTime);
  if (tag == "?" && !NotifyContainer("?", totalSize, playTime)) return false;
  if (!NotifyAudio("?", 1, 8, 48000, false, totalSize)) valid = false;
  if (valid && !ReserveBuffer(0, kBlockSize))
    Fail("The source file reader couldn't allocate enough memory.");

  int64_t end = totalSize;
  if (limit > 0 && limit < end) end = limit;
  while (valid && position < end) {
    const uint8_t* data = nullptr;
    uint32_t size = uint32_t(std::min<int64_t>(kBlockSize, end - position));
    if (!ReadBlock(data, size) || (size == 0 && !crossedFile)) {
      Fail("Reading the source file failed.");
      break;
    }
    if (size > 0 && !Send(false, data, size, sendPosition, flush)) valid = false;
    UpdateProgress(end, position);
    if (crossedFile) {
      crossedFile = false;
      int64_t first = firstStamps[fileIndex];
      int64_t last = lastStamps[fileIndex - 1];
      if (valid && first >= 0 && last >= 0) {
        // Every file boundary with known stamps is a seam, even a seamless one: the stages
        // behind (the TS demuxer's continuity counters, the PES parser) start afresh there.
        int64_t jump = first - last;
        BroadcastSeam(true, jump);
        BroadcastSeam(false, jump);
      }
    }
  }
  if (valid) return Finish();
  UpdateProgress(1, 0);
  return false;
}

bool TSourceFiles::Finish() {
  if (valid && !finished) {
    finished = true;
    valid = FinishUpStreams();
  }
  UpdateProgress(1, 0);
  return valid;
}

}  // namespace sonvex
