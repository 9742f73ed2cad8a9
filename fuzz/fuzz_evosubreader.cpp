// Fuzzes TEvoSubReader. The last byte is the piece size of the pushes; each piece has a time
// stamp of its own.
#include <algorithm>
#include <cstddef>
#include <cstdint>

#include "evo/evosubreader.h"
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
  size_t piece = size_t(data[size - 1]) + 1;
  size--;
  auto reader = TEvoSubReader::Create();
  reader->SetUpStream(TFileSimulator::Create());
  reader->SetDelay(1, 40);
  bool ok = reader->InitSubtitle("evo/sub");
  for (size_t at = 0; ok && at < size; at += piece)
    ok = reader->Write(0, false, data + at, uint32_t(std::min(piece, size - at)),
                       int64_t(at) * 1000, false);
  if (ok) reader->Finish();
  return 0;
}
