// Fuzzes TDtsReader, with the DTS edit stages behind it. The last two bytes of the input choose
// the piece size of the pushes and the reader's options, so that split frames are fuzzed too.
#include <cstddef>
#include <cstdint>

#include "dts/dtsbitdepthpatcher.h"
#include "dts/dtscoreextractor.h"
#include "dts/dtsdelayer.h"
#include "dts/dtsdialnormremover.h"
#include "dts/dtsreader.h"
#include "dts/dtsrepairer.h"
#include "framework/smallstages.h"

using namespace sonvex;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 2) return 0;
  const uint32_t piece = uint32_t(data[size - 2]) * 37 + 1;
  const uint8_t options = data[size - 1];
  size -= 2;
  auto reader = TDtsReader::Create("", "", options & 1, false, options & 2);
  reader->SetSilent(true);
  if (options & 4) reader->AppendUpStream(TDtsCoreExtractor::Create());
  if (options & 8) {
    reader->AppendUpStream(TDtsRepairer::Create());
    reader->AppendUpStream(TDtsDialnormRemover::Create());
  }
  if (options & 16) reader->AppendUpStream(TDtsBitdepthPatcher::Create());
  if (options & 32) {
    auto delayer = TDtsDelayer::Create();
    reader->AppendUpStream(delayer);
    delayer->SetDelay(0, (options & 64) ? 35 : -35);
  }
  reader->AppendUpStream(TFileSimulator::Create());
  bool ok = reader->InitAudio("?", 1, 8, 48000, false, int64_t(size));
  for (size_t at = 0; ok && at < size; at += piece) {
    uint32_t n = uint32_t(size - at < piece ? size - at : piece);
    ok = reader->Write(0, false, data + at, n, (options & 128) ? int64_t(at) * 100 : -1, false);
  }
  if (ok) reader->Finish();
  return 0;
}
