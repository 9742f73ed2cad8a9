// Time stamps and gap tables shared by the video readers. A reader counts frames (or half
// frames) and gives every unit a time computed from that count; the time stamps that come with
// the data only serve to find holes and overlaps in the source. These are kept as records of
// (frame number, frame correction), written to a ".gaps" file and replayed from one in a later
// pass, so that every frame gets the time it had in the source.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace sonvex {

class TUpStream;

// One record of a video gap table: from `frame` on, the frame count is off by `correction`.
struct TVideoGapRecord {
  int64_t frame;
  int64_t correction;
};

// "0:01:02": milliseconds rounded to seconds; hours without leading zero.
std::string VideoPlaytimeText(int64_t milliseconds);

// Rounds numerator / denominator to the nearest integer, halves away from zero; denominator > 0.
int64_t RoundedDivision(int64_t numerator, int64_t denominator);

// Reduces a ratio by trying all divisors downward from `start` to 2.
void ReduceRatio(uint32_t& x, uint32_t& y, uint32_t start);

class TVideoTiming {
public:
  // `gapFile` empty: no gaps are collected. `gapData` (a multiple of 16 bytes) given: replay.
  TVideoTiming(const std::string& gapFile, const std::string& gapData, bool ignoreGaps);

  // Time stamps that came with the data, at an absolute byte offset of the stream.
  void AddStamp(int64_t offset, int64_t position);
  // The stamp due for a unit beginning at `unitOffset`: the latest stamp at or before it.
  // Returns false if none is due; a stamp is handed out once.
  bool TakeStamp(int64_t unitOffset, int64_t& position);
  // Drops stamps that lie before `offset`, except the last of them (it may still be due).
  void DropStampsBefore(int64_t offset);

  bool Collecting() const { return collect; }
  bool Replaying() const { return !collect && !table.empty(); }

  // One counted unit (frame or half frame) `count` has a time stamp `t`; `unitTicks` is the
  // length of one unit in 100 ns ticks as a fraction tickNum / tickDen.
  void Observe(int64_t count, int64_t t, int64_t tickNum, int64_t tickDen);
  // In replay: moves to the record that applies to unit `count`.
  void Advance(int64_t count);
  // The correction in units for the current position of the replay; 0 when collecting.
  int64_t Correction() const;

  // At the end of the stream: trims the table (records in the last `tail` units are ignored;
  // nothing is reported when the last record left lies within +-`quiet`), reports each record
  // through `stage` at level 1, and writes the gap file. `unitMs` gives the playtime of a unit
  // as unitMsNum / unitMsDen milliseconds. Returns false if the file could not be written.
  bool Report(TUpStream& stage, int64_t count, int64_t tail, int64_t quiet, int64_t unitMsNum,
              int64_t unitMsDen, int64_t unitsPerFrame);

  const std::vector<TVideoGapRecord>& Table() const { return table; }

private:
  struct Stamp {
    int64_t offset;
    int64_t position;
  };
  std::string gapFile;
  bool collect = false;
  std::vector<Stamp> stamps;
  int64_t lastPosition = -1;
  bool haveBase = false;
  int64_t base = 0;
  std::vector<TVideoGapRecord> table;
  size_t index = 0;
  bool indexValid = false;
};

}  // namespace sonvex

namespace sonvex {

// Position of the next 00 00 01 at or after `from` whose three bytes lie before `end`, or -1.
inline int64_t FindStartCode(const uint8_t* data, uint32_t from, uint32_t end) {
  for (uint32_t i = from; i + 2 < end; i++) {
    if (data[i + 2] > 1) {
      i += 2;  // no start code can begin at i, i + 1 or i + 2
      continue;
    }
    if (data[i] == 0 && data[i + 1] == 0 && data[i + 2] == 1) return i;
  }
  return -1;
}

}  // namespace sonvex
