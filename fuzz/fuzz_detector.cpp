// Fuzzes the format detector over a whole input: every candidate reader of the fixed list sees
// the blocks as the analysis pass hands them out, and the details of the winner are described.
// The first byte picks the block size and the EVO and TS options.
#include <cstddef>
#include <cstdint>

#include "files/formatdetector.h"
#include "framework/console.h"

using namespace sonvex;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static bool quiet = [] {
    SetLogHook([](int, const std::string&) {});
    return true;
  }();
  (void)quiet;
  if (size < 1) return 0;
  const uint8_t mode = data[0];
  const size_t piece = (mode & 0x80) ? 16384 : size_t(mode & 0x7c) * 97 + 1;
  data++;
  size--;
  auto detector = TFormatDetector::Create(mode & 1, mode & 2);
  bool ok = detector->InitContainer("?", int64_t(size), 0);
  for (size_t at = 0; ok && at < size; at += piece) {
    size_t n = size - at < piece ? size - at : piece;
    ok = detector->Write(0, false, data + at, uint32_t(n), -1, false);
  }
  detector->Finish();
  if (auto audio = detector->AudioDetails()) audio->Description();
  if (auto video = detector->VideoDetails()) video->Description();
  if (auto container = detector->ContainerDetails()) container->Description();
  return 0;
}
