// The looks into a source file that the source stage takes at construction: a walk over the packets
// of an MPEG program stream (EVO/VOB) and one over the packets of a transport stream (TS/M2TS),
// each collecting the presentation time stamps (90 kHz) that the file begins and ends with.
#pragma once

#include <array>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>

namespace sonvex {

// Time stamps found by one walk; -1 for none.
struct TProbeStamps {
  int64_t firstAny = -1;
  int64_t firstVideo = -1;
  int64_t lastAny = -1;
  int64_t lastVideo = -1;
  int64_t dsiPlayTime = -1;
};

// Reads the 33-bit PTS of a PES header from its five bytes (the MPEG layout with marker bits).
int64_t ReadPesPts(const uint8_t* p);

// How a program stream walk ended.
enum class TEvoWalk {
  kComplete,   // fewer than 13 bytes were left
  kCutPacket,  // a private stream 2 packet didn't fit in the data
  kBadCode,    // a start code that has no place in an EVO/VOB file
};

// Walks program stream packets from the front of `data`. The head walk (`head` true) keeps the
// first time stamp of any stream and of a video stream; the tail walk keeps the largest ones.
TEvoWalk WalkEvoPackets(const uint8_t* data, size_t size, bool head, TProbeStamps& stamps);

// Packet size of a transport stream: 188, 192 (M2TS, a 4-byte time code ahead of each packet),
// or 0 if the data doesn't look like one.
uint32_t DetectTsPacketSize(const uint8_t* data, size_t size);

// The transport stream walk. It keeps the program tables it meets (PAT, PMT) across the walks of
// one file, so the tail walk knows which PIDs carry video and audio.
class TTsProbe {
public:
  using LogFunction = std::function<void(int level, const std::string& text, bool force)>;
  enum class TWalk {
    kComplete,  // all packets looked at
    kDamaged,   // damaged content, reported; the walk of this file ends
    kBadPes,    // a PES start without its start code
  };

  explicit TTsProbe(LogFunction log);
  ~TTsProbe();

  // Forgets the program tables: a new file begins.
  void Reset();
  // Walks at most `maxPackets` packets of `packetSize` bytes from the front of `data`.
  TWalk Walk(const uint8_t* data, size_t size, uint32_t packetSize, uint32_t maxPackets, bool head,
             TProbeStamps& stamps);

  enum : uint8_t { kNone = 0, kPmt = 1, kVideo = 2, kAudio = 3 };
  uint8_t PidType(uint32_t pid) const { return pids[pid & 0x1FFF].type; }

private:
  static constexpr uint32_t kSectionBuffer = 1024;
  struct TPidEntry {
    uint8_t type = kNone;
    uint16_t remainder = 0;  // bytes still missing from the section being collected
    uint16_t filled = 0;     // bytes of it collected
    std::unique_ptr<uint8_t[]> buffer;
  };

  bool CollectSection(uint32_t pid, const uint8_t* payload, uint32_t length, bool unitStart);
  bool AppendSection(uint32_t pid, const uint8_t*& data, uint32_t& length);
  bool ParseSection(uint32_t pid);
  void SetType(uint32_t pid, uint8_t type);

  LogFunction log;
  bool mappingChanged = false;
  std::array<TPidEntry, 8192> pids;
};

}  // namespace sonvex
