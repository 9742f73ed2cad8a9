// Fuzzes TEvoPcmReader. The first byte is control: bit 0 picks the HD DVD header form, the rest
// of it the block size (times 7, plus 1); the data goes in blocks of that size, each carrying its
// own header, as packets do.
#include <algorithm>
#include <cstddef>
#include <cstdint>

#include "evo/evopcmreader.h"
#include "framework/console.h"
#include "framework/smallstages.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  using namespace sonvex;
  static bool quiet = [] {
    SetLogHook([](int, const std::string&) {});
    return true;
  }();
  (void)quiet;
  if (size < 1) return 0;
  bool evo = data[0] & 1;
  size_t piece = size_t(data[0] >> 1) * 7 + 1;
  data++;
  size--;
  auto reader = TEvoPcmReader::Create();
  reader->SetUpStream(TFileSimulator::Create());
  bool ok = reader->InitAudio(evo ? "evo/pcm" : "vob/pcm", 0, 0, 0, false, 0);
  for (size_t at = 0; ok && at < size; at += piece)
    ok = reader->Write(0, false, data + at, uint32_t(std::min(piece, size - at)),
                       at == 0 ? -1 : int64_t(at), false);
  if (ok) reader->Finish();
  reader->InitialDelay();
  return 0;
}
