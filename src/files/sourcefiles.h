// TSourceFiles: the source stage of every chain. It reads a list of files as one continuous byte
// stream and pushes it to its upstreams in blocks of 16384 bytes. At construction it looks into
// each file to learn whether the source is an EVO/VOB program stream or a TS/M2TS transport
// stream, its play time, and the time stamps each file begins and ends with, so that the places
// where joined files don't join up can be told to the chain.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "framework/upstream.h"

namespace sonvex {

class TTsProbe;

class ISourceFiles {
public:
  virtual ~ISourceFiles() = default;
  virtual int64_t TotalSize() = 0;
  virtual int64_t Position() = 0;
  // Goes to a place in the joined stream; false (and no change) outside 0..TotalSize().
  virtual bool Seek(int64_t position) = 0;
  // Reads up to `size` bytes; `size` returns what was read. A read stops early where it crosses
  // into the next file.
  virtual bool Read(uint8_t* buffer, uint32_t& size) = 0;
};

class TSourceFiles : public TUpStream, public ISourceFiles {
public:
  // Block size of the chain.
  static constexpr uint32_t kBlockSize = 16384;

  // `limit` is the number of bytes after which reading stops, 0 for none. The frame rate gives
  // the length of the last frame of a file. `probed`, an earlier source of the same files whose
  // probe found them without complaint, spares reading their heads and tails again. Check
  // IsValid() behind it.
  static std::shared_ptr<TSourceFiles> Create(const std::vector<std::string>& names,
                                              uint32_t frameNumerator, uint32_t frameDenominator,
                                              int64_t limit, const TSourceFiles* probed = nullptr);

  TSourceFiles(const std::vector<std::string>& names, uint32_t frameNumerator,
               uint32_t frameDenominator, int64_t limit, const TSourceFiles* probed = nullptr);
  ~TSourceFiles() override;

  // The start button: takes no data and returns when the whole source has been pushed through.
  bool Write(SenderId sender, bool isHeader, const uint8_t* data, uint32_t size, int64_t position,
             bool flush) override;
  bool Finish() override;

  int64_t TotalSize() override { return totalSize; }
  int64_t Position() override { return position; }
  bool Seek(int64_t newPosition) override;
  bool Read(uint8_t* buffer, uint32_t& size) override;

  // What the probe found: play time in 90 kHz ticks (the total size for a source that is
  // neither EVO/VOB nor TS/M2TS), and per file the first and the end time stamp (-1: unknown).
  int64_t PlayTime() const { return playTime; }
  const std::vector<int64_t>& FirstStamps() const { return firstStamps; }
  const std::vector<int64_t>& LastStamps() const { return lastStamps; }
  bool IsEvo() const { return isEvo; }
  bool IsTs() const { return isTs; }

  // Two files join up when the next one's first time stamp is within this many 90 kHz ticks of

private:
  bool Reusable(const TSourceFiles* probed) const;
  void Probe(const TSourceFiles* earlier);
  void ProbeEvo(size_t index, const uint8_t* head, size_t headSize, uint8_t* tail);
  void ProbeTs(size_t index, const uint8_t* head, size_t headSize, uint8_t* tail, TTsProbe& ts);
  void UseStamps(size_t index, int64_t first, int64_t last);
  bool ReadAt(size_t index, int64_t offset, uint8_t* buffer, size_t size, size_t& got);
  int64_t FrameTicks() const;
  // Hands out up to `size` bytes at the read position from the read-ahead cache, without copying.
  bool ReadSpan(const uint8_t*& data, uint32_t& size);
  // One block of the read loop: a span of the cache where it can be, else a copy in buffer 0.
  bool ReadBlock(const uint8_t*& data, uint32_t& size);

  std::vector<std::string> names;
  std::vector<int> handles;
  std::vector<int64_t> sizes;
  std::vector<int64_t> firstStamps;
  std::vector<int64_t> lastStamps;
  uint32_t frameNumerator;
  uint32_t frameDenominator;
  uint32_t fileIndex = 0;
  int64_t filePosition = 0;
  int64_t totalSize = 0;
  int64_t playTime = 0;
  int64_t limit;
  int64_t position = 0;
  bool isEvo = true;
  bool isTs = true;
  bool crossedFile = false;
  bool probeSpoke = false;  // the probe logged something: its findings are not reused
  bool finished = false;

  // Read-ahead: one large read serves many blocks. Holds bytes [cacheOffset, +cacheFill) of
  // file cacheFile.
  std::unique_ptr<uint8_t[]> cache;
  uint32_t cacheSize = 0;
  size_t cacheFile = 0;
  int64_t cacheOffset = 0;
  uint32_t cacheFill = 0;
};

}  // namespace sonvex
