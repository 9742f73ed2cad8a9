// Fuzzes TAc3Reader with the stream edits behind it (dialnorm remover, core extractor for E-AC3,
// delayer, gap realizer) and the bitstream helpers on their own. The last two bytes of the input
// give the piece size, so that split pushes are fuzzed too; the third from last picks stamps,
// exactStart and a delay.
#include <cstddef>
#include <cstdint>

#include "ac3/ac3bitstream.h"
#include "ac3/ac3delayer.h"
#include "ac3/ac3dialnormremover.h"
#include "ac3/ac3gaprealizer.h"
#include "ac3/ac3reader.h"
#include "ac3/eac3coreextractor.h"
#include "ac3/gaptracker.h"
#include "framework/console.h"
#include "framework/smallstages.h"

using namespace sonvex;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static bool quiet = [] {
    SetLogHook([](int, const std::string&) {});
    return true;
  }();
  (void)quiet;
  if (size < 3) return 0;
  size_t piece = size_t(data[size - 1]) << 8 | data[size - 2];
  uint8_t mode = data[size - 3];
  size -= 3;
  if (piece == 0) piece = size ? size : 1;

  TAc3FrameInfo frame;
  TEac3UnitInfo unit;
  ParseAc3Frame(data, uint32_t(size), frame);
  ParseEac3Frame(data, uint32_t(size), frame);
  ParseEac3Unit(data, uint32_t(size), uint32_t(piece), unit);

  // Up to four gap records made from the front of the input, within a few minutes (wild values
  // are clamped by the stage and only cost time here).
  std::vector<TGapEntry> entries = {{0, 0}};
  for (size_t i = 0; (mode & 8) && i + 4 <= size && i < 16; i += 4) {
    int16_t time = int16_t(data[i] | data[i + 1] << 8), drift = int16_t(data[i + 2] | data[i + 3] << 8);
    entries.push_back({int64_t(time) * 100000, int64_t(drift) * 1000});
  }
  std::string gapData = GapBlobFromEntries(entries);

  auto reader = TAc3Reader::Create("", "", (mode & 1) != 0);
  reader->AppendUpStream(TAc3DialnormRemover::Create());
  if (mode & 8) reader->AppendUpStream(TAc3GapRealizer::Create(gapData));
  reader->AppendUpStream(TAc3Delayer::Create());
  reader->AppendUpStream(TFileSimulator::Create());
  if (mode & 4) reader->SetDelay(0, (mode & 16) ? -100 : 100);
  bool ok = reader->InitAudio("?", 1, 8, 48000, false, int64_t(size));
  int64_t stamp = 0;
  for (size_t at = 0; ok && at < size; at += piece) {
    size_t n = std::min(piece, size - at);
    int64_t position = (mode & 2) ? (stamp += 300000 + int64_t(data[at]) * 1000) : -1;
    ok = reader->Write(0, false, data + at, uint32_t(n), position, false);
  }
  if (ok) reader->Finish();

  // E-AC3 core extraction sees whatever units the reader hands out.
  auto eac3 = TAc3Reader::Create("", "", false);
  eac3->AppendUpStream(TEac3CoreExtractor::Create());
  eac3->AppendUpStream(TFileSimulator::Create());
  ok = eac3->InitAudio("eac3", 1, 8, 48000, false, 0);
  for (size_t at = 0; ok && at < size; at += piece)
    ok = eac3->Write(0, false, data + at, uint32_t(std::min(piece, size - at)), -1, false);
  if (ok) eac3->Finish();
  return 0;
}
