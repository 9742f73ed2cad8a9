// TMpeg2Muxer: MPEG-2 frames and their presentation times for Matroska.
#include "video/mpeg2muxer.h"

#include <algorithm>

#include "video/mpeg2bitstream.h"

namespace sonvex {

namespace {
// Start codes in front of which an open picture ends: picture, sequence error, sequence
// header, sequence end and the system codes from 0xB6 on (group headers among them).
bool ClosesPicture(uint8_t code) {
  return code == 0x00 || code == 0xB1 || code == 0xB3 || code == 0xB4 || code >= 0xB6;
}
}  // namespace

bool TMpeg2Muxer::InitVideo(const std::string& format, bool interlaced, bool pulldown,
                            uint32_t width, uint32_t height, uint32_t aspectX, uint32_t aspectY,
                            uint32_t rateNumerator, uint32_t rateDenominator,
                            const std::string& description) {
  if (!valid) return false;
  if (format != "mpeg2") return Fail("The MPEG2 muxer received a non-supported data format.");
  if (!CheckUpStreams("MPEG2 muxer")) return false;
  RateNum = rateNumerator;
  RateDen = rateDenominator;
  PulldownAnnounced = pulldown;
  return NotifyVideo(format, interlaced, pulldown, width, height, aspectX, aspectY,
                     rateNumerator, rateDenominator, description);
}

bool TMpeg2Muxer::SendGroup() {
  int64_t d = RateNum / 1000;
  int64_t frame = d ? 10000 * int64_t(RateDen) / d : 0;
  int64_t t = GroupStart < 0 ? 0 : GroupStart;
  int64_t first = LastReference;
  for (const Kept& k : kept) first = std::min(first, k.reference);
  for (int64_t r = first; r <= LastReference; r++) {
    bool seen = false;
    for (Kept& k : kept) {
      if (k.reference != r) continue;
      k.time = t;
      if (!seen) {
        seen = true;
        t += frame;
        if (!PulldownAnnounced && k.repeatField) t += frame / 2;
      }
    }
  }
  for (size_t i = 0; i < kept.size(); i++) {
    uint32_t n = uint32_t(i + 1);
    if (!Send(false, BufferData(n), BufferFill(n), kept[i].time, false)) {
      valid = false;
      return false;
    }
    FreeBuffer(n);
  }
  kept.clear();
  return true;
}

bool TMpeg2Muxer::Write(SenderId, bool, const uint8_t* data, uint32_t size, int64_t position,
                        bool) {
  if (!valid) return false;
  if (!CheckUpStreams("MPEG2 muxer")) return false;
  if (!Ending && size < 4) return Fail("The MPEG2 muxer received invalid MPEG2 data.");
  int code = size >= 4 ? data[3] : -1;

  // A stream without group headers: an I picture whose temporal reference was met already in
  // this group starts a new one.
  bool startGroup = false;
  TMpeg2Picture picture;
  if (NoGopYet && SeqInFrame && code == 0x00 && ParseMpeg2Picture(data, size, picture) &&
      picture.codingType == 1 && picture.temporalReference < 10) {
    for (const Kept& k : kept)
      if (k.reference == int64_t(picture.temporalReference)) startGroup = true;
    if (startGroup && !WorkaroundLogged) {
      WorkaroundLogged = true;
      Log(1, "Found no Group of Pictures Headers. Will try to work around that.");
    }
  }

  if (PictureOpen && (Ending || startGroup || (code >= 0 && ClosesPicture(uint8_t(code))))) {
    uint32_t n = uint32_t(kept.size() + 1);
    if (!StoreData(n, BufferData(0), BufferFill(0)))
      return Fail("The MPEG2 muxer couldn't allocate enough memory.");
    kept.push_back({Reference, 0, FrameStructure, RepeatField});
    SetBufferFill(0, 0);
    PictureOpen = SeqInFrame = false;
  }

  if (Ending || startGroup || code == 0xB8) {
    if (!kept.empty() && !SendGroup()) return false;
    Reference = LastReference = 0;
    GroupStart = -1;
    FrameStructure = RepeatField = false;
  }

  if (size < 4 || code == 0xB7) return true;
  if (!StoreData(0, data, size)) return Fail("The MPEG2 muxer couldn't allocate enough memory.");
  switch (code) {
    case 0x00: {
      PictureOpen = true;
      int64_t t = position == -1 ? 0 : position;
      if (GroupStart < 0 || t < GroupStart) GroupStart = t;
      if (ParseMpeg2Picture(data, size, picture)) {
        int64_t r = picture.temporalReference;
        while (r - Reference > 512) r -= 1024;
        while (Reference - r > 512) r += 1024;
        Reference = r;
        LastReference = std::max(LastReference, r);
      }
      FrameStructure = RepeatField = false;
      break;
    }
    case 0xB3:
      SeqInFrame = true;
      break;
    case 0xB5: {
      TMpeg2PictureCoding coding;
      if (Mpeg2ExtensionId(data, size) == 8 && ParseMpeg2PictureCoding(data, size, coding)) {
        FrameStructure = coding.pictureStructure == 3;
        if (FrameStructure) RepeatField = coding.repeatFirstField;
      }
      break;
    }
    case 0xB8:
      NoGopYet = false;
      break;
    default:
      break;
  }
  return true;
}

bool TMpeg2Muxer::Finish() {
  if (!valid) return false;
  Ending = true;
  if (!Write(0, false, nullptr, 0, -1, false)) return false;
  return FinishUpStreams();
}

}  // namespace sonvex
