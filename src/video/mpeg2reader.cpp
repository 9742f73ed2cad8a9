// TMpeg2Reader: unit splitting, announcement, pulldown handling and timing of MPEG-2 video.
#include "video/mpeg2reader.h"

#include "run/runstate.h"
#include "video/mpeg2bitstream.h"

namespace sonvex {

namespace {
constexpr const char* kInvalid = "This doesn't seem to be a valid MPEG2 stream.";
constexpr const char* kMixture = "The MPEG2 stream is a mixture of video and movie content.";
constexpr int64_t kAnnounceLimit = 0xA00000;

// frame_rate_code 1 to 8.
constexpr uint32_t kFrameRates[8][2] = {
    {24000, 1001}, {24000, 1000}, {25000, 1000}, {30000, 1001},
    {30000, 1000}, {50000, 1000}, {60000, 1001}, {60000, 1000},
};

int UnitCode(const uint8_t* unit, uint32_t size) {
  if (size >= 4 && unit[0] == 0 && unit[1] == 0 && unit[2] == 1) return unit[3];
  return -1;
}
}  // namespace

std::shared_ptr<TMpeg2Reader> TMpeg2Reader::Create(bool delayAnnounce, bool keepPulldown,
                                                   bool to25, bool to24, bool strictStart,
                                                   const std::string& gapData,
                                                   const std::string& gapFile,
                                                   int32_t trackNumber, bool removePulldown,
                                                   bool pulldown, bool interlaced) {
  return std::make_shared<TMpeg2Reader>(delayAnnounce, keepPulldown, to25, to24, strictStart,
                                        gapData, gapFile, trackNumber, removePulldown, pulldown,
                                        interlaced);
}

TMpeg2Reader::TMpeg2Reader(bool delayAnnounce, bool keepPulldown, bool to25, bool to24,
                           bool strictStart, const std::string& gapData,
                           const std::string& gapFile, int32_t trackNumber, bool removePulldown,
                           bool pulldown, bool interlaced)
    : DelayAnnounce(delayAnnounce), KeepPulldown(keepPulldown), To25(to25), To24(to24),
      StrictStart(strictStart), TrackNumber(trackNumber), Interlaced(interlaced),
      Pulldown(pulldown && !keepPulldown), RemovePulldown(removePulldown && Pulldown),
      timing(gapFile, gapData, false) {}

bool TMpeg2Reader::InitAudio(const std::string& format, uint32_t, uint32_t, uint32_t, bool,
                             int64_t) {
  if (format == "?") return valid;
  return Fail("The MPEG2 reader received a non-supported data format.");
}

bool TMpeg2Reader::InitVideo(const std::string& format, bool, bool, uint32_t, uint32_t, uint32_t,
                             uint32_t, uint32_t, uint32_t, const std::string&) {
  if (!valid) return false;
  if (format != "mpeg2") return Fail("The MPEG2 reader received a non-supported data format.");
  return CheckUpStreams("MPEG2 reader");
}

int32_t TMpeg2Reader::InitialDelay() {
  if (RateNum == 0) return 0;
  return int32_t(int64_t(StampOffset) * 1000 * RateDen / RateNum);
}

void TMpeg2Reader::SayMixture() { Log(1, kMixture); }

void TMpeg2Reader::SayRemoving() {
  if (RemoveLogged) return;
  RemoveLogged = true;
  Log(0, "Removing MPEG2 pulldown...");
}

bool TMpeg2Reader::Restart() {
  valid = false;
  rerunNeeded = true;
  rerunTrack = TrackNumber;
  Log(1, timing.Collecting() ? "This type of MPEG2 stream cannot be muxed with 24p timestamps."
                             : "The pulldown cannot be removed from this type of MPEG2 stream.");
  Log(1, "Will have to abort processing and redo everything.");
  return false;
}

int64_t TMpeg2Reader::Position() const {
  int64_t count = fieldCount + timing.Correction();
  if (To24) return count * 5000 * 1001 / 24;
  if (To25) return count * 5000 * 1000 / 25;
  if (RateNum / 1000 == 0) return -1;
  return count * 5000 * int64_t(RateDen) / int64_t(RateNum / 1000);
}

bool TMpeg2Reader::SendUnit(const uint8_t* unit, uint32_t size) {
  int code = UnitCode(unit, size);
  if (code == 0xB7) return true;  // a sequence end never leaves the reader
  if (!Announced) {
    if (SequenceHeader.empty()) return true;
    if (!StoreData(1, unit, size))
      return Fail("The MPEG2 reader couldn't allocate enough memory.");
    kept.push_back(size);
    return true;
  }
  if (!Send(false, unit, size, Position(), false)) {
    valid = false;
    return false;
  }
  if (!SequenceExtension.empty() && code == 0x00) fieldCount++;
  return true;
}

bool TMpeg2Reader::Announce() {
  uint32_t height = Height == 1088 ? 1080 : Height;
  if (Pulldown) {
    if (RateNum == 30000) RateNum = 24000;
    if (RateNum == 60000) RateNum = 48000;
  }
  uint32_t streamDen = RateDen;
  if (To24 && (RateNum == 25000 || RateNum == 50000) && RateDen == 1000) {
    RateNum = RateNum / 25 * 24;
    RateDen = 1001;
  } else {
    To24 = false;
  }
  if (To25 && (RateNum == 24000 || RateNum == 48000)) {
    RateNum = RateNum / 24 * 25;
    RateDen = 1000;
  } else {
    To25 = false;
  }
  SetVideoDetails("mpeg2", "MPEG2", Interlaced, Pulldown, Width, height, AspectX, AspectY,
                  Interlaced ? RateNum * 2 : RateNum, RateDen);
  bool ok = NotifyVideo("mpeg2", Interlaced, Pulldown, Width, height, AspectX, AspectY, RateNum,
                        RateDen, SequenceHeader + SequenceExtension);
  if (To24) {
    RateNum = 25000;
    RateDen = 1000;
  }
  if (To25) {
    RateNum = 24000;
    RateDen = streamDen;
  }
  Announced = true;
  if (!ok) {
    valid = false;
    return false;
  }
  const uint8_t* data = BufferData(1);
  uint32_t at = 0;
  for (uint32_t size : kept) {
    const uint8_t* unit = data + at;
    at += size;
    if (UnitCode(unit, size) == 0xB7) continue;
    if (!Send(false, unit, size, -1, false)) {
      valid = false;
      return false;
    }
    if (!SequenceExtension.empty() && UnitCode(unit, size) == 0x00) fieldCount++;
  }
  kept.clear();
  FreeBuffer(1);
  return true;
}

bool TMpeg2Reader::GroupEvent() {
  if (Announced) {
    if (Pulldown && PictureCount > 0 && !RffInGroup && !MixedSeen) {
      MixedSeen = true;
      SayMixture();
      if (timing.Collecting() || RemovePulldown) return Restart();
    }
    RffInGroup = false;
    return true;
  }
  if (!SequenceHeader.empty() && !SequenceExtension.empty() && PicExtSeen) return Announce();
  return true;
}

bool TMpeg2Reader::HandleSequenceHeader(uint8_t* unit, uint32_t size) {
  SeqHeaderInUnit = true;
  SeqHeaderSeen = true;
  if (!SequenceHeader.empty()) return true;  // later sequence headers go on as they came
  TMpeg2SequenceHeader header;
  if (!ParseMpeg2SequenceHeader(unit, size, header)) return Fail(kInvalid);
  Width = header.width;
  Height = header.height;
  switch (header.aspectCode) {
    case 1:
      AspectX = Width;
      AspectY = Height;
      ReduceRatio(AspectX, AspectY, Height > 1 ? Height - 1 : 1);
      break;
    case 2: AspectX = 4, AspectY = 3; break;
    case 3: AspectX = 16, AspectY = 9; break;
    case 4: AspectX = 221, AspectY = 100; break;
    default: return Fail("This MPEG2 aspect ratio is currently not supported.");
  }
  if (header.frameRateCode < 1 || header.frameRateCode > 8)
    return Fail("This MPEG2 framerate is currently not supported.");
  RateNum = kFrameRates[header.frameRateCode - 1][0];
  RateDen = kFrameRates[header.frameRateCode - 1][1];
  if ((header.frameRateCode == 4 || header.frameRateCode == 5) && Pulldown && RemovePulldown) {
    SayRemoving();
    unit[kMpeg2RateByte] = uint8_t((unit[kMpeg2RateByte] & 0xF0) | (header.frameRateCode - 3));
  }
  SequenceHeader.assign(reinterpret_cast<const char*>(unit), size);
  return true;
}

bool TMpeg2Reader::HandleExtension(uint8_t* unit, uint32_t size) {
  if (SequenceHeader.empty()) return true;
  uint32_t id = Mpeg2ExtensionId(unit, size);
  if (id == 1) {
    bool progressive = false;
    if (!ParseMpeg2SequenceExtension(unit, size, progressive)) return true;
    ProgressiveSequence = progressive;
    if (SequenceExtension.empty()) {
      SequenceExtension.assign(reinterpret_cast<const char*>(unit), size);
      if (!DelayAnnounce) return Announce();
    }
    return true;
  }
  if (id != 8) return true;
  TMpeg2PictureCoding coding;
  if (!ParseMpeg2PictureCoding(unit, size, coding)) return true;
  PicExtSeen = true;
  if (coding.pictureStructure != 3 && !SequenceExtension.empty()) {
    if (FieldOpen) SecondFields++;
    FieldOpen = !FieldOpen;
  } else {
    FieldOpen = false;
  }
  bool interlacedFrame, rff;
  if (coding.pictureStructure == 3) {
    interlacedFrame = !coding.progressiveFrame;
    rff = coding.repeatFirstField;
    fieldCount++;
    if (Pulldown && RemovePulldown) {
      SayRemoving();
      uint8_t flags = uint8_t(unit[kMpeg2FlagsByte] & ~0x02);
      if (ProgressiveSequence || Height < 720)
        flags &= uint8_t(~0x80);
      else
        flags |= 0x80;
      unit[kMpeg2FlagsByte] = flags;
    }
  } else {
    interlacedFrame = true;
    rff = false;
    if (Pulldown && !MixedSeen) {
      MixedSeen = true;
      SayMixture();
      if (timing.Collecting() || RemovePulldown) return Restart();
    }
  }
  RffInGroup |= rff;
  if (Announced) {
    if (rff && !Pulldown && !MixedAfter) {
      MixedAfter = true;
      // With the pulldown kept on purpose the repeated fields are expected.
      if (!KeepPulldown) SayMixture();
    }
  } else {
    Interlaced |= interlacedFrame;
    if (rff && !KeepPulldown) Pulldown = true;
  }
  if (MixedAfter && rff) fieldCount++;  // the repeated field stays in the timing
  return true;
}

bool TMpeg2Reader::HandlePicture(const uint8_t* unit, uint32_t size, int64_t offset) {
  if (PositionSeen && !SeqHeaderSeen)
    StampOffset++;
  else if (SeqHeaderSeen && !PositionSeen)
    StampOffset--;
  int64_t t;
  bool stamped = timing.TakeStamp(offset, t);
  if (Announced) {
    if (stamped && RateNum / 1000 > 0)
      timing.Observe(fieldCount, t, 5000 * int64_t(RateDen), RateNum / 1000);
    timing.Advance(fieldCount);
  }
  if (!SequenceExtension.empty()) PictureCount++;
  TMpeg2Picture picture;
  if (NoGopYet && SeqHeaderInUnit && PictureCount > 1 && ParseMpeg2Picture(unit, size, picture) &&
      picture.codingType == 1 && picture.temporalReference < 5 && !GroupEvent())
    return false;
  if (PictureCount > 100 && !Announced && SeqHeaderInUnit && !SequenceExtension.empty() &&
      !Announce())
    return false;
  SeqHeaderInUnit = false;
  return true;
}

bool TMpeg2Reader::HandleUnit(uint8_t* unit, uint32_t size, int64_t offset) {
  timing.DropStampsBefore(offset);
  bool ok = true;
  switch (UnitCode(unit, size)) {
    case 0xB3: ok = HandleSequenceHeader(unit, size); break;
    case 0xB5: ok = HandleExtension(unit, size); break;
    case 0xB8:
      NoGopYet = false;
      ok = GroupEvent();
      break;
    case 0x00: ok = HandlePicture(unit, size, offset); break;
    default: break;
  }
  return ok && SendUnit(unit, size);
}

bool TMpeg2Reader::Write(SenderId, bool, const uint8_t* data, uint32_t size, int64_t position,
                         bool) {
  if (!valid) return false;
  if (!CheckUpStreams("MPEG2 reader")) return false;
  if (size && !StoreData(0, data, size))
    return Fail("The MPEG2 reader couldn't allocate enough memory.");
  if (position != -1) {
    PositionSeen = true;
    timing.AddStamp(received, position);
  }
  received += size;
  uint8_t* buffer = BufferData(0);
  uint32_t fill = BufferFill(0);
  if (!Started && fill >= 4) {
    Started = true;
    if (StrictStart && !(buffer[0] == 0 && buffer[1] == 0 && buffer[2] == 1 &&
                         (buffer[3] == 0x00 || buffer[3] == 0xB3)))
      return Fail(kInvalid);
    scan = 1;
  }
  if (Started) {
    while (true) {
      uint32_t limit = Finishing ? fill : (fill > 17 ? fill - 17 : 0);
      if (scan >= limit) break;
      int64_t found = FindStartCode(buffer, scan, Finishing ? fill : limit + 2);
      if (found < 0) {
        scan = limit;
        break;
      }
      uint32_t code = uint32_t(found);
      if (code > front) {
        if (!HandleUnit(buffer + front, code - front, consumed + front)) return false;
        front = code;
      }
      scan = code + 1;
    }
  }
  if (Finishing && front < fill) {
    // The rest goes out as one unit; a picture at the front still counts.
    if (!Announced && !SequenceHeader.empty() && !SequenceExtension.empty() && PicExtSeen &&
        !Announce())
      return false;
    if (!HandleUnit(buffer + front, fill - front, consumed + front)) return false;
    front = fill;
  }
  RemoveData(0, front);
  consumed += front;
  scan = scan > front ? scan - front : 0;
  front = 0;
  if (Finishing && !Announced && !SequenceHeader.empty() && !SequenceExtension.empty() &&
      PicExtSeen && !Announce())
    return false;
  if (!Announced && (received > kAnnounceLimit || Finishing)) return Fail(kInvalid);
  return true;
}

bool TMpeg2Reader::Finish() {
  if (!valid) return false;
  Finishing = true;
  if (!Write(0, false, nullptr, 0, -1, false)) return false;
  bool ok = FinishUpStreams();
  SetFrameCount(uint32_t(PictureCount - SecondFields));
  if (RateNum > 0 &&
      !timing.Report(*this, fieldCount, 240, 2, 500 * int64_t(RateDen), RateNum, 2)) {
    valid = false;
    return false;
  }
  return ok;
}

}  // namespace sonvex
