// TVc1Reader: unit splitting, announcement and frame timing of VC-1 streams.
#include "video/vc1reader.h"

namespace sonvex {

namespace {
constexpr const char* kInvalid = "This doesn't seem to be a valid VC-1 stream.";
constexpr const char* kRateNotSupported = "This VC-1 framerate is currently not supported.";
constexpr int64_t kAnnounceLimit = 0xA00000;

// FRAMERATENR 1 to 7.
constexpr uint32_t kFrameRates[7] = {24000, 25000, 30000, 50000, 60000, 48000, 72000};

int UnitCode(const uint8_t* unit, uint32_t size) {
  if (size >= 4 && unit[0] == 0 && unit[1] == 0 && unit[2] == 1) return unit[3];
  return -1;
}
}  // namespace

std::shared_ptr<TVc1Reader> TVc1Reader::Create(const std::string& gapFile, int32_t skipCount,
                                               bool to25, bool to24, bool ignoreGaps,
                                               const std::string& gapData) {
  return std::make_shared<TVc1Reader>(gapFile, skipCount, to25, to24, ignoreGaps, gapData);
}

TVc1Reader::TVc1Reader(const std::string& gapFile, int32_t skipCount, bool to25, bool to24,
                       bool ignoreGaps, const std::string& gapData)
    : SkipLeft(skipCount > 0 ? uint32_t(skipCount) + 1 : 0), SkipCount(skipCount), To25(to25),
      To24(to24), timing(gapFile, gapData, ignoreGaps) {}

bool TVc1Reader::InitAudio(const std::string& format, uint32_t, uint32_t, uint32_t, bool,
                           int64_t) {
  if (format == "?") return valid;
  return Fail("The VC-1 reader received a non-supported data format.");
}

bool TVc1Reader::InitVideo(const std::string& format, bool, bool, uint32_t, uint32_t, uint32_t,
                           uint32_t, uint32_t, uint32_t, const std::string&) {
  if (!valid) return false;
  if (format != "vc1") return Fail("The VC-1 reader received a non-supported data format.");
  return CheckUpStreams("VC-1 reader");
}

int32_t TVc1Reader::InitialDelay() {
  if (RateNum == 0) return 0;
  return int32_t(DelayFrames * 1000 * int64_t(RateDen) / int64_t(RateNum));
}

int64_t TVc1Reader::FramePosition(int64_t frame) const {
  frame += timing.Correction();
  if (To24) return frame * 10000 * 1001 / 24;
  if (To25) return frame * 10000 * 1000 / 25;
  if (RateNum / 1000 == 0) return -1;
  return frame * 10000 * int64_t(RateDen) / int64_t(RateNum / 1000);
}

bool TVc1Reader::SendUnit(const uint8_t* unit, uint32_t size, int64_t frame) {
  if (UnitCode(unit, size) == kVc1EndOfSequence) return true;
  if (!Announced) {
    if (!StoreData(1, unit, size)) return Fail("The VC-1 reader couldn't allocate enough memory.");
    kept.push_back({size, frame});
    return true;
  }
  if (!Send(false, unit, size, FramePosition(frame), false)) {
    valid = false;
    return false;
  }
  return true;
}

bool TVc1Reader::HandleSequenceHeader(const uint8_t* unit, uint32_t size) {
  SawHeader = true;
  if (Announced) return true;
  TVc1SequenceHeader header;
  if (!ParseVc1SequenceHeader(unit, size, header)) return Fail(kInvalid);
  if (header.profile != 3)
    return Fail("Currently only Advanced Profile VC-1 streams are supported.");
  if (header.level > 4)
    return Fail("Currently only VC-1 profiles up to Level 4 are supported.");
  if (header.chromaFormat != 1) return Fail("Currently only 4:2:0 chroma format is supported.");
  Width = header.width;
  Height = header.height;
  Pulldown = header.pulldown;
  Interlace = header.interlace;
  if (header.displayExtension) {
    AspectX = header.displayWidth;
    AspectY = header.displayHeight;
    ReduceRatio(AspectX, AspectY, AspectY > 1 ? AspectY - 1 : 1);
  }
  if (!header.frameRateFlag) return Fail(kRateNotSupported);
  if (header.frameRateIndicator == 0) {
    if (header.frameRateValue < 1 || header.frameRateValue > 7) return Fail(kRateNotSupported);
    RateNum = kFrameRates[header.frameRateValue - 1];
    if (header.frameRateDivider == 1)
      RateDen = 1000;
    else if (header.frameRateDivider == 2)
      RateDen = 1001;
    else
      return Fail("This VC-1 framerate divider is currently not supported.");
  } else {
    RateNum = header.frameRateExplicit + 1;
    RateDen = 32;
  }
  uint32_t streamNum = RateNum, streamDen = RateDen;
  if (To24 && RateNum == 25000 && RateDen == 1000) {
    RateNum = 24000;
    RateDen = 1001;
  } else {
    To24 = false;
  }
  if (To25 && RateNum == 24000) {
    RateNum = 25000;
    RateDen = 1000;
  } else {
    To25 = false;
  }
  bool interlaced = Interlace && !Pulldown;
  bool pulldown = Interlace && Pulldown;
  uint32_t shownNum = interlaced ? RateNum * 2 : RateNum;
  SetVideoDetails("vc1", "VC-1", interlaced, pulldown, Width, Height, AspectX, AspectY, shownNum,
                  RateDen);
  bool ok = NotifyVideo("vc1", interlaced, pulldown, Width, Height, AspectX, AspectY, shownNum,
                        RateDen, std::string(reinterpret_cast<const char*>(unit), size));
  RateNum = streamNum;
  RateDen = streamDen;
  Announced = true;
  if (!ok) {
    valid = false;
    return false;
  }
  const uint8_t* data = BufferData(1);
  uint32_t at = 0;
  for (const Kept& held : kept) {
    if (!Send(false, data + at, held.size, FramePosition(held.frame), false)) {
      valid = false;
      return false;
    }
    at += held.size;
  }
  kept.clear();
  FreeBuffer(1);
  return true;
}

bool TVc1Reader::HandleUnit(const uint8_t* unit, uint32_t size, int64_t offset) {
  int code = UnitCode(unit, size);
  if (SkipLeft != 0) {
    // "-skip<n>": everything ahead of sequence header n + 1 is dropped.
    if (code == kVc1SequenceHeader && --SkipLeft == 0)
      Log(0, "Skipped " + std::to_string(SkipCount) + " sequence headers...");
    else
      return true;
  }
  timing.DropStampsBefore(offset);
  if (code == kVc1SequenceHeader) {
    if (!HandleSequenceHeader(unit, size)) return false;
  } else if (code == kVc1Frame) {
    if (offset > 0) {
      if (SawTimestamp && !SawHeader)
        DelayFrames++;
      else if (SawHeader && !SawTimestamp)
        DelayFrames--;
    }
    int64_t t;
    bool stamped = timing.TakeStamp(offset, t);
    if (Announced) {
      if (stamped && RateNum / 1000 > 0)
        timing.Observe(frameCount, t, 10000 * int64_t(RateDen), RateNum / 1000);
      timing.Advance(frameCount);
    }
    frameCount++;
  }
  return SendUnit(unit, size, frameCount > 0 ? frameCount - 1 : 0);
}

bool TVc1Reader::Write(SenderId, bool, const uint8_t* data, uint32_t size, int64_t position,
                       bool) {
  if (!valid) return false;
  if (!CheckUpStreams("VC-1 reader")) return false;
  if (size && !StoreData(0, data, size))
    return Fail("The VC-1 reader couldn't allocate enough memory.");
  if (position != -1) {
    SawTimestamp = true;
    timing.AddStamp(received, position);
  }
  received += size;
  uint8_t* buffer = BufferData(0);
  uint32_t fill = BufferFill(0);
  if (!Started) {
    if (fill < 4 && !flushing) return true;
    if (fill < 4 || UnitCode(buffer, fill) != kVc1SequenceHeader) return Fail(kInvalid);
    Started = true;
    scan = 3;
  }
  while (true) {
    uint32_t limit = flushing ? fill : (fill > 17 ? fill - 17 : 0);
    if (scan >= limit) break;
    int64_t found = FindStartCode(buffer, scan, flushing ? fill : limit + 2);
    if (found < 0) {
      scan = limit;
      break;
    }
    uint32_t code = uint32_t(found);
    scan = code + 3;
    // Slices and the second field belong to the frame ahead of them.
    if (code + 3 >= fill || buffer[code + 3] == kVc1Slice || buffer[code + 3] == kVc1Field)
      continue;
    if (code > front) {
      if (!HandleUnit(buffer + front, code - front, consumed + front)) return false;
      front = code;
    }
  }
  if (flushing && front < fill) {
    if (!HandleUnit(buffer + front, fill - front, consumed + front)) return false;
    front = fill;
  }
  RemoveData(0, front);
  consumed += front;
  scan -= front;
  front = 0;
  if (!Announced && (received > kAnnounceLimit || flushing)) return Fail(kInvalid);
  return true;
}

bool TVc1Reader::Finish() {
  if (!valid) return false;
  flushing = true;
  if (!Write(0, false, nullptr, 0, -1, false)) return false;
  bool ok = FinishUpStreams();
  SetFrameCount(uint32_t(frameCount));
  if (RateNum > 0 &&
      !timing.Report(*this, frameCount, 120, 2, 1000 * int64_t(RateDen), RateNum, 1)) {
    valid = false;
    return false;
  }
  return ok;
}

}  // namespace sonvex
