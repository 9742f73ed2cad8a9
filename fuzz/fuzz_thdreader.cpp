// libFuzzer target: TThdReader with the TrueHD edit stages behind it, fed in pieces whose sizes
// come from the tail of the input.
#include <cstddef>
#include <cstdint>

#include "framework/smallstages.h"
#include "thd/thdbitstream.h"
#include "thd/thdedits.h"
#include "thd/thdreader.h"

using namespace sonvex;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 3) return 0;
  // Tail: mode bits, then the piece size.
  uint8_t mode = data[size - 1];
  size_t piece = 1 + data[size - 2] * 37u;
  size -= 2;

  if (size >= 32) {
    TMajorSync sync;
    ParseMajorSync(data, uint32_t(size), sync);
    CheckUnitParity(data, uint32_t(size), mode & 15);
  }

  auto reader = TThdReader::Create("", "", mode & 1, mode & 2);
  reader->SetSilent(true);
  if (mode & 4)
    reader->AppendUpStream(TThdAc3Extractor::Create());
  else if (mode & 8)
    reader->AppendUpStream(TThdAc3Remover::Create());
  else
    reader->AppendUpStream(TThdDialnormRemover::Create());
  auto end = TFileSimulator::Create();
  reader->AppendUpStream(end);
  bool ok = reader->InitAudio("?", 1, 8, 48000, false, int64_t(size));
  for (size_t at = 0; ok && at < size; at += piece) {
    size_t n = size - at < piece ? size - at : piece;
    int64_t position = (mode & 16) ? int64_t(at) * 1000 : -1;
    ok = reader->Write(0, false, data + at, uint32_t(n), position, false);
  }
  if (ok) reader->Finish();
  return 0;
}
