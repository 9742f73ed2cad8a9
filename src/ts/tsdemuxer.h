// TTsDemuxer: pulls the packets of one PID out of a TS or M2TS and sends their payload to the
// TPesParser behind it, with an empty flushing block ahead of each new PES packet. It reads the
// PAT and PMTs itself (more strictly than TTsParser) to announce the wanted stream's format, and
// watches the continuity counter of the wanted PID.
#pragma once

#include <array>
#include <memory>

#include "framework/upstream.h"

namespace sonvex {

class TTsDemuxer : public TUpStream {
public:
  TTsDemuxer(uint32_t pid, uint32_t trackNumber, bool ignoreDiscontinuity);
  static std::shared_ptr<TTsDemuxer> Create(uint32_t pid, uint32_t trackNumber,
                                            bool ignoreDiscontinuity) {
    return std::make_shared<TTsDemuxer>(pid, trackNumber, ignoreDiscontinuity);
  }

  bool InitContainer(const std::string& format, int64_t totalSize, int64_t playTime) override;
  bool Write(SenderId sender, bool isHeader, const uint8_t* data, uint32_t size, int64_t position,
             bool flush) override;
  bool Finish() override;
  void NotifySeam(bool before, int64_t jump) override;

private:
  struct TsPidEntry {
    uint8_t Kind = 0;  // 0 unknown, 1 PMT, 2 video, 3 audio, 4 subtitle
    uint8_t StreamType = 0;
    std::unique_ptr<uint8_t[]> Section;
    uint16_t SectionLeft = 0;
    uint16_t SectionFill = 0;
    bool Started = false;
    bool ProgramHdmv = false;  // the program carries the "HDMV" registration
    uint8_t Continuity = 0xFF;  // last counter; 0xFF: not seen yet
  };

  bool Damaged(const std::string& what);
  bool WriteDirect(const uint8_t* data, uint32_t size);
  bool HandlePacket(const uint8_t* packet);
  bool HandlePat(const uint8_t* packet, uint32_t p, bool unitStart);
  bool HandlePmt(TsPidEntry& entry, const uint8_t* packet, uint32_t p, bool unitStart);
  bool ParseStreams(TsPidEntry& entry);
  bool Classify(uint32_t pid, uint8_t type, const std::string& reg, bool noDescriptors = false);
  void Announce(uint8_t kind, uint32_t pid, const std::string& tag);  // kind 2 video, 3 audio, 4 subtitle
  void Deliver(uint32_t pid, const uint8_t* data, uint32_t size, bool unitStart);

  const uint32_t Pid;
  const uint32_t TrackNumber;
  const bool IgnoreDiscontinuity;
  bool discontinuityShown = false;
  bool formatSeen = false;
  int64_t containerDuration = 0;
  uint32_t probeCount = 10;
  bool isM2ts = false;
  uint32_t packetSize = 188;
  uint32_t currentPid = 0;
  bool messageDone = false;
  bool formatDone = false;
  bool flushing = false;
  int64_t bytesDone = 0;       // bytes of the source taken from buffer 0 so far
  int64_t packetPosition = 0;  // source position of the packet being handled
  std::array<TsPidEntry, 8192> pids;
  int32_t patLeft = 0;
  int32_t patFill = 0;
  std::array<uint8_t, 1024> pat{};
};

}  // namespace sonvex
