// Realizing the gaps and overlaps of a ".gaps" file in (E-)AC3 streams by whole frames.
#include "ac3/ac3gaprealizer.h"

#include <algorithm>

#include "ac3/ac3bitstream.h"
#include "ac3/gaptracker.h"

namespace sonvex {

namespace {
const std::string kName = "(E-)AC3 gap realizer";
constexpr uint32_t kKeptFrames = 30;
}  // namespace

TAc3GapRealizer::TAc3GapRealizer(const std::string& gapData)
    : entries(BoundedGapEntries(gapData)), entryIndex(entries.empty() ? -1 : 0) {}

bool TAc3GapRealizer::InitAudio(const std::string& format, uint32_t channels,
                                uint32_t bitsPerSample, uint32_t sampleRate, bool bigEndian,
                                int64_t totalSize) {
  if (!valid) return false;
  if (format != "ac3" && format != "eac3")
    return Fail("The " + kName + " received a non-supported data format.");
  if (!CheckUpStreams(kName)) return false;
  isEac3 = format == "eac3";
  return NotifyAudio(format, channels, bitsPerSample, sampleRate, bigEndian, totalSize);
}

// Frames in `ticks` of play time, rounded to the nearest frame.
int64_t TAc3GapRealizer::FramesOf(int64_t ticks) const {
  if (frameSize == 0) return 0;
  return (int64_t(__int128(ticks) * bitrate / 8000) / frameSize + 5000) / 10000;
}

// The entries hold cumulated drift at a play position; this turns the next one into the frames
// to pass before it and the step to insert (or drop) there.
void TAc3GapRealizer::NextEntry() {
  const TGapEntry& entry = entries[size_t(entryIndex)];
  framesUntilGap = entry.drift > 0 ? FramesOf(entry.time - entry.drift) : FramesOf(entry.time);
  if (framesUntilGap < framesPassed) framesUntilGap = framesPassed;
  framesUntilGap -= framesPassed;
  int64_t step = 0;
  if (entry.drift > 0) step = FramesOf(std::min(entry.drift, kGapStepLimit));
  if (entry.drift < 0) step = -FramesOf(std::min(-entry.drift, kGapStepLimit));
  if (step > 0 && framesAdjusted > step) step = framesAdjusted;
  if (step < 0 && framesAdjusted < step) step = framesAdjusted;
  framesToInsert = step - framesAdjusted;
  entryIndex++;
  if (size_t(entryIndex) >= entries.size()) entryIndex = -1;
}

bool TAc3GapRealizer::Write(SenderId, bool, const uint8_t* data, uint32_t size, int64_t,
                            bool flush) {
  if (!valid) return false;
  if (!CheckUpStreams(kName)) return false;
  if (framesUntilGap == 0 && framesToInsert == 0 && entryIndex == -1)
    return Send(false, data, size, -1, flush);
  if (frameSize == 0) {
    int result;
    if (isEac3) {
      TEac3UnitInfo unit;
      result = ParseEac3Unit(data, size, size, unit);
      frameSize = unit.unitSize;
      bitrate = unit.bitrate;
    } else {
      TAc3FrameInfo frame;
      result = ParseAc3Frame(data, size, frame);
      frameSize = frame.frameSize;
      bitrate = frame.bitrate;
    }
    if (result != 0 || frameSize == 0) {
      valid = false;
      Log(1, "The " + kName + " received invalid data.");
      return false;
    }
  }
  if (!StoreData(1, data, size))
    return Fail("The " + kName + " was not able to allocate enough memory.");
  if (framesInBuffer == kKeptFrames)
    RemoveData(1, frameSize);
  else
    framesInBuffer++;

  int pending = 1;
  for (;;) {
    bool progress = false;
    if (framesUntilGap > 0 && pending > 0) {
      if (!reported) {
        reported = true;
        Log(0, "Realizing (E-)AC3 gaps...");
      }
      if (!Send(false, data, size, -1, flush)) return valid = false;
      framesPassed++;
      pending--;
      framesUntilGap--;
      progress = true;
    }
    if (valid && framesUntilGap == 0 && (framesToInsert != 0 || entryIndex != -1)) {
      if (framesToInsert > 0) {
        uint32_t n = framesInBuffer;
        if (n == 0) {
          Log(1, "Realizing (E-)AC3 gap failed, no frames in buffer.");
        } else {
          while (valid && framesToInsert > 0) {
            uint32_t count = n;
            if (framesToInsert < int64_t(n)) count = uint32_t(framesToInsert);
            uint64_t from = uint64_t(framesInBuffer - count) * frameSize;
            uint64_t bytes = uint64_t(count) * frameSize;
            if (from + bytes > BufferFill(1)) {
              from = 0;
              bytes = BufferFill(1);
            }
            if (!Send(false, BufferData(1) + from, uint32_t(bytes), -1, flush))
              return valid = false;
            framesToInsert -= count;
            framesAdjusted += count;
          }
        }
        progress = true;
      } else if (framesToInsert < 0 && pending > 0) {
        pending--;
        framesToInsert++;
        framesPassed++;
        framesAdjusted--;
        progress = true;
      }
      if (valid && framesToInsert == 0) {
        if (entryIndex == -1) return Send(false, BufferData(0), 0, -1, flush);
        NextEntry();
        progress = true;
      }
    }
    if (!valid || !progress) break;
  }
  return valid;
}

}  // namespace sonvex
