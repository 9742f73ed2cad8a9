// Fuzzes the gap realizers of the AC3, DTS and MP2 families with raw ".gaps" records from the
// input. Layout: one byte picks the family, one byte the number of 16-byte records that follow,
// then the records as a ".gaps" file holds them, then the stream, which goes through the family's
// reader into its realizer the way the audio chain builds it.
#include <cstddef>
#include <cstdint>
#include <string>

#include "ac3/ac3gaprealizer.h"
#include "ac3/ac3reader.h"
#include "ac3/gaptracker.h"
#include "dts/dtsgaprealizer.h"
#include "dts/dtsreader.h"
#include "framework/console.h"
#include "framework/smallstages.h"
#include "mp2/mp2edits.h"
#include "mp2/mp2reader.h"

using namespace sonvex;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static bool quiet = [] {
    SetLogHook([](int, const std::string&) {});
    return true;
  }();
  (void)quiet;
  if (size < 2) return 0;
  const uint8_t family = data[0] % 3;
  size_t records = size_t(data[1]) * 16;
  data += 2;
  size -= 2;
  if (records > size) records = size;
  std::string gapData = GapDataForRealizer(std::string(reinterpret_cast<const char*>(data), records));
  data += records;
  size -= records;

  UpStreamRef reader;
  if (family == 0) {
    reader = TAc3Reader::Create("", "", false);
    reader->AppendUpStream(TAc3GapRealizer::Create(gapData));
  } else if (family == 1) {
    reader = TDtsReader::Create("", "", false, false, false);
    reader->AppendUpStream(TDtsGapRealizer::Create(gapData));
  } else {
    reader = TMp2Reader::Create("", "", false);
    reader->AppendUpStream(TMp2GapRealizer::Create(gapData));
  }
  reader->SetSilent(true);
  reader->AppendUpStream(TFileSimulator::Create());
  bool ok = reader->InitAudio("?", 1, 8, 48000, false, int64_t(size));
  constexpr size_t kPiece = 16384;
  for (size_t at = 0; ok && at < size; at += kPiece) {
    size_t n = size - at < kPiece ? size - at : kPiece;
    ok = reader->Write(0, false, data + at, uint32_t(n), -1, false);
  }
  if (ok) reader->Finish();
  return 0;
}
