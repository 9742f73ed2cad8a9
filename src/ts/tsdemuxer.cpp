// TTsDemuxer: one PID out of a transport stream.
#include "ts/tsdemuxer.h"

#include <algorithm>
#include <cstring>

#include "framework/bitreader.h"
#include "ts/tspacket.h"

namespace sonvex {

TTsDemuxer::TTsDemuxer(uint32_t pid, uint32_t trackNumber, bool ignoreDiscontinuity)
    : Pid(pid), TrackNumber(trackNumber), IgnoreDiscontinuity(ignoreDiscontinuity) {}

bool TTsDemuxer::InitContainer(const std::string& format, int64_t totalSize, int64_t playTime) {
  if (!valid) return false;
  if (format != "?" && format != "m2ts")
    return Fail("The ts demuxer received a non-supported data format.");
  if (!CheckUpStreams("ts demuxer")) return false;
  formatSeen = true;
  if (format == "m2ts") containerDuration = playTime;
  valid = NotifyContainer("m2ts", totalSize, playTime);
  return valid;
}

bool TTsDemuxer::Damaged(const std::string& what) {
  Log(2, "This TS/M2TS file seems to be damaged (" + what + ").", true);
  valid = false;
  return false;
}

bool TTsDemuxer::Write(SenderId, bool, const uint8_t* data, uint32_t size, int64_t, bool) {
  if (!valid) return false;
  if (!CheckUpStreams("ts demuxer")) return false;
  if (!formatSeen) return Fail("The ts demuxer didn't receive the format information.");
  if (probeCount == 0 && BufferFill(0) < packetSize) return WriteDirect(data, size);
  if (!StoreData(0, data, size)) return Fail("The ts demuxer couldn't allocate enough memory.");
  if (probeCount) {
    switch (ProbeTsPacketSize(BufferData(0), BufferFill(0), probeCount)) {
      case TsProbe::Wait: return true;
      case TsProbe::Invalid:
        container.containerValid = false;
        return Fail("This doesn't seem to be a valid TS/M2TS file.");
      case TsProbe::Ts: isM2ts = false; packetSize = 188; break;
      case TsProbe::M2ts: isM2ts = true; packetSize = 192; break;
    }
  }
  const uint8_t* buffer = BufferData(0);
  uint32_t fill = BufferFill(0), offset = 0;
  while (valid && fill - offset >= packetSize) {
    packetPosition = bytesDone + offset;
    HandlePacket(buffer + offset);
    offset += packetSize;
  }
  RemoveData(0, offset);
  bytesDone += offset;
  if (!valid) container.containerValid = false;
  return valid;
}

// Once the packet size is known, packets are read where they lie in the block; only a packet cut
// at the block's end is gathered in buffer 0, and completed from the front of the next block.
bool TTsDemuxer::WriteDirect(const uint8_t* data, uint32_t size) {
  uint32_t used = 0;
  if (BufferFill(0) > 0) {
    used = std::min(size, packetSize - BufferFill(0));
    if (!StoreData(0, data, used)) return Fail("The ts demuxer couldn't allocate enough memory.");
    if (BufferFill(0) < packetSize) return true;
    packetPosition = bytesDone;
    HandlePacket(BufferData(0));
    SetBufferFill(0, 0);
    bytesDone += packetSize;
  }
  while (valid && size - used >= packetSize) {
    packetPosition = bytesDone;
    HandlePacket(data + used);
    used += packetSize;
    bytesDone += packetSize;
  }
  if (valid && used < size && !StoreData(0, data + used, size - used))
    return Fail("The ts demuxer couldn't allocate enough memory.");
  if (!valid) container.containerValid = false;
  return valid;
}

bool TTsDemuxer::Finish() {
  if (!valid) return false;
  flushing = true;
  Write(0, false, nullptr, 0, -1, false);
  if (!valid) return false;
  return FinishUpStreams();
}

// A join of files breaks the counters legally: they start anew behind a seam.
void TTsDemuxer::NotifySeam(bool before, int64_t jump) {
  BroadcastSeam(before, jump);
  if (!before) return;
  valid = Send(false, nullptr, 0, -1, true);
  for (TsPidEntry& entry : pids) entry.Continuity = 0xFF;
  if (BufferFill(0) > 0) {
    Log(1, "The ts demuxer received incomplete data.");
    bytesDone += BufferFill(0);
    SetBufferFill(0, 0);
  }
}

bool TTsDemuxer::HandlePacket(const uint8_t* packet) {
  uint32_t p = isM2ts ? 4 : 0;
  if (packet[p] != kTsSync) return Damaged("sync byte missing");
  if (packet[p + 1] & 0x80) return Damaged("transport error indicated");
  currentPid = uint32_t(packet[p + 1] & 0x1F) << 8 | packet[p + 2];
  uint8_t control = packet[p + 3];
  bool hasPayload = control & 0x10;
  bool unitStart = packet[p + 1] & 0x40;
  TsPidEntry& entry = pids[currentPid];
  // The counter grows with each packet that carries payload; only the wanted PID is judged.
  if (hasPayload && currentPid != 0 && entry.Continuity != 0xFF) entry.Continuity++;
  if (currentPid == Pid && entry.Continuity != 0xFF &&
      (entry.Continuity & 0x0F) != (control & 0x0F)) {
    bool indicated = (control & 0x20) && packet[p + 4] > 0 && (packet[p + 5] & 0x80);
    if (!indicated) {
      if (!discontinuityShown) {
        discontinuityShown = true;
        Log(2, "This TS/M2TS file seems to be damaged (discontinuity).", true);
      }
      if (!IgnoreDiscontinuity) {
        Log(0, "You can use the \"-ignoreDiscon\" switch to make sonvex ignore discontinuities.",
            true);
        Log(0, "Doing that might result in artifacts during playback, though.", true);
        valid = false;
        return false;
      }
    }
  }
  if (currentPid != 0) entry.Continuity = control & 0x0F;
  if (!hasPayload) return true;
  if (control & 0x20) p += packet[p + 4] + 1;
  p += 4;
  if (p >= packetSize) return Damaged("adaptation field too big");
  if (currentPid == 0) return HandlePat(packet, p, unitStart);
  if (entry.Kind == 1) return HandlePmt(entry, packet, p, unitStart);
  if (entry.Kind >= 2) {
    if (unitStart) entry.Started = true;
    if (entry.Started) Deliver(currentPid, packet + p, packetSize - p, unitStart);
  }
  return valid;
}

bool TTsDemuxer::HandlePat(const uint8_t* packet, uint32_t p, bool unitStart) {
  if (unitStart) {
    p += packet[p] + 1;  // pointer_field
    if (p + 8 > packetSize) return Damaged("pointer_field too big");
    if (packet[p] != 0) return Damaged("incorrect table_id");
    uint32_t sectionLength = uint32_t(packet[p + 1] & 0x0F) << 8 | packet[p + 2];
    if (sectionLength <= 0x3FD && sectionLength >= 13) {
      patFill = 0;
      patLeft = int32_t(sectionLength) - 8;
      p += 8;
    }
  }
  if (patLeft == 0) return true;
  uint32_t n = std::min(uint32_t(patLeft), packetSize - p);
  std::memcpy(pat.data() + patFill, packet + p, n);
  patFill += int32_t(n);
  patLeft -= int32_t(n);
  if (patLeft == 0) {
    patFill--;
    for (int32_t i = 0; i < patFill / 4; i++) {
      const uint8_t* program = pat.data() + 4 * i;
      if (Be16(program) != 0) pids[Be16(program + 2) & 0x1FFF].Kind = 1;
    }
    patFill = 0;
  }
  return true;
}

bool TTsDemuxer::HandlePmt(TsPidEntry& entry, const uint8_t* packet, uint32_t p, bool unitStart) {
  if (unitStart) {
    p += packet[p] + 1;  // pointer_field
    if (p + 12 > packetSize) return Damaged("pointer_field too big");
    if (packet[p] != 2) return Damaged("incorrect table_id");
    uint32_t left = uint32_t(packet[p + 1] & 0x0F) << 8 | packet[p + 2];
    uint32_t skip = (uint32_t(packet[p + 10] & 0x0F) << 8 | packet[p + 11]) + 12;
    if (left > 0x3FD || left < skip + 6) left = 0;
    if (left && !entry.Section) entry.Section.reset(new uint8_t[kTsSectionSize]());
    entry.SectionFill = 0;
    entry.SectionLeft = uint16_t(left ? left - skip : 0);
    entry.ProgramHdmv = HasHdmvRegistration(packet + p + 12, std::min(skip, packetSize - p) - 12);
    p += skip;
  }
  if (entry.SectionLeft == 0 || p >= packetSize) return true;
  uint32_t n = std::min(uint32_t(entry.SectionLeft), packetSize - p);
  std::memcpy(entry.Section.get() + entry.SectionFill, packet + p, n);
  entry.SectionFill = uint16_t(entry.SectionFill + n);
  entry.SectionLeft = uint16_t(entry.SectionLeft - n);
  if (entry.SectionLeft != 0) return true;
  entry.SectionFill--;
  return ParseStreams(entry);
}

bool TTsDemuxer::ParseStreams(TsPidEntry& entry) {
  const uint8_t* s = entry.Section.get();
  uint32_t fill = entry.SectionFill, i = 0;
  while (valid && fill > 4) {
    uint8_t type = s[i];                                       // stream_type
    uint32_t pid = uint32_t(s[i + 1] & 0x1F) << 8 | s[i + 2];  // elementary_PID
    i += 3;
    fill -= 3;
    uint32_t esLength = uint32_t(s[i] & 0x0F) << 8 | s[i + 1];  // ES_info_length
    i += 2;
    fill -= 2;
    if (fill < esLength) break;
    const bool noDescriptors = esLength == 0;
    std::string reg;
    while (esLength > 2 && uint32_t(s[i + 1]) + 2 <= esLength) {
      uint32_t length = s[i + 1];
      type = ApplyTsDescriptor(type, s[i], s + i + 2, length, reg, nullptr);
      i += length + 2;
      esLength -= length + 2;
      fill -= length + 2;
    }
    i += esLength;
    fill -= esLength;
    if (reg.empty() && entry.ProgramHdmv) reg = "HDMV";
    Classify(pid, type, reg, noDescriptors);
  }
  return valid;
}

bool TTsDemuxer::Classify(uint32_t pid, uint8_t type, const std::string& reg,
                          bool noDescriptors) {
  static constexpr const char* kKindNames[] = {"", "PMT", "video", "audio", "subtitle"};
  TsStreamClass found = ClassifyTsStream(type, reg, false, noDescriptors);
  if (found.kind == TsClass::None) return true;
  uint8_t kind = found.kind == TsClass::Video ? 2 : found.kind == TsClass::Audio ? 3 : 4;
  TsPidEntry& entry = pids[pid];
  std::string prefix = "The program type (" + std::to_string(pid) + ") changes from ";
  if (entry.Kind == 0) {
    entry.Kind = kind;
    entry.StreamType = type;
    if (*found.tag) Announce(kind, pid, found.tag);
  } else if (entry.Kind == kind) {
    if (entry.StreamType != type) {
      Log(2, prefix + HexByteText(entry.StreamType) + " to " + HexByteText(type) + ".");
      valid = false;
    }
  } else {
    Log(2, prefix + kKindNames[entry.Kind] + " to " + kKindNames[kind] + ".", true);
    valid = false;
  }
  return valid;
}

void TTsDemuxer::Announce(uint8_t kind, uint32_t pid, const std::string& tag) {
  if (pid != Pid) return;
  const char* name = kind == 2 ? "video" : kind == 3 ? "audio" : "subtitle";
  if (!messageDone) {
    messageDone = true;
    Log(0, std::string("Extracting ") + name + " track number " + std::to_string(TrackNumber) +
               "...");
  }
  if (!formatDone) {
    formatDone = true;
    valid = kind == 2   ? NotifyVideo(tag, false, false, 0, 0, 0, 0, 0, 0, "")
            : kind == 3 ? NotifyAudio(tag, 0, 0, 0, false, 0)
                        : NotifySubtitle(tag);
  }
}

// The packets carry no time stamps of their own here: the PES parser finds them in the payload.
// `position` is the packet's place in the source, for the PES parser's damage report.
void TTsDemuxer::Deliver(uint32_t pid, const uint8_t* data, uint32_t size, bool unitStart) {
  if (pid != Pid) return;
  if (unitStart) valid = Send(false, nullptr, 0, -1, true);
  if (valid) valid = Send(false, data, size, packetPosition, false);
}

}  // namespace sonvex
