// Time stamps and gap tables shared by the video readers.
#include "video/videotiming.h"

#include <cstdio>
#include <cstdlib>

#include "framework/bitreader.h"
#include "framework/upstream.h"

namespace sonvex {

std::string VideoPlaytimeText(int64_t milliseconds) {
  if (milliseconds < 0) milliseconds = 0;
  int64_t seconds = (milliseconds + 500) / 1000;
  char text[48];
  std::snprintf(text, sizeof text, "%lld:%02lld:%02lld", (long long)(seconds / 3600),
                (long long)(seconds / 60 % 60), (long long)(seconds % 60));
  return text;
}

int64_t RoundedDivision(int64_t numerator, int64_t denominator) {
  if (numerator >= 0) return (numerator + denominator / 2) / denominator;
  return -((-numerator + denominator / 2) / denominator);
}

void ReduceRatio(uint32_t& x, uint32_t& y, uint32_t start) {
  for (uint32_t d = start; d >= 2; d--)
    if (x % d == 0 && y % d == 0) {
      x /= d;
      y /= d;
    }
}

TVideoTiming::TVideoTiming(const std::string& gapFileName, const std::string& gapData,
                           bool ignoreGaps)
    : gapFile(gapFileName) {
  collect = !gapFile.empty() && gapData.empty() && !ignoreGaps;
  if (!ignoreGaps)
    for (size_t at = 0; at + 16 <= gapData.size(); at += 16) {
      const auto* p = reinterpret_cast<const uint8_t*>(gapData.data() + at);
      table.push_back({int64_t(Le64(p)), int64_t(Le64(p + 8))});
    }
}

void TVideoTiming::AddStamp(int64_t offset, int64_t position) {
  if (position == -1 || position == lastPosition) return;
  lastPosition = position;
  stamps.push_back({offset, position});
}

bool TVideoTiming::TakeStamp(int64_t unitOffset, int64_t& position) {
  size_t due = 0;
  while (due < stamps.size() && stamps[due].offset <= unitOffset) due++;
  if (due == 0) return false;
  position = stamps[due - 1].position;
  stamps.erase(stamps.begin(), stamps.begin() + long(due));
  return true;
}

void TVideoTiming::DropStampsBefore(int64_t offset) {
  size_t drop = 0;
  while (drop + 1 < stamps.size() && stamps[drop + 1].offset <= offset) drop++;
  if (drop) stamps.erase(stamps.begin(), stamps.begin() + long(drop));
}

void TVideoTiming::Observe(int64_t count, int64_t t, int64_t tickNum, int64_t tickDen) {
  if (!collect || tickNum <= 0 || tickDen <= 0) return;
  if (!haveBase) {
    haveBase = true;
    base = t - count * tickNum / tickDen;
  }
  int64_t d = t - base;
  // Wide product: stamps of a long stream times an odd rate may not fit in 64 bits.
  __int128 scaled = __int128(d) * tickDen;
  __int128 half = tickNum / 2;
  __int128 rounded = scaled >= 0 ? (scaled + half) / tickNum : -((-scaled + half) / tickNum);
  int64_t delta = int64_t(rounded) - count;
  int64_t last = table.empty() ? 0 : table.back().correction;
  if (delta == 0 || (delta < 0) != (last < 0)) {
    table.clear();
    last = 0;
  }
  if (std::llabs(delta) > std::llabs(last)) {
    table.push_back({count, delta});
  } else if (std::llabs(delta) < std::llabs(last)) {
    while (!table.empty() && std::llabs(table.back().correction) > std::llabs(delta))
      table.pop_back();
  }
}

void TVideoTiming::Advance(int64_t count) {
  if (collect) return;
  if (!indexValid) {
    if (table.empty() || table[0].frame > count) return;
    indexValid = true;
    index = 0;
  }
  while (index + 1 < table.size() && table[index + 1].frame <= count) index++;
}

int64_t TVideoTiming::Correction() const {
  if (collect || !indexValid || index >= table.size()) return 0;
  return table[index].correction;
}

bool TVideoTiming::Report(TUpStream& stage, int64_t count, int64_t tail, int64_t quiet,
                          int64_t unitMsNum, int64_t unitMsDen, int64_t unitsPerFrame) {
  if (!collect || table.empty()) return true;
  size_t keep = table.size();
  while (keep > 0 && table[keep - 1].frame >= count - tail) keep--;
  if (keep == 0) return true;
  if (std::llabs(table[keep - 1].correction) <= quiet) {
    if (unitsPerFrame == 1) return true;  // a small drift at the end is no gap at all
    keep--;                               // a small last record is dropped, the rest stays
    if (keep == 0) return true;
  }
  table.resize(keep);
  int64_t before = 0;
  for (const TVideoGapRecord& record : table) {
    int64_t n = record.correction - before;
    before = record.correction;
    int64_t frames = RoundedDivision(n, unitsPerFrame);
    std::string time = VideoPlaytimeText(record.frame * unitMsNum / unitMsDen);
    if (n > 0)
      stage.Log(1, "Video has a gap of " + std::to_string(frames) + " frames at playtime " + time +
                       ".");
    else if (n < 0)
      stage.Log(1, "Video overlaps for " + std::to_string(-frames) + " frames at playtime " +
                       time + ".");
  }
  stage.Log(1, "The MKV file was created without making use of the gap/overlap information.");
  stage.Log(1, "Please check whether audio is in sync. If it is in sync everything is fine.");
  stage.Log(1, "Otherwise you can ask sonvex to repeat the muxing. It will then automatically");
  stage.Log(1, "make use of the detailed gap/overlap information.");
  std::string blob;
  for (const TVideoGapRecord& record : table)
    for (int64_t value : {record.frame, record.correction})
      for (int i = 0; i < 8; i++) blob.push_back(char(uint64_t(value) >> (8 * i)));
  stage.SetGapData(blob);
  FILE* file = std::fopen(gapFile.c_str(), "wb");
  if (!file) {
    stage.Log(2, "Creating the video gap description file failed.");
    return false;
  }
  bool written = std::fwrite(blob.data(), 1, blob.size(), file) == blob.size();
  if (std::fclose(file) != 0) written = false;
  if (!written) {
    stage.Log(2, "Writing to the video gap description file failed.");
    return false;
  }
  return true;
}

}  // namespace sonvex
