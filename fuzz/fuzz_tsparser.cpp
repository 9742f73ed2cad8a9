// Fuzzes TTsParser: the input is the stream; its last three bytes pick the mode and the piece size
// of the pushes.
#include <cstddef>
#include <cstdint>

#include "framework/console.h"
#include "framework/smallstages.h"
#include "ts/tsparser.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  using namespace sonvex;
  static bool quiet = [] {
    SetLogHook([](int, const std::string&) {});
    return true;
  }();
  (void)quiet;
  if (size < 3) return 0;
  size_t piece = (size_t(data[size - 2]) << 8 | data[size - 1]) + 1;
  uint8_t mode = data[size - 3];
  size -= 3;
  auto parser = TTsParser::Create(mode & 1, false);
  parser->SetUpStream(TFileSimulator::Create());
  bool ok = parser->InitContainer((mode & 2) ? "m2ts" : "?", int64_t(size), 0);
  for (size_t at = 0; ok && at < size; at += piece)
    ok = parser->Write(0, false, data + at, uint32_t(std::min(piece, size - at)), -1, false);
  if (ok) parser->Finish();
  parser->ContainerDetails()->Description();
  return 0;
}
