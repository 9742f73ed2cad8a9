// Th264Reader: NAL unit splitting, announcement and frame timing of H.264 streams.
#include "video/h264reader.h"

namespace sonvex {

namespace {
constexpr const char* kInvalid = "This doesn't seem to be a valid h264/AVC stream.";
constexpr int64_t kAnnounceLimit = 0xA00000;

// Offset of the NAL header byte behind the start code at the front of `unit`, or 0 if the unit
// doesn't begin with a start code.
uint32_t HeaderOffset(const uint8_t* unit, uint32_t size) {
  if (size >= 4 && unit[0] == 0 && unit[1] == 0 && unit[2] == 1) return 3;
  if (size >= 5 && unit[0] == 0 && unit[1] == 0 && unit[2] == 0 && unit[3] == 1) return 4;
  return 0;
}
}  // namespace

std::shared_ptr<Th264Reader> Th264Reader::Create(const std::string& gapFile, bool force30p,
                                                 bool force24p, bool to25, bool to24,
                                                 bool ignoreGaps, const std::string& gapData) {
  return std::make_shared<Th264Reader>(gapFile, force30p, force24p, to25, to24, ignoreGaps,
                                       gapData);
}

Th264Reader::Th264Reader(const std::string& gapFile, bool force30p, bool force24p, bool to25,
                         bool to24, bool ignoreGaps, const std::string& gapData)
    : Force24p(force24p), Force30p(force30p), To25(to25), To24(to24),
      timing(gapFile, gapData, ignoreGaps) {}

bool Th264Reader::InitAudio(const std::string& format, uint32_t, uint32_t, uint32_t, bool,
                            int64_t) {
  // A bare stream is announced as "?" by the source; anything else isn't video.
  if (format == "?") return valid;
  return Fail("The h264 reader received a non-supported data format.");
}

bool Th264Reader::InitVideo(const std::string& format, bool, bool, uint32_t, uint32_t, uint32_t,
                            uint32_t, uint32_t, uint32_t, const std::string&) {
  if (!valid) return false;
  if (format != "h264") return Fail("The h264 reader received a non-supported data format.");
  return CheckUpStreams("h264 reader");
}

int32_t Th264Reader::InitialDelay() {
  if (RateNum == 0) return 0;
  return int32_t(DelayFrames * 1000 * int64_t(RateDen) / int64_t(RateNum));
}

int64_t Th264Reader::FramePosition(int64_t frame) const {
  frame += timing.Correction();
  if (To24) return frame * 10000 * 1001 / 24;
  if (To25) return frame * 10000 * 1000 / 25;
  if (RateNum / 1000 == 0) return -1;
  return frame * 10000 * int64_t(RateDen) / int64_t(RateNum / 1000);
}

bool Th264Reader::SendUnit(const uint8_t* unit, uint32_t size, int64_t frame) {
  uint32_t header = HeaderOffset(unit, size);
  if (header && (unit[header] == 0x0A || unit[header] == 0x0B)) return true;  // end of sequence
  if (!Announced) {
    if (!StoreData(1, unit, size)) return Fail("The h264 reader couldn't allocate enough memory.");
    kept.push_back({size, frame});
    return true;
  }
  if (!Send(false, unit, size, FramePosition(frame), false)) {
    valid = false;
    return false;
  }
  return true;
}

bool Th264Reader::Announce(bool pulldown) {
  RateNum /= 2;  // time_scale counts fields
  if (RateNum == 30000 && !sps.interlaced && pulldown) RateNum = 24000;
  if (RateNum == 24000 && Force30p)
    RateNum = 30000;
  else if (RateNum == 30000 && Force24p)
    RateNum = 24000;
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
  uint32_t shownNum = sps.interlaced ? RateNum * 2 : RateNum;
  SetVideoDetails("h264", "h264/AVC", sps.interlaced, pulldown, sps.width, sps.height,
                  sps.aspectX, sps.aspectY, shownNum, RateDen);
  bool ok = NotifyVideo("h264", sps.interlaced, pulldown, sps.width, sps.height, sps.aspectX,
                        sps.aspectY, shownNum, RateDen, Headers);
  if (To24 || To25) {
    RateNum = streamNum;
    RateDen = streamDen;
  }
  Announced = true;
  if (!ok) {
    valid = false;
    return false;
  }
  const uint8_t* data = BufferData(1);
  uint32_t at = 0;
  for (const Kept& unit : kept) {
    if (!Send(false, data + at, unit.size, FramePosition(unit.frame), false)) {
      valid = false;
      return false;
    }
    at += unit.size;
  }
  kept.clear();
  FreeBuffer(1);
  return true;
}

bool Th264Reader::HandleUnit(const uint8_t* unit, uint32_t size, int64_t offset) {
  uint32_t header = HeaderOffset(unit, size);
  uint8_t type = header ? unit[header] : 0;
  timing.DropStampsBefore(offset);
  switch (type) {
    case 0x27:
    case 0x47:
    case 0x67: {  // sequence parameter set
      SawHeader = true;
      if (HaveSps) {
        if (!Announced)
          return Fail(sps.noTimingSei
                          ? "This h264 stream doesn't seem to contain a picture parameter set."
                          : "This h264 stream doesn't seem to contain picture timing information.");
        break;
      }
      std::string rbsp = RemoveEmulationPrevention(unit + header + 1, size - header - 1);
      TH264SpsResult result =
          ParseH264Sps(reinterpret_cast<const uint8_t*>(rbsp.data()), rbsp.size(), sps);
      if (result == TH264SpsResult::aspectNotSupported)
        return Fail("This h264 aspect ratio is currently not supported.");
      if (result != TH264SpsResult::ok) return Fail(kInvalid);
      HaveSps = true;
      RateNum = sps.rateNum;
      RateDen = sps.rateDen;
      uint32_t length = size - header;
      Headers.push_back(char(length >> 8));
      Headers.push_back(char(length));
      Headers.append(reinterpret_cast<const char*>(unit + header), length);
      break;
    }
    case 0x28:
    case 0x48:
    case 0x68:  // picture parameter set
      if (!Announced && HaveSps) {
        uint32_t length = size - header;
        Headers.push_back(char(length >> 8));
        Headers.push_back(char(length));
        Headers.append(reinterpret_cast<const char*>(unit + header), length);
        if (sps.noTimingSei && !Announce(false)) return false;
      }
      break;
    case 0x06:  // supplemental enhancement information
      if (HaveSps && !sps.noTimingSei && !Announced) {
        std::string rbsp = RemoveEmulationPrevention(unit + header + 1, size - header - 1);
        bool pulldown = false;
        if (ParseH264PictureTiming(reinterpret_cast<const uint8_t*>(rbsp.data()), rbsp.size(),
                                   sps, pulldown) &&
            !Announce(pulldown))
          return false;
      }
      break;
    case 0x09: {  // access unit delimiter: a new frame begins
      // The delimiter closes the frame that the previous one opened: a frame with a time stamp
      // but ahead of the first SPS can't be shown and moves the start later; a shown frame ahead
      // of the first time stamp moves it earlier. Bytes ahead of the first delimiter (x264 puts
      // its version SEI there) are no frame.
      if (frameCount > 0) {
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
      break;
    }
    default:
      break;
  }
  return SendUnit(unit, size, frameCount > 0 ? frameCount - 1 : 0);
}

bool Th264Reader::Write(SenderId, bool, const uint8_t* data, uint32_t size, int64_t position,
                        bool) {
  if (!valid) return false;
  if (!CheckUpStreams("h264 reader")) return false;
  if (size && !StoreData(0, data, size))
    return Fail("The h264 reader couldn't allocate enough memory.");
  if (position != -1) {
    SawTimestamp = true;
    timing.AddStamp(received, position);
  }
  received += size;
  uint8_t* buffer = BufferData(0);
  uint32_t fill = BufferFill(0);
  if (!Started) {
    if (fill < 5 && !flushing) return true;
    // The stream must begin with an access unit delimiter. x264 puts its version SEI ahead of
    // the first delimiter, so a leading SEI is taken as well.
    uint32_t header = fill >= 5 ? HeaderOffset(buffer, fill) : 0;
    if (!header || (buffer[header] != 0x09 && buffer[header] != 0x06)) return Fail(kInvalid);
    Started = true;
    scan = header;
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
    uint32_t end = code;
    if (end > front + 1 && buffer[end - 1] == 0) end--;  // the zero byte of a 4 byte start code
    if (end > front) {
      if (!HandleUnit(buffer + front, end - front, consumed + front)) return false;
      front = end;
    }
    scan = code + 3;
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

bool Th264Reader::Finish() {
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
