// TPesParser: strips the packet layer of an MPEG system stream (PES packets of one transport
// stream PID, or program stream data with pack headers, system headers, padding and DSI packets)
// and sends each PES payload on with its time stamp in `position`. Outside raw mode the PTS values
// are turned into a continuous running time that survives 32-bit wraps, file joins and seamless
// branches; the first time stamp of a stream is 0.
#pragma once

#include <cstdint>
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
  enum class Item { Next, Wait, Stop };
  Item HandlePes(const uint8_t* at, uint32_t remaining, uint32_t& length, bool flush);
  void HandleDsi(const uint8_t* at, uint32_t length);

  const bool RawTimestamps;
  TPesTimeline timeline;
  bool flushing = false;
  int64_t firstPts = -1;
};

}  // namespace sonvex
