// Fuzzes the format detector over a whole input: every candidate reader of the fixed list sees
// the blocks as the analysis pass hands them out (announced as the source stage announces them),
// the look past leading junk, and the details of the winner described. The first byte picks the
// block size, the EVO and TS options and the container the source's probe would have named.
#include <cstddef>
#include <cstdint>
#include <string>

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
  const size_t piece = (mode & 0x80) ? 16384 : size_t(mode & 0x1c) * 97 + 1;
  data++;
  size--;
  auto detector = TFormatDetector::Create(mode & 1, mode & 2);
  static const char* const kTags[] = {"?", "m2ts", "evo", "?"};
  const std::string tag = kTags[(mode >> 5) & 3];
  bool ok = detector->InitContainer(tag, int64_t(size), 0);
  if (tag == "?") ok = detector->InitAudio("?", 1, 8, 48000, false, int64_t(size)) && ok;
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
