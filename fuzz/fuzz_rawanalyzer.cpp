// Fuzzes TRawAnalyzer, with and without suggestions. The last byte of the input chooses the
// piece size and the suggestions, so split pushes and every path of the decision are fuzzed.
#include <cstddef>
#include <cstdint>

#include "pcm/rawanalyzer.h"

using namespace sonvex;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 1) return 0;
  const uint8_t control = data[size - 1];
  size_t piece = size_t(control & 0x1F) * 97 + 1;
  size--;
  const uint32_t channels = (control >> 5) & 1 ? 2 : 0;
  const uint32_t bits = (control >> 6) & 1 ? 16 : 0;
  const uint32_t endian = (control >> 7) & 1;
  auto analyzer = TRawAnalyzer::Create(48000, false, endian, bits, channels);
  analyzer->SetSilent(true);
  bool ok = analyzer->InitAudio("?", 1, 8, 0, false, int64_t(size));
  for (size_t at = 0; ok && at < size; at += piece)
    ok = analyzer->Write(0, false, data + at, uint32_t(std::min(piece, size - at)), -1, false);
  analyzer->Finish();
  return 0;
}
