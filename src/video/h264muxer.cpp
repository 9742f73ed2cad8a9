// Th264Muxer: access units, presentation times and sync frames of H.264 for Matroska.
#include "video/h264muxer.h"

#include <algorithm>

#include "framework/bitreader.h"
#include "video/h264bitstream.h"

namespace sonvex {

namespace {
constexpr size_t kRunIn = 50;  // frames of a run-in at most

uint32_t StartCodeLength(const uint8_t* data, uint32_t size) {
  if (size >= 4 && data[0] == 0 && data[1] == 0 && data[2] == 1) return 3;
  if (size >= 5 && data[0] == 0 && data[1] == 0 && data[2] == 0 && data[3] == 1) return 4;
  return 0;
}
}  // namespace

bool Th264Muxer::InitVideo(const std::string& format, bool interlaced, bool pulldown,
                           uint32_t width, uint32_t height, uint32_t aspectX, uint32_t aspectY,
                           uint32_t rateNumerator, uint32_t rateDenominator,
                           const std::string& description) {
  if (!valid) return false;
  if (format != "h264") return Fail("The h264 muxer received a non-supported data format.");
  if (!CheckUpStreams("h264 muxer")) return false;
  Interlaced = interlaced;
  RateNum = interlaced ? rateNumerator / 2 : rateNumerator;
  RateDen = rateDenominator;
  return NotifyVideo(format, interlaced, pulldown, width, height, aspectX, aspectY,
                     rateNumerator, rateDenominator, description);
}

bool Th264Muxer::ParseSps(const uint8_t* rbsp, size_t size) {
  TH264Sps sps;
  if (ParseH264Sps(rbsp, size, sps) == TH264SpsResult::invalid) return true;
  if (sps.pocType != 0) {
    Log(2, "The h264 muxer doesn't support this stream type yet.");
    Log(2, "Please send a 10MB sample of this stream to the sonvex issue tracker.");
    valid = false;
    return false;
  }
  HaveSps = true;
  Log2MaxFrameNum = sps.log2MaxFrameNum;
  Log2MaxPocLsb = sps.log2MaxPocLsb;
  MaxPocLsb = 1u << std::min<uint32_t>(Log2MaxPocLsb, 16);
  PocType = sps.pocType;
  FrameMbsOnly = sps.frameMbsOnly;
  return true;
}

void Th264Muxer::ParseSei(const uint8_t* rbsp, size_t size) {
  size_t at = 0;
  while (at + 2 <= size) {
    uint32_t type = 0, length = 0;
    while (at < size && rbsp[at] == 0xFF) type += rbsp[at++];
    if (at >= size) return;
    type += rbsp[at++];
    while (at < size && rbsp[at] == 0xFF) length += rbsp[at++];
    if (at >= size) return;
    length += rbsp[at++];
    if (type > 21 || length > size - at) return;
    if (type == 6) RecoveryPoint = Key = true;  // recovery point
    at += length;
  }
}

void Th264Muxer::ParseSlice(const uint8_t* rbsp, size_t size, uint8_t nalType) {
  BitReader bits(rbsp, size);
  bits.ReadUe();                       // first_mb_in_slice
  uint32_t sliceType = bits.ReadUe();  // slice_type
  if (SeekToIFrames && sliceType == 7) IsIFrame = Key = true;
  bits.ReadUe();                       // pic_parameter_set_id
  bits.Skip(Log2MaxFrameNum);          // frame_num
  if (!FrameMbsOnly && bits.ReadFlag())  // field_pic_flag
    bits.ReadBit();                      // bottom_field_flag
  if (nalType == 5) {
    bits.ReadUe();  // idr_pic_id
    Key = true;
    Rebase = !Queue.empty() || Locked;
    PrevPocMsb = PrevPocLsb = 0;
  }
  int64_t lsb = bits.Read(int(std::min<uint32_t>(Log2MaxPocLsb, 16)));  // pic_order_cnt_lsb
  if (bits.Failed()) return;
  if (lsb < PrevPocLsb && PrevPocLsb - lsb >= MaxPocLsb / 2)
    PrevPocMsb += MaxPocLsb;
  else if (lsb > PrevPocLsb && lsb - PrevPocLsb > MaxPocLsb / 2)
    PrevPocMsb -= MaxPocLsb;
  PrevPocLsb = lsb;
  Poc = PrevPocMsb + lsb;
}

int64_t Th264Muxer::Offset(int64_t poc, int64_t decodeIndex) const {
  int64_t d = RateNum / 1000;
  if (d == 0) return 0;
  return (poc * 5000 - decodeIndex * 10000) * int64_t(RateDen) / d;
}

bool Th264Muxer::FlushQueue() {
  PocBase = Queue.front().poc;
  for (const Queued& frame : Queue) PocBase = std::min(PocBase, frame.poc);
  PocStep = 1;
  if (!Interlaced)
    for (const Queued& frame : Queue)
      if ((frame.poc - PocBase) & 1) PocStep = 2;
  PocMax = 0;
  for (size_t i = 0; i < Queue.size(); i++) {
    int64_t poc = (Queue[i].poc - PocBase) * PocStep;
    PocMax = std::max(PocMax, poc);
    int64_t index = int64_t(i) + 1;
    uint32_t n = uint32_t(index);
    if (!Send(false, BufferData(n), BufferFill(n),
              Queue[i].position + Offset(poc, index + FrameIndex - 1), Queue[i].key)) {
      valid = false;
      return false;
    }
    FreeBuffer(n);
  }
  Queue.clear();
  Locked = true;
  return true;
}

bool Th264Muxer::FinishAccessUnit() {
  if (!Queue.empty() && (Queue.size() >= kRunIn || Rebase || Ending) && !FlushQueue())
    return false;
  if (Rebase) {
    Rebase = false;
    FrameIndex += (GopFrames * 2 - PocMax - 1) / 2;
    GopFrames = 0;
    Locked = false;
  }
  GopFrames++;
  if (Locked) {
    int64_t poc = (Poc - PocBase) * PocStep;
    PocMax = std::max(PocMax, poc);
    if (!Send(false, BufferData(0), BufferFill(0),
              FramePosition + Offset(poc, GopFrames + FrameIndex - 1), Key)) {
      valid = false;
      return false;
    }
  } else {
    uint32_t n = uint32_t(Queue.size() + 1);
    if (!StoreData(n, BufferData(0), BufferFill(0)))
      return Fail("The h264 muxer couldn't allocate enough memory.");
    Queue.push_back({Poc, FramePosition, Key});
  }
  SetBufferFill(0, 0);
  HaveSlice = false;
  return true;
}

bool Th264Muxer::Write(SenderId, bool, const uint8_t* data, uint32_t size, int64_t position,
                       bool) {
  if (!valid) return false;
  if (!CheckUpStreams("h264 muxer")) return false;
  if (size == 0 && Ending) {
    if (HaveSlice && !FinishAccessUnit()) return false;
    return Queue.empty() || FlushQueue();
  }
  uint32_t header = StartCodeLength(data, size);
  if (!header) return Fail("The h264 muxer received invalid h264/AVC data.");
  uint8_t nalType = data[header] & 0x1F;
  if (nalType == 9 && HaveSlice && !FinishAccessUnit()) return false;
  if (nalType == 9) Key = RecoveryPoint = IsIFrame = false;
  if (position != -1) FramePosition = position;
  if (nalType < 9 || nalType > 12) {
    uint32_t length = size - header;
    uint8_t prefix[4] = {uint8_t(length >> 24), uint8_t(length >> 16), uint8_t(length >> 8),
                         uint8_t(length)};
    if (!StoreData(0, prefix, 4) || !StoreData(0, data + header, length))
      return Fail("The h264 muxer couldn't allocate enough memory.");
  }
  switch (nalType) {
    case 1: case 2: case 3: case 4: case 5: case 19: {
      // Only the slice header is needed; its escaped bytes lie well within the first 64.
      std::string rbsp =
          RemoveEmulationPrevention(data + header + 1, std::min<uint32_t>(size - header - 1, 64));
      ParseSlice(reinterpret_cast<const uint8_t*>(rbsp.data()), rbsp.size(), nalType);
      if (nalType != 19) HaveSlice = true;
      break;
    }
    case 6: {
      std::string rbsp = RemoveEmulationPrevention(data + header + 1, size - header - 1);
      ParseSei(reinterpret_cast<const uint8_t*>(rbsp.data()), rbsp.size());
      break;
    }
    case 7: {
      std::string rbsp = RemoveEmulationPrevention(data + header + 1, size - header - 1);
      if (!ParseSps(reinterpret_cast<const uint8_t*>(rbsp.data()), rbsp.size())) return false;
      break;
    }
    case 8: {
      std::string rbsp = RemoveEmulationPrevention(data + header + 1, size - header - 1);
      BitReader bits(reinterpret_cast<const uint8_t*>(rbsp.data()), rbsp.size());
      bits.ReadUe();  // pic_parameter_set_id
      bits.ReadUe();  // seq_parameter_set_id
      bits.ReadBit();  // entropy_coding_mode_flag
      PicOrderPresent = bits.ReadFlag();  // bottom_field_pic_order_in_frame_present_flag
      break;
    }
    default:
      break;
  }
  return true;
}

bool Th264Muxer::Finish() {
  if (!valid) return false;
  Ending = true;
  if (!Write(0, false, nullptr, 0, -1, false)) return false;
  return FinishUpStreams();
}

}  // namespace sonvex
