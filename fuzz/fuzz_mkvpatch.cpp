// Fuzzes the EBML walk of the Matroska frame-rate patch on a file head held in memory.
#include <cstddef>
#include <cstdint>
#include <string>

#include "mux/mkvframerate.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  std::string head(reinterpret_cast<const char*>(data), size);
  sonvex::PatchMkvHead(head, 41708333);
  if (head.size() != size) __builtin_trap();
  return 0;
}
