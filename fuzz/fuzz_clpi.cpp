// Fuzzes the Blu-ray clip information reader.
#include <cstddef>
#include <cstdint>
#include <vector>

#include "disc/bluray.h"

using namespace sonvex;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  TM2tsStreams streams = ParseClipInfo(std::vector<uint8_t>(data, data + size));
  for (const TM2tsStream& stream : streams)
    if (stream.Kind > 3) __builtin_trap();
  return 0;
}
