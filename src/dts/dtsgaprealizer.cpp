// The DTS gap realizer stage.
#include "dts/dtsgaprealizer.h"

#include <algorithm>

#include "ac3/gaptracker.h"
#include "dts/dtsbitstream.h"

namespace sonvex {

TDtsGapRealizer::TDtsGapRealizer(const std::string& gapData)
    : entries(BoundedGapEntries(gapData)), entryIndex(entries.empty() ? -1 : 0) {}

bool TDtsGapRealizer::InitAudio(const std::string& format, uint32_t channels,
                                uint32_t bitsPerSample, uint32_t sampleRate, bool bigEndian,
                                int64_t totalSize) {
  if (!valid) return false;
  if (!CheckUpStreams("dts gap realizer")) return false;
  if (format != "dts" && format != "dtsma" && format != "dtshr")
    return Fail("The dts gap realizer received a non-supported data format.");
  this->sampleRate = sampleRate == 96000 ? 48000 : sampleRate;
  return NotifyAudio(format, channels, bitsPerSample, sampleRate, bigEndian, totalSize);
}

int64_t TDtsGapRealizer::FramesOf(int64_t ticks) const {
  return int64_t((__int128(ticks) * (sampleRate / 100) / 10 / samplesPerFrame + 5000) / 10000);
}

bool TDtsGapRealizer::SendNewest(uint32_t n) {
  uint64_t skip = 0;
  for (uint32_t i = 0; i < framesInBuffer - n; i++) skip += frameSizes[i];
  const uint32_t fill = BufferFill(1) - dropped;
  if (skip > fill) skip = fill;
  return Send(false, BufferData(1) + dropped + skip, uint32_t(fill - skip), -1, false);
}

bool TDtsGapRealizer::Write(SenderId sender, bool isHeader, const uint8_t* data, uint32_t size,
                            int64_t position, bool flush) {
  if (!valid) return false;
  if (!CheckUpStreams("dts gap realizer")) return false;
  if (size == 0) return true;
  if (framesUntilGap == 0 && framesToInsert == 0 && entryIndex == -1)
    return Send(false, data, size, -1, flush);
  if (samplesPerFrame == 0 && size >= 6) {
    samplesPerFrame = DtsFrameSamples(data, size);
    if (sampleRate == 96000) samplesPerFrame *= 2;  // never so here: the rate is kept at 48000
  }
  if (samplesPerFrame == 0 || sampleRate < 100) return Send(false, data, size, -1, flush);

  if (!StoreData(1, data, size))
    return Fail("The dts gap realizer was not able to allocate enough memory.");
  if (framesInBuffer == kMaxFrames) {
    // The oldest frame is dropped in place; the buffer is compacted once half of it is dropped.
    dropped += frameSizes[0];
    if (dropped >= BufferFill(1) / 2) {
      RemoveData(1, dropped);
      dropped = 0;
    }
    for (uint32_t i = 1; i < kMaxFrames; i++) frameSizes[i - 1] = frameSizes[i];
  } else {
    framesInBuffer++;
  }
  frameSizes[framesInBuffer - 1] = size;

  int pending = 1;
  for (;;) {
    bool progress = false;
    if (framesUntilGap > 0 && pending > 0) {
      if (!reported) {
        reported = true;
        Log(0, "Realizing DTS gaps...");
      }
      valid = Send(false, data, size, -1, flush);
      framesPassed++;
      pending--;
      framesUntilGap--;
      progress = true;
    }
    if (valid && framesUntilGap == 0 && (framesToInsert != 0 || entryIndex != -1)) {
      if (framesToInsert > 0) {
        uint32_t n = framesInBuffer;
        if (n == 0) {
          Log(1, "Realizing DTS gap failed, no frames in buffer.");
          framesToInsert = 0;
        }
        while (valid && framesToInsert > 0 && n > 0) {
          if (framesToInsert < int64_t(n)) n = uint32_t(framesToInsert);
          valid = SendNewest(n);
          framesToInsert -= n;
          framesAdjusted += n;
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
        if (entryIndex == -1) {
          return valid = Send(false, BufferData(0), 0, -1, flush);
        }
        const TGapEntry& e = entries[size_t(entryIndex)];
        framesUntilGap = e.drift > 0 ? FramesOf(e.time - e.drift) : FramesOf(e.time);
        if (framesUntilGap < framesPassed) framesUntilGap = framesPassed;
        framesUntilGap -= framesPassed;
        framesToInsert = e.drift > 0   ? FramesOf(std::min(e.drift, kGapStepLimit))
                         : e.drift < 0 ? -FramesOf(std::min(-e.drift, kGapStepLimit))
                                       : 0;
        if (framesToInsert > 0 && framesAdjusted > framesToInsert) framesToInsert = framesAdjusted;
        if (framesToInsert < 0 && framesAdjusted < framesToInsert) framesToInsert = framesAdjusted;
        framesToInsert -= framesAdjusted;
        if (++entryIndex >= int32_t(entries.size())) entryIndex = -1;
        progress = true;
      }
    }
    if (!valid || !progress) break;
  }
  return valid;
}

}  // namespace sonvex
