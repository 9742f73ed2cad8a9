// Fuzzes TVc1Muxer fed by TVc1Reader: the input is the stream; its last byte chooses the
// piece size of the Writes, and the byte before it switches on time stamps.
#include <cstddef>
#include <cstdint>

#include "framework/smallstages.h"
#include "video/vc1muxer.h"
#include "video/vc1reader.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  using namespace sonvex;
  if (size < 2) return 0;
  size_t piece = size_t(data[size - 1]) * 37 + 1;
  uint8_t options = data[size - 2];
  size -= 2;
  auto reader = TVc1Reader::Create();
  reader->AppendUpStream(TVc1Muxer::Create());
  reader->AppendUpStream(TFileSimulator::Create());
  reader->SetSilent(true);
  bool ok = reader->InitAudio("?", 1, 8, 48000, false, int64_t(size));
  int64_t stamp = 0;
  for (size_t at = 0; ok && at < size; at += piece) {
    size_t n = piece < size - at ? piece : size - at;
    stamp += int64_t(data[at]) * 4000;
    ok = reader->Write(0, false, data + at, uint32_t(n), (options & 2) ? stamp : -1, false);
  }
  if (ok) reader->Finish();
  return 0;
}
