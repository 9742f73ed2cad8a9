// Fuzzes the HD DVD title information reader. Short inputs are padded with zeros to three
// sectors, so that the tables are reached; the first bytes are the file's header.
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <vector>

#include "disc/hdvti.h"

using namespace sonvex;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  std::vector<uint8_t> bytes(data, data + size);
  ParseVti(bytes);
  size_t padded = std::max<size_t>(3 * 2048, (size + 2047) / 2048 * 2048);
  bytes.resize(padded, 0);
  std::memcpy(bytes.data(), "ADVANCED-VTS", 12);
  for (const TVti& title : ParseVti(bytes))
    if (title.VideoAttributes.size() > 2) __builtin_trap();
  return 0;
}
