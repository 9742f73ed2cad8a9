// Th265Reader: NAL unit splitting, announcement and frame timing of HEVC streams.
#include "video/h265reader.h"

#include "video/h264bitstream.h"

namespace sonvex {

namespace {
constexpr const char* kInvalid = "This doesn't seem to be a valid h265/HEVC stream.";
constexpr int64_t kAnnounceLimit = 0xA00000;

// Offset of the NAL header behind the start code at the front of `unit`, or 0 if the unit
// doesn't begin with a start code (or is too short for the two header bytes).
uint32_t HeaderOffset(const uint8_t* unit, uint32_t size) {
  if (size >= 5 && unit[0] == 0 && unit[1] == 0 && unit[2] == 1) return 3;
  if (size >= 6 && unit[0] == 0 && unit[1] == 0 && unit[2] == 0 && unit[3] == 1) return 4;
  return 0;
}

// NAL unit types that open an access unit when they come after its slices: VPS, SPS, PPS,
// access unit delimiter, prefix SEI and the reserved ranges 41..44 and 48..55.
bool OpensAccessUnit(uint32_t type) {
  return (type >= 32 && type <= 35) || type == 39 || (type >= 41 && type <= 44) ||
         (type >= 48 && type <= 55);
}
}  // namespace

std::shared_ptr<Th265Reader> Th265Reader::Create(const std::string& gapFile, bool to25, bool to24,
                                                 bool ignoreGaps, const std::string& gapData) {
  return std::make_shared<Th265Reader>(gapFile, to25, to24, ignoreGaps, gapData);
}

Th265Reader::Th265Reader(const std::string& gapFile, bool to25, bool to24, bool ignoreGaps,
                         const std::string& gapData)
    : To25(to25), To24(to24), timing(gapFile, gapData, ignoreGaps) {}

bool Th265Reader::InitAudio(const std::string& format, uint32_t, uint32_t, uint32_t, bool,
                            int64_t) {
  if (format == "?") return valid;
  return Fail("The h265 reader received a non-supported data format.");
}

bool Th265Reader::InitVideo(const std::string& format, bool, bool, uint32_t, uint32_t, uint32_t,
                            uint32_t, uint32_t, uint32_t, const std::string&) {
  if (!valid) return false;
  if (format != "h265") return Fail("The h265 reader received a non-supported data format.");
  return CheckUpStreams("h265 reader");
}

int32_t Th265Reader::InitialDelay() {
  if (RateNum == 0) return 0;
  return int32_t(DelayFrames * 1000 * int64_t(RateDen) / int64_t(RateNum));
}

int64_t Th265Reader::FramePosition(int64_t frame) const {
  frame += timing.Correction();
  if (To24) return frame * 10000 * 1001 / 24;
  if (To25) return frame * 10000 * 1000 / 25;
  if (RateNum / 1000 == 0) return -1;
  return frame * 10000 * int64_t(RateDen) / int64_t(RateNum / 1000);
}

std::string Th265Reader::Extras() const {
  std::string text = ", " + std::to_string(sps.bitDepth) + " bits";
  if (sps.chromaFormat == 2) text += ", 4:2:2";
  if (sps.chromaFormat == 3) text += ", 4:4:4";
  if (sps.transfer == 16)
    text += ", HDR10";  // SMPTE ST 2084 (PQ)
  else if (sps.transfer == 18)
    text += ", HLG";    // ARIB STD-B67
  if (DolbyVisionRpu) text += ", Dolby Vision";
  if (EnhancementLayer) text += ", Dolby Vision enhancement layer";
  return text;
}

bool Th265Reader::SendUnit(const uint8_t* unit, uint32_t size, int64_t frame) {
  if (!Announced) {
    if (!StoreData(1, unit, size)) return Fail("The h265 reader couldn't allocate enough memory.");
    kept.push_back({size, frame});
    return true;
  }
  if (!Send(false, unit, size, FramePosition(frame), false)) {
    valid = false;
    return false;
  }
  return true;
}

bool Th265Reader::Announce() {
  if (!sps.timing) {
    if (!VpsRateNum) return Fail("This h265 stream doesn't seem to contain timing information.");
    RateNum = VpsRateNum;
    RateDen = VpsRateDen;
  } else {
    RateNum = sps.rateNum;
    RateDen = sps.rateDen;
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
  SetVideoDetails("h265", "h265/HEVC", sps.interlaced, false, sps.width, sps.height, sps.aspectX,
                  sps.aspectY, RateNum, RateDen);
  // Ultra HD gets the short form of the other standard sizes.
  if (sps.width == 3840 && sps.height == 2160 && !sps.interlaced) {
    std::string rate = std::to_string(RateNum / 1000);
    std::string longForm = "3840x2160 " + rate + "p";
    size_t at = video.description.find(longForm);
    if (at != std::string::npos) video.description.replace(at, longForm.size(), "2160p" + rate);
  }
  video.description += Extras();
  bool ok = NotifyVideo("h265", sps.interlaced, false, sps.width, sps.height, sps.aspectX,
                        sps.aspectY, RateNum, RateDen, Headers);
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

// A new access unit begins at `offset`: it closes the previous one (see Th264Reader for the
// initial delay) and takes the time stamp that arrived with it.
bool Th265Reader::StartFrame(int64_t offset) {
  if (!Announced && HaveSps && HavePps && frameCount > 0 && !Announce()) return false;
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
  auOpen = true;
  inPicture = false;
  return true;
}

bool Th265Reader::HandleUnit(const uint8_t* unit, uint32_t size, int64_t offset) {
  uint32_t header = HeaderOffset(unit, size);
  if (!header) return SendUnit(unit, size, frameCount > 0 ? frameCount - 1 : 0);
  uint32_t type = (unit[header] >> 1) & 0x3F;
  uint32_t layer = (unit[header] & 1) << 5 | unit[header + 1] >> 3;
  timing.DropStampsBefore(offset);
  if (layer == 0) {
    if (type < 32) {  // a slice segment
      // first_slice_segment_in_pic_flag; a slice cut off behind its header can't open a frame.
      bool first = header + 2 < size && (unit[header + 2] & 0x80) != 0;
      if (first && !auOpen && !StartFrame(offset)) return false;
      auOpen = false;
      inPicture = true;
    } else if (OpensAccessUnit(type)) {
      if ((type == 35 || inPicture || !auOpen) && !StartFrame(offset)) return false;
    }
  }
  const uint8_t* payload = unit + header + 2;
  uint32_t length = size - header - 2;
  if (type == 32 && !HaveSps) {
    std::string rbsp = RemoveEmulationPrevention(payload, length);
    ParseH265VpsTiming(reinterpret_cast<const uint8_t*>(rbsp.data()), rbsp.size(), VpsRateNum,
                       VpsRateDen);
  } else if (type == 33 && layer == 0) {
    SawHeader = true;
    if (!HaveSps) {
      std::string rbsp = RemoveEmulationPrevention(payload, length);
      if (!ParseH265Sps(reinterpret_cast<const uint8_t*>(rbsp.data()), rbsp.size(), sps))
        return Fail(kInvalid);
      HaveSps = true;
    }
  } else if (type == 34) {
    HavePps = true;
  } else if (type == 39 && !Announced) {
    std::string rbsp = RemoveEmulationPrevention(payload, length);
    ParseH265HdrSei(reinterpret_cast<const uint8_t*>(rbsp.data()), rbsp.size(), hdr);
  } else if (type == 62) {
    DolbyVisionRpu = true;  // Dolby Vision reference processing unit
  }
  if (!Announced && HaveSps && (type == 32 || type == 33 || type == 34)) {
    Headers.push_back(char((size - header) >> 8));
    Headers.push_back(char(size - header));
    Headers.append(reinterpret_cast<const char*>(unit + header), size - header);
  }
  return SendUnit(unit, size, frameCount > 0 ? frameCount - 1 : 0);
}

bool Th265Reader::Write(SenderId, bool, const uint8_t* data, uint32_t size, int64_t position,
                        bool) {
  if (!valid) return false;
  if (!CheckUpStreams("h265 reader")) return false;
  if (size && !StoreData(0, data, size))
    return Fail("The h265 reader couldn't allocate enough memory.");
  if (position != -1) {
    SawTimestamp = true;
    timing.AddStamp(received, position);
  }
  received += size;
  uint8_t* buffer = BufferData(0);
  uint32_t fill = BufferFill(0);
  if (!Started) {
    if (fill < 6 && !flushing) return true;
    // The stream must begin with a delimiter, a parameter set or a prefix SEI.
    uint32_t header = fill >= 6 ? HeaderOffset(buffer, fill) : 0;
    uint32_t type = header ? (buffer[header] >> 1) & 0x3F : 0;
    if (!header || (buffer[header] & 0x80) || !((type >= 32 && type <= 35) || type == 39))
      return Fail(kInvalid);
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
  if (!Announced && flushing && HaveSps && HavePps && !Announce()) return false;
  if (!Announced && (received > kAnnounceLimit || flushing)) return Fail(kInvalid);
  return true;
}

bool Th265Reader::Finish() {
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
