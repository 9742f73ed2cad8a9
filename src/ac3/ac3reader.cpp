// The (E-)AC3 reader: sync search, first-frame judgement, frame checking, gap tracking.
#include "ac3/ac3reader.h"

#include <algorithm>

#include "ac3/ac3bitstream.h"
#include "framework/bitreader.h"

namespace sonvex {

namespace {

constexpr uint32_t kSearchLimit = 0x3000;   // junk allowed in front of the first frame
constexpr uint32_t kSearchReserve = 0x8000;  // room for a first frame or unit behind the limit
constexpr uint32_t kAc3MaxFrame = 3840;     // 1920 words
constexpr uint32_t kDefaultFill = 4096;
// An E-AC-3 unit holds at most 8 independent and 8 dependent substreams of 4 KiB each; a first
// unit that has not ended within this many bytes is no stream (only dependent frames).
constexpr uint32_t kUnitLimit = 0x20000;
constexpr uint32_t kTrueHdSync = 0xF8726FBA;
const std::string kName = "(E-)AC3 reader";

// How many bytes a unit that ran past the data wants before it is parsed again: its frames by
// the sizes their headers give, and the header of the frame behind them.
uint32_t UnitBytesWanted(const uint8_t* buffer, uint32_t fill) {
  uint64_t at = 0;
  for (;;) {
    uint32_t size = at + 6 <= fill ? Ac3FamilyFrameSize(buffer + at, uint32_t(fill - at)) : 0;
    if (size == 0 || at + size > fill) return uint32_t(std::min<uint64_t>(at + std::max(size, 6u) + 6, kUnitLimit));
    at += size;
  }
}

}  // namespace

std::shared_ptr<TAc3Reader> TAc3Reader::Create(const std::string& gapFileName,
                                               const std::string& gapData, bool exactStart) {
  return std::make_shared<TAc3Reader>(gapFileName, gapData, exactStart);
}

TAc3Reader::TAc3Reader(const std::string& gapFileName, const std::string& gapData, bool exactStart)
    : exactStart(exactStart),
      trackGaps(!gapFileName.empty() && gapData.empty()),
      gapFileName(gapFileName) {}

bool TAc3Reader::InitAudio(const std::string& format, uint32_t channels, uint32_t bitsPerSample,
                           uint32_t sampleRate, bool bigEndian, int64_t totalSize) {
  if (!valid) return false;
  if (format != "?" && format != "ac3" && format != "eac3")
    return Fail("The " + kName + " received a non-supported data format.");
  if (!CheckUpStreams(kName)) return false;
  totalBytes = totalSize * int64_t(channels) * int64_t(bitsPerSample / 8);
  minFill = kDefaultFill;
  frameSize = kDefaultFill;
  return true;
}

TFrameClock TAc3Reader::Clock() const {
  return TFrameClock{int64_t(10000) * frameSize * 8000, int64_t(bitrate)};
}

void TAc3Reader::DropFront(uint32_t count) {
  RemoveData(0, count);
  for (TPendingStamp& entry : pendingStamps) entry.offset -= count;
  while (pendingStamps.size() >= 2 && pendingStamps[1].offset <= 0)
    pendingStamps.erase(pendingStamps.begin());
}

bool TAc3Reader::FailNotClean() {
  Fail("This track is not clean. Processing aborted.");
  Log(2, "Please clean the track with delaycut and then retry sonvex.");
  return false;
}

// Looks for the first good frame in the first 12 KiB. `found` is set when the buffer now
// starts with it; false means: wait for more data, or the stage died.
bool TAc3Reader::SearchFirstFrame(bool& found) {
  found = false;
  const uint8_t* buffer = BufferData(0);
  uint32_t fill = BufferFill(0);
  // Offsets before `searchFrom` were refused for good by an earlier pass; a candidate that only
  // lacked data is tried again.
  uint32_t offset = searchFrom;
  uint32_t firstShort = UINT32_MAX;
  for (; offset + 1 < fill && offset < kSearchLimit; offset++) {
    if (buffer[offset] != 0x0B || buffer[offset + 1] != 0x77) continue;
    TAc3FrameInfo frame;
    int result = ParseAc3Frame(buffer + offset, fill - offset, frame);
    if (result == kAc3Good) {
      found = true;
      break;
    }
    if (result == kAc3OtherKind) {
      TEac3UnitInfo unit;
      result = ParseEac3Unit(buffer + offset, fill - offset, 0, unit);
      if (result == kAc3Good) {
        found = true;
        break;
      }
      if (result == kAc3NeedMore || fill - offset < 8) firstShort = std::min(firstShort, offset);
    } else if (fill - offset < 8 || (result == kAc3ShortOrCrc && fill - offset < frame.frameSize)) {
      firstShort = std::min(firstShort, offset);
    }
  }
  if (!found) {
    searchFrom = std::min(firstShort, offset);
    // A frame that starts just below the limit may still be incomplete: the stream is refused
    // only once the buffer holds enough for any such frame, or at the end.
    if (offset >= kSearchLimit && (finishing || fill >= kSearchLimit + kSearchReserve))
      Fail("This doesn't seem to be a valid (E-)AC3 stream.");
    return false;
  }
  searchFrom = 0;
  DropFront(offset);
  return true;
}

// The first frame decides the kind of stream and its format; a frame must follow directly.
bool TAc3Reader::AnnounceFormat() {
  const uint8_t* buffer = BufferData(0);
  uint32_t fill = BufferFill(0);
  TAc3FrameInfo frame;
  int result = ParseAc3Frame(buffer, fill, frame);
  TAc3FrameInfo info = frame;
  uint32_t size = frame.frameSize;
  // An AC-3 frame with a dependent E-AC-3 frame right behind it opens a Blu-ray E-AC-3 unit.
  if (result == kAc3Good && size <= fill &&
      IsEac3DependentHeader(buffer + size, fill - size)) {
    ac3Core = true;
    result = kAc3OtherKind;
  }
  if (result == kAc3OtherKind) {
    isEac3 = true;
    TEac3UnitInfo unit;
    result = ParseEac3Unit(buffer, fill, 0, unit);
    if (result == kAc3NeedMore && !finishing && fill < kUnitLimit) return false;
    if (result == kAc3Good && unit.skipBytes > 0) {
      DropFront(unit.skipBytes);
      buffer = BufferData(0);
      fill = BufferFill(0);
    }
    info = unit;
    size = unit.unitSize;
  } else {
    minFill = kAc3MaxFrame;
  }
  formatAnnounced = true;
  if (result == kAc3Good) {
    bool syncFollows = uint64_t(size) + 2 <= fill && buffer[size] == 0x0B && buffer[size + 1] == 0x77;
    if (!syncFollows) {
      if (uint64_t(size) + 8 <= fill && Be32(buffer + size + 4) == kTrueHdSync)
        return Fail("This is a TrueHD/AC3 stream and not an AC3 stream.");
      return FailNotClean();
    }
    frameSize = size;
    bitrate = info.bitrate;
    uint32_t length = bitrate ? uint32_t(totalBytes * 8000 / bitrate) : 0;
    std::string tag = isEac3 ? "eac3" : "ac3";
    SetAudioDetails(tag, isEac3 ? "E-AC3" : "AC3", info.channelText, "", length, info.channels,
                    info.channelMask, 0, info.sampleRate, bitrate, info.dialnorm,
                    ac3Core ? kAudioExtraAc3Core : 0, false);
    valid = NotifyAudio(tag, info.channels, 24, info.sampleRate, false, 0);
    return valid;
  }
  if (result == kAc3NotAc3) return Fail("This doesn't seem to be a valid (E-)AC3 stream.");
  if (result == kAc3BadHeader) return Fail("Parsing of (E-)AC3 headers failed.");
  return Fail("The (E-)AC3 reader raised an unexpected error.");
}

bool TAc3Reader::Write(SenderId, bool, const uint8_t* data, uint32_t size, int64_t position,
                       bool) {
  if (!valid) return false;
  if (!CheckUpStreams(kName)) return false;
  if (frameSize == 0) return Fail("The " + kName + " didn't receive the format information.");
  if (!StoreData(0, data, size)) return Fail("The " + kName + " couldn't allocate enough memory.");
  if (position != -1) {
    timestampsSeen = true;
    if (position != lastTimestamp) {
      lastTimestamp = position;
      pendingStamps.push_back({int64_t(BufferFill(0)) - int64_t(size), position});
    }
  }
  while (valid && BufferFill(0) > 0 && (BufferFill(0) >= minFill + 8 || finishing)) {
    if (!formatAnnounced) {
      if (!exactStart) {
        bool found = false;
        if (!SearchFirstFrame(found)) break;
        // The junk is gone; the frame and the sync behind it must be in the buffer too.
        if (!finishing && BufferFill(0) < minFill + 8) break;
      }
      if (!AnnounceFormat()) break;
    } else {
      const uint8_t* buffer = BufferData(0);
      uint32_t fill = BufferFill(0);
      if (fill < waitFor && !finishing) break;
      waitFor = 0;
      int result;
      uint32_t size = 0, rate = 0;
      if (isEac3) {
        TEac3UnitInfo unit;
        result = ParseEac3Unit(buffer, fill, frameSize, unit);
        size = unit.unitSize;
        rate = unit.bitrate;
        // A unit is judged only when it is whole, wherever the blocks of the input end.
        if (result == kAc3NeedMore && !finishing && fill < kUnitLimit) {
          waitFor = UnitBytesWanted(buffer, fill);
          break;
        }
        // Units of one stream all open with an AC-3 core, or none does.
        if (result == kAc3Good && unit.ac3Core != ac3Core) result = kAc3OtherKind;
      } else {
        TAc3FrameInfo frame;
        result = ParseAc3Frame(buffer, fill, frame);
        size = frame.frameSize;
        rate = frame.bitrate;
      }
      if (result != kAc3Good) {
        if (finishing && (result == kAc3NeedMore || fill < frameSize)) {
          Log(1, "The last (E-)AC3 frame is incomplete and thus gets skipped.");
          SetBufferFill(0, 0);
          pendingStamps.clear();
          break;
        }
        FailNotClean();
        break;
      }
      frameSize = size;
      bitrate = rate;
    }
    framesChecked++;
    if (!timestampsSeen && bitrate != 0)
      initialDelayMicro -= int64_t(frameSize) * 1000 * 8000 / bitrate;
    if (trackGaps && !pendingStamps.empty() && pendingStamps[0].offset <= 0) {
      int64_t stamp = pendingStamps[0].stamp;
      while (!pendingStamps.empty() && pendingStamps[0].offset <= 0)
        pendingStamps.erase(pendingStamps.begin());
      tracker.AddStamp(stamp, framesSent, Clock());
    }
    if (valid) {
      valid = Send(false, BufferData(0), frameSize, -1, false);
      framesSent++;
      DropFront(frameSize);
    }
  }
  return valid;
}

bool TAc3Reader::Finish() {
  if (!valid) return false;
  if (!CheckUpStreams(kName)) return false;
  finishing = true;
  bool result = Write(0, false, nullptr, 0, -1, false);
  if (!formatAnnounced) {
    if (!valid) return false;
    return Fail("The stream doesn't seem to contain any valid (E-)AC3 frames.");
  }
  result = result && FinishUpStreams();
  if (result && trackGaps) {
    TFrameClock clock = Clock();
    int64_t minGap = DefaultMinGap(clock);
    if (!tracker.Finish(*this, gapFileName, framesChecked, clock, minGap, minGap, DelaySum())) {
      valid = false;
      result = false;
    }
  }
  return result;
}

}  // namespace sonvex
