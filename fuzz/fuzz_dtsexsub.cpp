// Fuzzes the DTS-HD extension substream parser and the frame parser around it.
#include <cstddef>
#include <cstdint>
#include <vector>

#include "dts/dtsbitstream.h"

using namespace sonvex;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size > 0x100000) return 0;
  // An exact-size copy, so that a read past the end is seen by the sanitizer.
  std::vector<uint8_t> copy(data, data + size);
  ParseExtensionSubstream(copy.data(), uint32_t(copy.size()), false);
  // The same bytes behind a fixed core header, as the frame parser meets them.
  static const uint8_t kCore[16] = {0x7F, 0xFE, 0x80, 0x01, 0xFC, 0x3C, 0x3E, 0xD2,
                                    0x75, 0xE0, 0x02, 0x38, 0x00, 0x00, 0x00, 0x00};
  std::vector<uint8_t> frame(kCore, kCore + 16);
  frame.resize(1006 + size, 0x55);  // core size 1006
  std::copy(data, data + size, frame.begin() + 1006);
  ParseDtsFrame(frame.data(), uint32_t(frame.size()), false, true);
  return 0;
}
