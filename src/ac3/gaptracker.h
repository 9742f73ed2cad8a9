// Gaps and overlaps in the time stamps of a compressed audio track, and the ".gaps" description
// file that carries them from one run to the next. Every reader of compressed audio (AC3, DTS,
// TrueHD, MP2, PCM) feeds a TGapTracker with the container's stamps; at the end of the stream it
// reports what it found and writes the file. At chain building, LoadGapDescription reads the file
// back for the gap realizers.
//
// The ".gaps" file: a headerless array of TGapEntry, 16 bytes each, little-endian: `time`
// (signed 64-bit ticks of 100 ns, play position with the track's delay added) and `drift`
// (signed 64-bit ticks, cumulated; positive = more time passed than frames = a gap).
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "framework/details.h"

namespace sonvex {

class IUpStream;

constexpr int64_t kTicksPerMs = 10000;

// The duration of one frame as the exact fraction `numerator` / `denominator` ticks, so that the
// play time of n frames is n x numerator / denominator (multiplied first, divided last).
// AC-3: numerator 10000 x frameSize x 8000, denominator bitrate.
struct TFrameClock {
  int64_t numerator = 0;
  int64_t denominator = 0;

  bool IsSet() const { return numerator > 0 && denominator > 0; }
  int64_t TicksOf(int64_t frames) const;
  int64_t FrameTicks() const { return TicksOf(1); }
};

// The records as bytes, and back. A tail shorter than 16 bytes is ignored.
std::string GapBlobFromEntries(const std::vector<TGapEntry>& entries);
std::vector<TGapEntry> GapEntriesFromBlob(const std::string& blob);

// The records a realizer works from. A damaged or foreign ".gaps" file must not make a stage loop
// for ever or overflow: times are kept within about three years, and one realized step within
// ten minutes of play time (kGapStepLimit, in ticks).
std::vector<TGapEntry> BoundedGapEntries(const std::string& blob);
constexpr int64_t kGapStepLimit = int64_t(10) * 60 * 1000 * 10000;

class TGapTracker {
public:
  // Gap data already given to the reader switches tracking off: the file is being consumed.
  TGapTracker() = default;

  // Called for the frame that starts at or after a block stamped `stamp` (ticks), with the count
  // of frames sent before it.
  void AddStamp(int64_t stamp, int64_t framesSent, const TFrameClock& clock);

  const std::vector<TGapEntry>& Entries() const { return gaps; }

  // End of the stream. Deletes an old file of that name, then, if a discontinuity older than the
  // last 30 seconds of the stream has a drift of at least `minGap` (or at most -`minOverlap`),
  // logs every step through `logger`, hands the records to its SetGapData and writes the file.
  // `framesChecked` x clock gives the stream's length; `delayMs` is added to every time.
  // A `fileName` beginning with "%check%" (a check run) reports the steps and writes nothing.
  // Returns false only when the file could not be written.
  bool Finish(IUpStream& logger, const std::string& fileName, int64_t framesChecked,
              const TFrameClock& clock, int64_t minGap, int64_t minOverlap, int32_t delayMs);

  // The list that Finish would report, without touching any file (for tests and the DTS/MP2
  // readers' own reports).
  std::vector<TGapEntry> ReportedEntries(int64_t framesChecked, const TFrameClock& clock,
                                         int64_t minGap, int64_t minOverlap) const;

private:
  bool timeBaseSet = false;
  int64_t timeBase = 0;
  std::vector<TGapEntry> gaps;
};

// The AC-3 thresholds: a discontinuity counts from 6/10 of a frame on.
int64_t DefaultMinGap(const TFrameClock& clock);

// Reads a ".gaps" file at chain building for a track whose file exists. `outputName` decides
// whether the data can be used (not for TrueHD/MLP outputs: then `fileContent` stays empty and
// the result is true). Messages go through `logger`; false ends the chain building.
bool LoadGapDescription(IUpStream& logger, const std::string& fileName,
                        const std::string& outputName, std::string& fileContent);

// What the gap realizers get: the file's records behind one record of 16 zero bytes, which
// starts their walk at frame 0. Empty content stays empty.
std::string GapDataForRealizer(const std::string& fileContent);

}  // namespace sonvex
