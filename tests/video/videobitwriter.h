// A small MSB-first bit writer for building synthetic video headers in tests, with Exp-Golomb
// codes for H.264 and the start code and emulation prevention helpers of NAL streams.
#pragma once

#include <cstdint>
#include <vector>

namespace sonvex::test {}
namespace sonvex::videotest {
using namespace ::sonvex::test;

class BitWriter {
public:
  void Put(int n, uint64_t value) {
    for (int i = n - 1; i >= 0; i--) PutBit((value >> i) & 1);
  }
  void PutBit(uint32_t bit) {
    if (used == 0) bytes.push_back(0);
    if (bit) bytes.back() |= uint8_t(0x80 >> used);
    used = (used + 1) & 7;
  }
  void Ue(uint32_t value) {
    uint64_t v = uint64_t(value) + 1;
    int bits = 0;
    while ((v >> bits) > 1) bits++;
    Put(bits, 0);
    Put(bits + 1, v);
  }
  void Se(int32_t value) { Ue(value > 0 ? uint32_t(2 * value - 1) : uint32_t(-2 * value)); }
  // rbsp_trailing_bits
  void Trailing() {
    PutBit(1);
    while (used) PutBit(0);
  }
  void Align() {
    while (used) PutBit(0);
  }
  std::vector<uint8_t> bytes;

private:
  int used = 0;
};

// Inserts 03 wherever two zero bytes are followed by a byte of 0 to 3.
inline std::vector<uint8_t> AddEmulationPrevention(const std::vector<uint8_t>& payload) {
  std::vector<uint8_t> out;
  int zeros = 0;
  for (uint8_t b : payload) {
    if (zeros >= 2 && b <= 3) {
      out.push_back(3);
      zeros = 0;
    }
    out.push_back(b);
    zeros = b == 0 ? zeros + 1 : 0;
  }
  return out;
}

inline void Append(std::vector<uint8_t>& stream, const std::vector<uint8_t>& more) {
  stream.insert(stream.end(), more.begin(), more.end());
}

// 00 00 01, the code byte, then the payload with emulation prevention added.
inline std::vector<uint8_t> StartCodeUnit(uint8_t code, const std::vector<uint8_t>& payload,
                                          bool fourBytes = false) {
  std::vector<uint8_t> unit = fourBytes ? std::vector<uint8_t>{0, 0, 0, 1, code}
                                        : std::vector<uint8_t>{0, 0, 1, code};
  Append(unit, AddEmulationPrevention(payload));
  return unit;
}

}  // namespace sonvex::videotest
