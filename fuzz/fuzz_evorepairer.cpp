// Fuzzes TEvoRepairer. The last two bytes are the piece size of the pushes.
#include <algorithm>
#include <cstddef>
#include <cstdint>

#include "evo/evorepairer.h"
#include "framework/console.h"
#include "framework/smallstages.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  using namespace sonvex;
  static bool quiet = [] {
    SetLogHook([](int, const std::string&) {});
    return true;
  }();
  (void)quiet;
  if (size < 2) return 0;
  size_t piece = (size_t(data[size - 2]) << 8 | data[size - 1]) + 1;
  size -= 2;
  auto repairer = TEvoRepairer::Create();
  repairer->SetUpStream(TFileSimulator::Create());
  bool ok = repairer->InitContainer("?", int64_t(size), 0);
  for (size_t at = 0; ok && at < size; at += piece)
    ok = repairer->Write(0, false, data + at, uint32_t(std::min(piece, size - at)), -1, false);
  if (ok) repairer->Finish();
  return 0;
}
