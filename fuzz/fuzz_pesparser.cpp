// Fuzzes TPesParser on program stream style data; the last three bytes pick the mode (raw time
// stamps, flushing pushes) and the piece size.
#include <cstddef>
#include <cstdint>

#include "framework/console.h"
#include "framework/smallstages.h"
#include "ts/pesparser.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  using namespace sonvex;
  static bool quiet = [] {
    SetLogHook([](int, const std::string&) {});
    return true;
  }();
  (void)quiet;
  if (size < 3) return 0;
  size_t piece = (size_t(data[size - 2]) << 8 | data[size - 1]) + 1;
  bool raw = data[size - 3] & 1, flush = data[size - 3] & 2;
  size -= 3;
  auto parser = TPesParser::Create(raw);
  parser->SetUpStream(TFileSimulator::Create());
  parser->InitAudio("ac3", 0, 0, 0, false, 0);
  bool ok = true;
  for (size_t at = 0; ok && at < size; at += piece)
    ok = parser->Write(0, false, data + at, uint32_t(std::min(piece, size - at)), -1, flush);
  if (ok) parser->Finish();
  return 0;
}
