// Gap and overlap tracking of compressed audio time stamps, and the ".gaps" file.
#include "ac3/gaptracker.h"

#include <algorithm>

#include <cstdio>
#include <filesystem>
#include <fstream>

#include "ac3/ac3bitstream.h"
#include "framework/bitreader.h"
#include "framework/upstream.h"

namespace sonvex {

namespace {

constexpr int64_t kSmallDrift = 50000;          // 5 ms: closer drifts count as the same
constexpr int64_t kIgnoredTail = 300000000;     // 30 s at the end of a stream are not reported
constexpr uint32_t kRecordSize = 16;

int Sign(int64_t value) { return value < 0 ? -1 : 1; }  // 0 counts as positive

int64_t Magnitude(int64_t value) { return value < 0 ? -value : value; }

void PutLe64(std::string& out, int64_t value) {
  uint64_t bits = uint64_t(value);
  for (int i = 0; i < 8; i++) out += char(uint8_t(bits >> (8 * i)));
}

}  // namespace

int64_t TFrameClock::TicksOf(int64_t frames) const {
  if (!IsSet()) return 0;
  return int64_t(__int128(frames) * numerator / denominator);
}

std::string GapBlobFromEntries(const std::vector<TGapEntry>& entries) {
  std::string blob;
  blob.reserve(entries.size() * kRecordSize);
  for (const TGapEntry& entry : entries) {
    PutLe64(blob, entry.time);
    PutLe64(blob, entry.drift);
  }
  return blob;
}

std::vector<TGapEntry> GapEntriesFromBlob(const std::string& blob) {
  std::vector<TGapEntry> entries(blob.size() / kRecordSize);
  const auto* bytes = reinterpret_cast<const uint8_t*>(blob.data());
  for (size_t i = 0; i < entries.size(); i++) {
    entries[i].time = int64_t(Le64(bytes + i * kRecordSize));
    entries[i].drift = int64_t(Le64(bytes + i * kRecordSize + 8));
  }
  return entries;
}

std::vector<TGapEntry> BoundedGapEntries(const std::string& blob) {
  constexpr int64_t kTimeLimit = int64_t(1) << 50;
  std::vector<TGapEntry> entries = GapEntriesFromBlob(blob);
  for (TGapEntry& entry : entries) {
    entry.time = std::clamp(entry.time, -kTimeLimit, kTimeLimit);
    entry.drift = std::clamp(entry.drift, -kTimeLimit, kTimeLimit);
  }
  return entries;
}

int64_t DefaultMinGap(const TFrameClock& clock) { return clock.FrameTicks() * 6 / 10; }

// The drift is the distance between the stamp and the play time of the frames sent so far.
// The list keeps only growing drift of one sign; a drift that shrinks overwrites the entry where
// it was first exceeded, so that the list stays a staircase away from 0.
void TGapTracker::AddStamp(int64_t stamp, int64_t framesSent, const TFrameClock& clock) {
  if (!clock.IsSet()) return;
  if (!timeBaseSet) {
    timeBaseSet = true;
    timeBase = stamp - clock.TicksOf(framesSent);
  }
  int64_t time = stamp - timeBase;
  int64_t drift = time - clock.TicksOf(framesSent);
  int64_t last = gaps.empty() ? 0 : gaps.back().drift;
  if (drift == 0 || Sign(drift) != Sign(last)) {
    last = 0;
    gaps.clear();
  }
  if (Magnitude(drift - last) < kSmallDrift) drift = last;
  if (drift == last) return;
  if ((drift > 0 && drift > last) || (drift < 0 && drift < last)) {
    if (gaps.size() == gaps.capacity()) gaps.reserve(gaps.empty() ? 16 : gaps.size() * 2);
    gaps.push_back({time, drift});
    return;
  }
  for (size_t i = gaps.size(); i-- > 0;) {
    bool farEnough = Magnitude(gaps[i].drift) >= Magnitude(drift);
    bool beforeNearer = i == 0 || Magnitude(gaps[i - 1].drift) < Magnitude(drift);
    if (farEnough && beforeNearer) {
      gaps[i].drift = drift;
      gaps.resize(i + 1);
      return;
    }
  }
}

std::vector<TGapEntry> TGapTracker::ReportedEntries(int64_t framesChecked,
                                                    const TFrameClock& clock, int64_t minGap,
                                                    int64_t minOverlap) const {
  int64_t total = clock.TicksOf(framesChecked);
  for (size_t i = gaps.size(); i-- > 0;) {
    if (total - gaps[i].time > kIgnoredTail) {
      if (gaps[i].drift >= minGap || gaps[i].drift <= -minOverlap)
        return std::vector<TGapEntry>(gaps.begin(), gaps.begin() + long(i) + 1);
      return {};
    }
  }
  return {};
}

bool TGapTracker::Finish(IUpStream& logger, const std::string& fileName, int64_t framesChecked,
                         const TFrameClock& clock, int64_t minGap, int64_t minOverlap,
                         int32_t delayMs) {
  // The gap file of a "%check%" destination is written as little as the destination itself:
  // the steps are only reported.
  std::string prefix = fileName.substr(0, 7);
  for (char& c : prefix) c = char(std::tolower(uint8_t(c)));
  const bool write = prefix != "%check%";
  std::error_code error;
  if (write) std::filesystem::remove(fileName, error);
  std::vector<TGapEntry> list = ReportedEntries(framesChecked, clock, minGap, minOverlap);
  if (list.empty()) return true;
  std::ofstream file;
  if (write) file.open(fileName, std::ios::binary | std::ios::trunc);
  if (write && !file) {
    logger.Log(2, "Creating the audio gap description file failed.");
    return false;
  }
  int64_t previous = 0;
  for (TGapEntry& entry : list) {
    entry.time += int64_t(delayMs) * kTicksPerMs;
    int64_t step = entry.drift - previous;
    previous = entry.drift;
    std::string at = PlaytimeText((entry.time + 5000) / kTicksPerMs);
    if (step > 0)
      logger.Log(1, "Audio has a gap of " + std::to_string((step + 5000) / kTicksPerMs) +
                        "ms at playtime " + at + ".");
    else
      logger.Log(1, "Audio overlaps for " + std::to_string((5000 - step) / kTicksPerMs) +
                        "ms at playtime " + at + ".");
  }
  if (!write) return true;
  logger.Log(1, "The audio file was demuxed without making use of the gap/overlap information.");
  logger.Log(1, "Please rerun the same sonvex command line. That will correct the gaps/overlaps.");
  std::string blob = GapBlobFromEntries(list);
  logger.SetGapData(blob);
  file.write(blob.data(), std::streamsize(blob.size()));
  file.close();
  if (!file) {
    logger.Log(2, "Writing to the audio gap description file failed.");
    return false;
  }
  return true;
}

bool LoadGapDescription(IUpStream& logger, const std::string& fileName,
                        const std::string& outputName, std::string& fileContent) {
  fileContent.clear();
  std::string extension = std::filesystem::path(outputName).extension().string();
  for (char& c : extension) c = char(std::tolower(uint8_t(c)));
  if (extension == ".thd" || extension == ".truehd" || extension == ".mlp") {
    logger.Log(0, "Audio gap description file detected, can't be used for TrueHD/MLP, though.");
    return true;
  }
  logger.Log(0, "Audio gap description file detected, will be used for processing...");
  std::ifstream file(fileName, std::ios::binary);
  if (!file) {
    logger.Log(2, "Opening audio gap description file failed.");
    return false;
  }
  std::string content((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
  if (content.empty() || file.bad()) {
    logger.Log(2, "Audio gap description file seems to be invalid.");
    return false;
  }
  fileContent = content;
  return true;
}

std::string GapDataForRealizer(const std::string& fileContent) {
  if (fileContent.empty()) return {};
  return std::string(kRecordSize, '\0') + fileContent;
}

}  // namespace sonvex
