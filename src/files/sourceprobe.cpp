// Program stream and transport stream walks for the source stage's look into each file.
#include "files/sourceprobe.h"

#include <algorithm>
#include <cstring>

#include "framework/bitreader.h"

namespace sonvex {

namespace {

// Stream types of a PMT entry that the probe takes time stamps from, by kind.
struct TStreamTypeKind {
  uint8_t streamType;
  uint8_t kind;
};
constexpr TStreamTypeKind kStreamTypes[] = {
    {0x01, TTsProbe::kVideo},  // MPEG-1 video
    {0x02, TTsProbe::kVideo},  // MPEG-2 video
    {0x10, TTsProbe::kVideo},  // MPEG-4 part 2 video
    {0x1B, TTsProbe::kVideo},  // H.264
    {0x20, TTsProbe::kVideo},  // H.264 MVC dependent view
    {0x24, TTsProbe::kVideo},  // HEVC
    {0xEA, TTsProbe::kVideo},  // VC-1
    {0x03, TTsProbe::kAudio},  // MPEG-1 audio
    {0x04, TTsProbe::kAudio},  // MPEG-2 audio
    {0x06, TTsProbe::kAudio},  // private PES (AC3, DTS in DVB streams)
    {0x0F, TTsProbe::kAudio},  // AAC
    {0x11, TTsProbe::kAudio},  // AAC LATM
    {0x80, TTsProbe::kAudio},  // Blu-ray LPCM
    {0x81, TTsProbe::kAudio},  // AC3
    {0x82, TTsProbe::kAudio},  // DTS
    {0x83, TTsProbe::kAudio},  // TrueHD
    {0x84, TTsProbe::kAudio},  // E-AC3
    {0x85, TTsProbe::kAudio},  // DTS-HD High Resolution
    {0x86, TTsProbe::kAudio},  // DTS-HD Master Audio
    {0x87, TTsProbe::kAudio},  // E-AC3 (ATSC)
    {0xA1, TTsProbe::kAudio},  // E-AC3 secondary audio
    {0xA2, TTsProbe::kAudio},  // DTS-HD secondary audio
};

uint8_t StreamKind(uint8_t streamType) {
  for (const auto& entry : kStreamTypes)
    if (entry.streamType == streamType) return entry.kind;
  return TTsProbe::kNone;
}

// Stream ids whose PES header carries the optional fields (flags, header length, PTS).
bool HasPesHeaderFields(uint8_t streamId) {
  switch (streamId) {
    case 0xBC:  // program stream map
    case 0xBE:  // padding
    case 0xBF:  // private stream 2
    case 0xF0:  // ECM
    case 0xF1:  // EMM
    case 0xF2:  // DSM-CC
    case 0xF8:  // H.222.1 type E
    case 0xFF:  // program stream directory
      return false;
    default:
      return streamId >= 0xBD;
  }
}

// The head walk keeps the first time stamp, lowered by later ones that lie less than a second
// before it: a stream that opens on a frame that is shown after the frames that follow it
// (B-frames of an open GOP) begins at the earliest of them. Stamps further back are taken for a
// wrap and ignored. The tail walk keeps the largest stamps.
void KeepStamp(TProbeStamps& stamps, int64_t pts, bool video, bool head) {
  constexpr int64_t kReorderWindow = 90000;
  auto lower = [&](int64_t& first) {
    if (first < 0 || (pts < first && first - pts < kReorderWindow)) first = pts;
  };
  if (head) {
    lower(stamps.firstAny);
    if (video) lower(stamps.firstVideo);
  } else {
    stamps.lastAny = std::max(stamps.lastAny, pts);
    if (video) stamps.lastVideo = std::max(stamps.lastVideo, pts);
  }
}

}  // namespace

int64_t ReadPesPts(const uint8_t* p) {
  return int64_t((p[0] >> 1) & 7) << 30 | int64_t(p[1]) << 22 | int64_t(p[2] >> 1) << 15 |
         int64_t(p[3]) << 7 | int64_t(p[4] >> 1);
}

// Packets: pack header 0x1BA (its length in the low bits of byte 13), system header 0x1BB, program
// stream map 0x1BC, padding 0x1BE, private stream 2 0x1BF (navigation: PCI substream 0, DSI
// substream 1), private stream 1 0x1BD, audio 0x1C0-0x1CF, video 0x1E0-0x1E3, extended 0x1FD (VC-1
// on HD DVD). Zero bytes between packets are stepped over.
TEvoWalk WalkEvoPackets(const uint8_t* data, size_t size, bool head, TProbeStamps& stamps) {
  size_t pos = 0;
  while (pos < size && size - pos >= 13) {
    const uint8_t* p = data + pos;
    uint32_t code = Be32(p);
    uint64_t length;
    if (code == 0x1BA) {
      if (size - pos < 14) break;
      length = (p[13] & 7) + 14;
    } else if (code == 0) {
      length = 2;
    } else if (code == 1) {
      length = 1;
    } else if (code == 0x1BB || code == 0x1BC || code == 0x1BE) {
      length = 6 + uint64_t(Be16(p + 4));
    } else if (code == 0x1BF) {
      length = 6 + uint64_t(Be16(p + 4));
      if (length > size - pos) return TEvoWalk::kCutPacket;
      // DSI: start and end presentation time of the object, 90 kHz, behind the 6-byte head.
      if (p[6] == 1 && length >= 6 + 53) {
        int64_t start = Be32(p + 6 + 45);
        int64_t end = Be32(p + 6 + 49);
        while (end < start) end += 0xF00000000LL;
        stamps.dsiPlayTime = end - start;
      }
    } else if (code == 0x1BD || (code >= 0x1C0 && code <= 0x1CF) ||
               (code >= 0x1E0 && code <= 0x1E3) || code == 0x1FD) {
      length = 6 + uint64_t(Be16(p + 4));
      if (size - pos >= 14 && (p[7] & 0x80)) KeepStamp(stamps, ReadPesPts(p + 9), code >= 0x1E0, head);
    } else {
      return TEvoWalk::kBadCode;
    }
    pos += length;
  }
  return TEvoWalk::kComplete;
}

// Every one of n packets must start with the sync byte "G"; packets that don't fit in the data
// aren't tested, and at least one must fit.
static bool SyncBytesAt(const uint8_t* data, size_t size, uint32_t spacing, uint32_t offset,
                        uint32_t n) {
  uint64_t fit = size / spacing;
  if (fit == 0) return false;
  if (fit < n) n = uint32_t(fit);
  for (uint32_t i = 0; i < n; i++)
    if (data[uint64_t(i) * spacing + offset] != 'G') return false;
  return true;
}

// Both spacings holding doubles the number of packets tested, until the count reaches 0x10000
// (nothing but "G" bytes: no transport stream) or the data runs out (188).
uint32_t DetectTsPacketSize(const uint8_t* data, size_t size) {
  for (uint32_t n = 10;;) {
    bool plain = SyncBytesAt(data, size, 188, 0, n);
    bool m2ts = SyncBytesAt(data, size, 192, 4, n);
    if (!plain && !m2ts) return 0;
    if (plain != m2ts) return plain ? 188 : 192;
    n *= 2;
    if (n >= 0x10000) return 0;
    if (uint64_t(n) * 192 > size) return 188;
  }
}

TTsProbe::TTsProbe(LogFunction logFunction) : log(std::move(logFunction)) {}
TTsProbe::~TTsProbe() = default;

void TTsProbe::Reset() {
  mappingChanged = false;
  for (auto& entry : pids) {
    entry.type = kNone;
    entry.remainder = 0;
    entry.filled = 0;
  }
}

void TTsProbe::SetType(uint32_t pid, uint8_t type) {
  TPidEntry& entry = pids[pid];
  if (entry.type != kNone && entry.type != type && !mappingChanged) {
    mappingChanged = true;  // told once per file
    log(1, "The program channel mapping changes in the middle of the stream.", false);
  }
  entry.type = type;
}

// Takes bytes of the section under way: first its 3-byte head, which tells the length (6 to 1021
// bytes follow it; anything else drops the section), then the rest. True when it is complete.
bool TTsProbe::AppendSection(uint32_t pid, const uint8_t*& data, uint32_t& length) {
  TPidEntry& entry = pids[pid];
  while (entry.remainder > 0 && length > 0) {
    uint32_t n = std::min<uint32_t>(entry.remainder, length);
    if (!entry.buffer) entry.buffer = std::make_unique<uint8_t[]>(kSectionBuffer);
    std::memcpy(entry.buffer.get() + entry.filled, data, n);
    entry.filled = uint16_t(entry.filled + n);
    entry.remainder = uint16_t(entry.remainder - n);
    data += n;
    length -= n;
    if (entry.remainder == 0 && entry.filled == 3) {
      uint32_t sectionLength = uint32_t(entry.buffer[1] & 0x0F) << 8 | entry.buffer[2];
      if (sectionLength < 6 || sectionLength > 1021) {
        entry.filled = 0;
        return false;
      }
      entry.remainder = uint16_t(sectionLength);
    }
  }
  return entry.remainder == 0 && entry.filled > 3;
}

bool TTsProbe::CollectSection(uint32_t pid, const uint8_t* payload, uint32_t length,
                              bool unitStart) {
  TPidEntry& entry = pids[pid];
  if (!unitStart) {
    if (entry.remainder > 0 && AppendSection(pid, payload, length)) return ParseSection(pid);
    return true;
  }
  if (length == 0) return true;
  uint32_t pointer = payload[0];
  if (pointer + 1 > length) {
    log(2, "This TS/M2TS file seems to be damaged (pointer_field too big).", false);
    return false;
  }
  // The bytes ahead of the pointer end the section of the packets before.
  const uint8_t* tail = payload + 1;
  uint32_t tailLength = pointer;
  if (entry.remainder > 0 && AppendSection(pid, tail, tailLength) && !ParseSection(pid))
    return false;
  payload += 1 + pointer;
  length -= 1 + pointer;
  // Then sections follow one another until stuffing (0xFF) or the end of the packet.
  while (length > 0 && payload[0] != 0xFF) {
    entry.filled = 0;
    entry.remainder = 3;
    if (!AppendSection(pid, payload, length)) break;
    if (!ParseSection(pid)) return false;
  }
  return true;
}

// PAT (table 0 on PID 0) names the PMT PIDs; a PMT (table 2) names the elementary streams.
bool TTsProbe::ParseSection(uint32_t pid) {
  TPidEntry& entry = pids[pid];
  const uint8_t* s = entry.buffer.get();
  uint32_t total = entry.filled;
  entry.filled = 0;
  entry.remainder = 0;
  uint32_t end = total - 4;  // ahead of the CRC
  if (pid == 0) {
    if (s[0] != 0x00) return true;
    for (uint32_t pos = 8; pos + 4 <= end; pos += 4) {
      uint32_t program = Be16(s + pos);
      uint32_t pmtPid = Be16(s + pos + 2) & 0x1FFF;
      if (program != 0 && pmtPid != 0) SetType(pmtPid, kPmt);
    }
    return true;
  }
  if (s[0] != 0x02) return true;
  uint32_t pos = 12 + (Be16(s + 10) & 0x0FFF);
  while (pos + 5 <= end) {
    uint32_t streamPid = Be16(s + pos + 1) & 0x1FFF;
    uint32_t infoLength = Be16(s + pos + 3) & 0x0FFF;
    if (pos + 5 + infoLength > end) break;
    uint8_t kind = StreamKind(s[pos]);
    if (kind != kNone && streamPid != 0 && streamPid != pid) SetType(streamPid, kind);
    pos += 5 + infoLength;
  }
  if (pos != end) {
    log(2, "This TS/M2TS file seems to be damaged (ES_info too big).", false);
    return false;
  }
  return true;
}

TTsProbe::TWalk TTsProbe::Walk(const uint8_t* data, size_t size, uint32_t packetSize,
                               uint32_t maxPackets, bool head, TProbeStamps& stamps) {
  for (auto& entry : pids) entry.remainder = entry.filled = 0;
  const uint32_t skip = packetSize - 188;
  uint64_t count = std::min<uint64_t>(maxPackets, size / packetSize);
  for (uint64_t i = 0; i < count; i++) {
    const uint8_t* p = data + i * packetSize + skip;
    if (p[0] != 'G') {
      log(2, "This TS/M2TS file seems to be damaged (sync byte missing).", true);
      return TWalk::kDamaged;
    }
    bool unitStart = (p[1] & 0x40) != 0;
    uint32_t pid = uint32_t(p[1] & 0x1F) << 8 | p[2];
    uint32_t control = (p[3] >> 4) & 3;
    uint32_t start = 4;
    if (control & 2) {
      start = 5 + p[4];
      if (start > 188) {
        log(2, "This TS/M2TS file seems to be damaged (adaptation field too big).", false);
        return TWalk::kDamaged;
      }
    }
    if (!(control & 1)) continue;
    const uint8_t* payload = p + start;
    uint32_t length = 188 - start;
    uint8_t type = pids[pid].type;
    if (pid == 0 || type == kPmt) {
      if (!CollectSection(pid, payload, length, unitStart)) return TWalk::kDamaged;
    } else if ((type == kVideo || type == kAudio) && unitStart) {
      if (length < 3) continue;
      if (Be24(payload) != 1) return TWalk::kBadPes;
      if (length >= 14 && HasPesHeaderFields(payload[3]) && (payload[7] & 0x80))
        KeepStamp(stamps, ReadPesPts(payload + 9), type == kVideo, head);
    }
  }
  return TWalk::kComplete;
}

}  // namespace sonvex
