// TMp2Delayer and TMp2GapRealizer.
#include "mp2/mp2edits.h"

#include "ac3/gaptracker.h"
#include "mp2/mp2bitstream.h"

namespace sonvex {

bool TMp2Delayer::InitAudio(const std::string& format, uint32_t channelCount,
                            uint32_t bitsPerSampleIn, uint32_t sampleRateIn, bool bigEndianIn,
                            int64_t totalSizeIn) {
  if (!valid) return false;
  if (!CheckUpStreams("MP2 delayer")) return false;
  if (format != "mp2") return Fail("The MP2 delayer received a non-supported data format.");
  channels = int32_t(channelCount);
  bitsPerSample = bitsPerSampleIn;
  sampleRate = sampleRateIn;
  bigEndian = bigEndianIn;
  totalSize = totalSizeIn;
  return true;
}

bool TMp2Delayer::Write(SenderId, bool, const uint8_t* data, uint32_t size, int64_t, bool) {
  if (!valid) return false;
  if (!CheckUpStreams("MP2 delayer")) return false;
  if (channels <= 0) return Fail("The MP2 delayer didn't receive the format information.");
  if (size == 0) return true;
  if (!started) {
    int64_t delay = DelaySum();
    TMp2FrameInfo info;
    if (ParseMp2Frame(data, size, info) != 0) {
      valid = false;
      Log(1, "Applying MP2 delay failed.");
      return false;
    }
    if (delay != 0) Log(0, "Applying MP2 delay...");
    // Whole frames, rounded half away from zero; the first frame's size stands for all.
    int64_t bytes = delay * int64_t(info.bitrate) / 8000;
    int64_t half = int64_t(size) / 2;
    delayFrames = (delay >= 0 ? bytes + half : bytes - half) / int64_t(size);
    if (delayFrames != 0) totalSize = 0;
    if (!NotifyAudio("mp2", uint32_t(channels), bitsPerSample, sampleRate, bigEndian, totalSize))
      valid = false;
    started = true;
  }
  while (valid && delayFrames > 0) {
    if (!Send(false, data, size, -1, false)) valid = false;
    delayFrames--;
  }
  if (!valid) return false;
  if (delayFrames < 0) {
    delayFrames++;
    return true;
  }
  if (!Send(false, data, size, -1, false)) valid = false;
  return valid;
}

TMp2GapRealizer::TMp2GapRealizer(const std::string& gapData)
    : entries(GapEntriesFromBlob(gapData)) {
  entryIndex = entries.empty() ? -1 : 0;
}

bool TMp2GapRealizer::InitAudio(const std::string& format, uint32_t channels,
                                uint32_t bitsPerSample, uint32_t sampleRate, bool bigEndian,
                                int64_t totalSize) {
  if (!valid) return false;
  if (!CheckUpStreams("mp2 gap realizer")) return false;
  if (format != "mp2") return Fail("The mp2 gap realizer received a non-supported data format.");
  if (!NotifyAudio(format, channels, bitsPerSample, sampleRate, bigEndian, totalSize))
    valid = false;
  return valid;
}

namespace {

// A gap file is read as it stands; values beyond these are held there, so that the arithmetic
// can't overflow and one record can't ask for more than an hour of repeated frames.
constexpr int64_t kMaxGapTime = int64_t(100) * 3600 * 10000000;  // 100 hours in ticks
constexpr int64_t kMaxDrift = int64_t(3600) * 10000000;          // 1 hour in ticks

int64_t Held(int64_t value, int64_t limit) {
  return value > limit ? limit : value < -limit ? -limit : value;
}

}  // namespace

int64_t TMp2GapRealizer::FramesOf(int64_t ticks) const {
  return ((ticks * int64_t(bitrate)) / 8000 / int64_t(frameSize) + 5000) / 10000;
}

void TMp2GapRealizer::NextEntry() {
  TGapEntry entry = entries[size_t(entryIndex)];
  entry.time = Held(entry.time, kMaxGapTime);
  entry.drift = Held(entry.drift, kMaxDrift);
  framesUntilGap = entry.drift > 0 ? FramesOf(entry.time - entry.drift) : FramesOf(entry.time);
  if (framesUntilGap < framesPassed) framesUntilGap = framesPassed;
  framesUntilGap -= framesPassed;
  // The records hold the cumulated drift; what was adjusted already is taken off.
  framesToInsert = entry.drift > 0 ? FramesOf(entry.drift)
                   : entry.drift < 0 ? -FramesOf(-entry.drift)
                                     : 0;
  if (framesToInsert > 0 && framesAdjusted > framesToInsert) framesToInsert = framesAdjusted;
  if (framesToInsert < 0 && framesAdjusted < framesToInsert) framesToInsert = framesAdjusted;
  framesToInsert -= framesAdjusted;
  entryIndex++;
  if (size_t(entryIndex) >= entries.size()) entryIndex = -1;
}

// False when nothing could be sent. Buffer 1 keeps every frame seen while gaps are outstanding, and `framesInBuffer` rises by two
// for each of them, so it counts twice the frames stored. A gap at least that long gets the
// whole buffer; a shorter one the newest frames, taken from where that count points and held
// to the stored data.
bool TMp2GapRealizer::InsertFrames() {
  int64_t n = framesInBuffer;
  if (n == 0) {
    Log(1, "Realizing MP2 gap failed, no frames in buffer.");
    return false;
  }
  uint8_t* stored = BufferData(1);
  uint64_t fill = BufferFill(1);
  while (valid && framesToInsert != 0) {
    uint64_t offset = 0, length = fill;
    if (framesToInsert < n) {
      n = framesToInsert;
      length = std::min<uint64_t>(uint64_t(n) * frameSize, fill);
      offset = std::min<uint64_t>(uint64_t(framesInBuffer - n) * frameSize, fill - length);
    }
    if (!Send(false, stored + offset, uint32_t(length), -1, false)) valid = false;
    framesToInsert -= n;
    framesAdjusted += n;
  }
  return true;
}

bool TMp2GapRealizer::Write(SenderId, bool, const uint8_t* data, uint32_t size, int64_t,
                            bool flush) {
  if (!valid) return false;
  if (!CheckUpStreams("mp2 gap realizer")) return false;
  if (framesUntilGap == 0 && framesToInsert == 0 && entryIndex == -1) {
    if (!Send(false, data, size, -1, flush)) valid = false;
    return valid;
  }
  if (size == 0) return true;
  if (frameSize == 0) {
    TMp2FrameInfo info;
    if (ParseMp2Frame(data, size, info) != 0 || info.frameSize == 0 || info.bitrate == 0) {
      valid = false;
      Log(1, "The mp2 gap realizer received invalid data.");
      return false;
    }
    frameSize = info.frameSize;
    bitrate = info.bitrate;
  }
  if (!StoreData(1, data, size))
    return Fail("The mp2 gap realizer was not able to allocate enough memory.");
  framesInBuffer++;
  if (framesInBuffer == 40)
    RemoveData(1, frameSize);
  else
    framesInBuffer++;

  int pending = 1;
  bool progress = true;
  while (valid && progress) {
    progress = false;
    if (framesUntilGap > 0 && pending > 0) {
      if (!reported) {
        reported = true;
        Log(0, "Realizing MP2 gaps...");
      }
      if (!Send(false, data, size, -1, false)) valid = false;
      framesPassed++;
      pending--;
      framesUntilGap--;
      progress = true;
    }
    if (valid && framesUntilGap == 0 && (framesToInsert != 0 || entryIndex != -1)) {
      if (framesToInsert > 0) {
        progress = InsertFrames();
      } else if (framesToInsert < 0 && pending > 0) {
        // The current frame is dropped.
        pending--;
        framesToInsert++;
        framesPassed++;
        framesAdjusted--;
        progress = true;
      }
      if (valid && framesToInsert == 0) {
        if (entryIndex == -1) {
          if (!Send(false, BufferData(0), 0, -1, flush)) valid = false;
          return valid;
        }
        NextEntry();
        progress = true;
      }
    }
  }
  return valid;
}

}  // namespace sonvex
