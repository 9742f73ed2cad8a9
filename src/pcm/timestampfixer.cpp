// TTimestampFixer: gap and overlap tracking for PCM by sample count.
#include "pcm/timestampfixer.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>

namespace sonvex {

namespace {

constexpr int64_t kHysteresisTicks = 50000;      // 5 ms: smaller changes of the drift are noise
constexpr int64_t kIgnoredTailTicks = 300000000;  // 30 s: drifts at the very end are not reported
constexpr int64_t kReportTicks = 70000;           // 7 ms: smaller drifts are not worth a file

}  // namespace

std::string GapPlaytimeText(int64_t milliseconds) {
  int64_t seconds = (milliseconds + 500) / 1000;
  char text[48];
  std::snprintf(text, sizeof text, "%lld:%02lld:%02lld", (long long)(seconds / 3600),
                (long long)(seconds / 60 % 60), (long long)(seconds % 60));
  return text;
}

TTimestampFixer::TTimestampFixer(const std::string& gapFileName, const std::string& gapData)
    : gapFileName(gapFileName) {
  trackGaps = !gapFileName.empty() && gapData.empty();
  size_t count = gapData.size() / sizeof(TGapEntry);
  gaps.resize(count);
  if (count) std::memcpy(gaps.data(), gapData.data(), count * sizeof(TGapEntry));
}

bool TTimestampFixer::InitAudio(const std::string& format, uint32_t channelCount,
                                uint32_t bitsPerSample, uint32_t rate, bool bigEndian,
                                int64_t totalSize) {
  if (!valid) return false;
  if (!CheckUpStreams("timestamp fixer")) return false;
  if (format != "pcm") {
    passThrough = true;
  } else {
    if (channelCount == 0 || (bitsPerSample != 8 && bitsPerSample != 16 && bitsPerSample != 24) ||
        rate < 100)
      return Fail("The timestamp fixer received a non-supported data format.");
    passThrough = false;
    channels = channelCount;
    bytesPerSample = bitsPerSample / 8;
    sampleRate = rate;
  }
  formatKnown = true;
  return valid = NotifyAudio(format, channelCount, bitsPerSample, rate, bigEndian, totalSize);
}

int64_t TTimestampFixer::SamplesTicks() const {
  return int64_t(samplesSent) * 100000 / int64_t(sampleRate / 100);
}

// The drift is kept as a list of growth steps: a drift of 0 or a change of sign starts the list
// anew, a change below the hysteresis is ignored, growth is appended, and shrinking is written
// back to the entry where the drift first passed the new value.
void TTimestampFixer::TrackGap(int64_t time, int64_t drift) {
  int64_t last = gaps.empty() ? 0 : gaps.back().drift;
  if (drift == 0 || (drift < 0) != (last < 0)) {
    last = 0;
    gaps.clear();
  }
  if (std::llabs(drift - last) < kHysteresisTicks) drift = last;
  if (drift == last) return;
  if ((drift > 0 && drift > last) || (drift < 0 && drift < last)) {
    gaps.push_back({time, drift});
    return;
  }
  for (size_t i = gaps.size(); i-- > 0;) {
    bool farEnough = std::llabs(gaps[i].drift) >= std::llabs(drift);
    bool beforeNearer = i == 0 || std::llabs(gaps[i - 1].drift) < std::llabs(drift);
    if (farEnough && beforeNearer) {
      gaps[i].drift = drift;
      gaps.resize(i + 1);
      return;
    }
  }
}

bool TTimestampFixer::Write(SenderId, bool isHeader, const uint8_t* data, uint32_t size,
                            int64_t position, bool flush) {
  if (!valid) return false;
  if (!CheckUpStreams("timestamp fixer")) return false;
  if (!formatKnown) return Fail("The timestamp fixer didn't receive the format information.");
  if (passThrough) return valid = Send(isHeader, data, size, position, flush);
  if (!StoreData(0, data, size)) {
    valid = false;
    return false;
  }
  uint32_t frameBytes = channels * bytesPerSample;
  uint32_t frames = BufferFill(0) / frameBytes;
  if (position != -1 && trackGaps) {
    if (!timeBaseSet) {
      timeBaseSet = true;
      timeBase = position - SamplesTicks();
    }
    int64_t time = position - timeBase;
    TrackGap(time, time - SamplesTicks());
  }
  uint32_t bytes = frames * frameBytes;
  if (bytes) {
    valid = Send(false, BufferData(0), bytes, -1, false);
    samplesSent += frames;
    RemoveData(0, bytes);
  }
  return valid;
}

bool TTimestampFixer::Finish() {
  if (!valid) return false;
  if (!FinishUpStreams()) return false;
  if (!trackGaps) return true;
  std::error_code error;
  std::filesystem::remove(gapFileName, error);
  if (gaps.empty() || !sampleRate) return true;
  // Drifts in the last 30 seconds are not reported; the rest stands if it is big enough.
  int64_t total = SamplesTicks();
  size_t keep = 0;
  for (size_t i = gaps.size(); i-- > 0;) {
    if (total - gaps[i].time > kIgnoredTailTicks) {
      keep = i + 1;
      break;
    }
  }
  if (keep == 0) return true;
  int64_t drift = gaps[keep - 1].drift;
  if (drift < kReportTicks && drift > -kReportTicks) return true;
  gaps.resize(keep);

  std::FILE* file = std::fopen(gapFileName.c_str(), "wb");
  if (!file) {
    Log(2, "Creating the audio gap description file failed.");
    return false;
  }
  int64_t delay = DelaySum();
  int64_t previous = 0;
  for (TGapEntry& entry : gaps) {
    entry.time += delay * 10000;
    int64_t step = entry.drift - previous;
    previous = entry.drift;
    std::string at = GapPlaytimeText((entry.time + 5000) / 10000);
    if (step > 0)
      Log(1, "Audio has a gap of " + std::to_string((step + 5000) / 10000) + "ms at playtime " +
                 at + ".");
    else
      Log(1, "Audio overlaps for " + std::to_string((5000 - step) / 10000) + "ms at playtime " +
                 at + ".");
  }
  Log(1, "The audio file was demuxed without making use of the gap/overlap information.");
  Log(1, "Please rerun the same sonvex command line. That will correct the gaps/overlaps.");
  std::string blob(reinterpret_cast<const char*>(gaps.data()), gaps.size() * sizeof(TGapEntry));
  SetGapData(blob);
  bool written = std::fwrite(blob.data(), 1, blob.size(), file) == blob.size();
  bool closed = std::fclose(file) == 0;
  if (!written || !closed) {
    Log(2, "Writing to the audio gap description file failed.");
    return false;
  }
  return true;
}

}  // namespace sonvex
