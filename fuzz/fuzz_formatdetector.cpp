// Fuzzes format detection as a whole: every candidate reader on the same blocks, and the look
// past leading junk that starts the candidates afresh behind it. The last byte of the input
// chooses the piece size of the pushes.
#include <cstddef>
#include <cstdint>

#include "files/formatdetector.h"

using namespace sonvex;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 1) return 0;
  const uint32_t piece = uint32_t(data[size - 1]) * 61 + 1;
  size -= 1;
  auto detector = TFormatDetector::Create(false, false);
  detector->SetSilent(true);
  detector->InitContainer("?", int64_t(size), int64_t(size));
  detector->InitAudio("?", 1, 8, 48000, false, int64_t(size));
  for (size_t at = 0; at < size; at += piece) {
    uint32_t n = uint32_t(size - at < piece ? size - at : piece);
    if (!detector->Write(0, false, data + at, n, -1, false)) break;
  }
  detector->Finish();
  detector->AudioDetails();
  detector->ContainerDetails();
  return 0;
}
