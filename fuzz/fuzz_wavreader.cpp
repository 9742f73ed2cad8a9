// Fuzzes TWavReader (and TWavDtsReader behind it for DTS in WAV). The last byte of the input
// chooses the piece size, so split pushes are fuzzed too.
#include <cstddef>
#include <cstdint>

#include "codecs/wavdtsreader.h"
#include "codecs/wavreader.h"
#include "framework/smallstages.h"

using namespace sonvex;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 1) return 0;
  size_t piece = size_t(data[size - 1]) * 7 + 1;
  size--;
  auto reader = TWavReader::Create();
  auto unwrap = TWavDtsReader::Create();
  auto sink = TFileSimulator::Create();
  reader->SetUpStream(unwrap);
  unwrap->SetUpStream(sink);
  reader->SetSilent(true);
  // The PCM path: WAV reader straight into a file.
  auto pcmReader = TWavReader::Create();
  pcmReader->SetUpStream(TFileSimulator::Create());
  pcmReader->SetSilent(true);
  for (IUpStream* stage : {static_cast<IUpStream*>(reader.get()),
                           static_cast<IUpStream*>(pcmReader.get())}) {
    bool ok = stage->InitAudio("?", 1, 8, 0, false, int64_t(size));
    for (size_t at = 0; ok && at < size; at += piece)
      ok = stage->Write(0, false, data + at, uint32_t(std::min(piece, size - at)), -1, false);
    if (ok) stage->Finish();
  }
  return 0;
}
