// TPgsReader: turns the PES packets of a Blu-ray presentation graphics stream (PGS, stream type
// 0x90) into a SUP file. Every segment of a packet (type byte, 16-bit size, body) goes out behind
// a 10-byte head: "PG", then the packet's PTS and DTS as 32-bit big-endian 90 kHz values counted
// from the source's time origin (the earliest first time stamp of its audio and video streams).
// A packet without DTS takes its PTS for both. The TS demuxer sends an empty flushing block ahead
// of each packet; the reader completes the packet it holds there and at the end.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "framework/upstream.h"

namespace sonvex {

// The time origin of a PGS track, in 90 kHz ticks of the 33-bit PES clock; -1 if not known.
class IPgsTiming {
public:
  virtual ~IPgsTiming() = default;
  virtual int64_t TimeOrigin() const = 0;
};

class TPgsReader : public TUpStream, public IPgsTiming {
public:
  // `timeOrigin` -1: the first packet's own PTS becomes time 0.
  explicit TPgsReader(int64_t timeOrigin) : origin(timeOrigin) { keepsDelay = true; }
  static std::shared_ptr<TPgsReader> Create(int64_t timeOrigin = -1) {
    return std::make_shared<TPgsReader>(timeOrigin);
  }

  int64_t TimeOrigin() const override { return origin; }
  void SetTimeOrigin(int64_t value) { origin = value; }

  // "pgs" is read; "textst" (text subtitles) is only described, for the listing.
  bool InitSubtitle(const std::string& format) override;
  bool Write(SenderId sender, bool isHeader, const uint8_t* data, uint32_t size, int64_t position,
             bool flush) override;
  bool Finish() override;
  // A join of clips: the next clip's times continue where the last one ended.
  void NotifySeam(bool before, int64_t jump) override;

  int64_t SegmentCount() const { return segments; }

private:
  bool CompletePacket();
  void DropDamaged();  // warns once, then forgets the packet gathered so far
  int64_t Relative(int64_t pts) const;

  int64_t origin;
  bool formatSeen = false;
  int64_t seamShift = 0;       // sum of the jumps of the seams passed
  bool damageReported = false;
  bool haveLastDts = false;
  int64_t lastDts = 0;
  int64_t segments = 0;
};

}  // namespace sonvex
