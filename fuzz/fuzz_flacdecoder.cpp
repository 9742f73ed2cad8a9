// Fuzzes TFlacDecoder with its worker thread. The last byte of the input chooses the piece size.
#include <cstddef>
#include <cstdint>

#include "codecs/flacdecoder.h"
#include "framework/smallstages.h"

using namespace sonvex;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 1) return 0;
  size_t piece = size_t(data[size - 1]) * 13 + 1;
  size--;
  auto decoder = TFlacDecoder::Create();
  decoder->SetUpStream(TFileSimulator::Create());
  decoder->SetSilent(true);
  bool ok = decoder->InitAudio("?", 1, 8, 0, false, int64_t(size));
  for (size_t at = 0; ok && at < size; at += piece)
    ok = decoder->Write(0, false, data + at, uint32_t(std::min(piece, size - at)), -1, false);
  if (ok) decoder->Finish();
  return 0;
}
