// TPesParser: strips the packet layer of an MPEG system stream (PES packets of one transport
// stream PID, or program stream data with pack headers, system headers, padding and DSI packets)
// and sends each PES payload on with its time stamp in `position`. Outside raw mode the PTS values
// are turned into a continuous running time that survives 32-bit wraps, file joins and seamless
// branches; the first time stamp of a stream is 0.
#pragma once

#include <cstdint>
#include <deque>
#include <memory>

#include "framework/upstream.h"
#include "ts/pestimeline.h"

namespace sonvex {

class IPesParser {
public:
  virtual ~IPesParser() = default;
  // The first time stamp sent on, in 90 kHz ticks (in raw mode the stream's own PTS); -1 until
  // one was sent.
  virtual int64_t FirstPts() = 0;
};

class TPesParser : public TUpStream, public IPesParser {
public:
  explicit TPesParser(bool rawTimestamps) : RawTimestamps(rawTimestamps) {}
  static std::shared_ptr<TPesParser> Create(bool rawTimestamps) {
    return std::make_shared<TPesParser>(rawTimestamps);
  }

  int64_t FirstPts() override { return firstPts; }

  bool InitAudio(const std::string& format, uint32_t channels, uint32_t bitsPerSample,
                 uint32_t sampleRate, bool bigEndian, int64_t totalSize) override;
  bool InitVideo(const std::string& format, bool interlaced, bool pulldown, uint32_t width,
                 uint32_t height, uint32_t aspectX, uint32_t aspectY, uint32_t rateNumerator,
                 uint32_t rateDenominator, const std::string& description) override;
  bool InitSubtitle(const std::string& format) override;
  bool Write(SenderId sender, bool isHeader, const uint8_t* data, uint32_t size, int64_t position,
             bool flush) override;
  bool Finish() override;
  void NotifySeam(bool before, int64_t jump) override;

private:
  enum class Item { Next, Wait, Stop, Drop };
  Item HandlePes(const uint8_t* at, uint32_t remaining, uint32_t& length, bool flush);
  void HandleDsi(const uint8_t* at, uint32_t length);

  // Where a damaged packet's unit began, and the first unit start behind `offset` of buffer 0
  // (-1 if none is known yet).
  int64_t UnitPosition(uint32_t offset) const;
  int64_t NextUnitStart(uint32_t offset) const;
  void Consumed(uint32_t count);

  const bool RawTimestamps;
  TPesTimeline timeline;
  // The units of a transport stream PID: each begins with an empty flushing block. Their starts
  // as offsets into the stream given to this stage, with the source file position of their first
  // block (-1 until it is known); only the units still in buffer 0 are kept.
  struct UnitStart {
    uint64_t offset;
    int64_t position;
  };
  std::deque<UnitStart> unitStarts;
  uint64_t bufferBase = 0;      // stream offset of buffer 0's first byte
  bool skipToUnit = false;      // a damaged packet is dropped up to the next unit start
  bool damageReported = false;  // once per track
  bool flushing = false;
  int64_t firstPts = -1;
};

}  // namespace sonvex
