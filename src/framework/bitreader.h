// A small checked MSB-first bit reader for bitstream headers. Reading past the end returns zeros
// and sets a sticky error flag, so a parser reads a whole syntax structure and checks `Failed()`
// once; nothing is ever read outside the buffer.
#pragma once

#include <cassert>
#include <cstddef>
#include <cstdint>

namespace sonvex {

class BitReader {
public:
  BitReader(const uint8_t* data, size_t size) : data_(data), bits_(uint64_t(size) * 8) {}

  // Reads n bits (0..32), most significant first.
  uint32_t Read(int n) {
    assert(n >= 0 && n <= 32);
    uint32_t value = 0;
    for (int i = 0; i < n; i++) value = (value << 1) | ReadBit();
    return value;
  }
  uint64_t Read64(int n) {
    assert(n >= 0 && n <= 64);
    uint64_t value = 0;
    for (int i = 0; i < n; i++) value = (value << 1) | ReadBit();
    return value;
  }
  uint32_t ReadBit() {
    if (pos_ >= bits_) {
      failed_ = true;
      pos_ = bits_ + 1;
      return 0;
    }
    uint32_t bit = (data_[pos_ >> 3] >> (7 - (pos_ & 7))) & 1;
    pos_++;
    return bit;
  }
  bool ReadFlag() { return ReadBit() != 0; }
  void Skip(uint64_t n) {
    if (n > bits_ - (pos_ > bits_ ? bits_ : pos_)) {
      failed_ = true;
      pos_ = bits_ + 1;
    } else {
      pos_ += n;
    }
  }
  // Unsigned Exp-Golomb code (H.264, MPEG); more than 31 leading zeros is an error.
  uint32_t ReadUe() {
    int zeros = 0;
    while (ReadBit() == 0) {
      if (failed_ || ++zeros > 31) {
        failed_ = true;
        return 0;
      }
    }
    return zeros == 0 ? 0 : ((1u << zeros) - 1 + Read(zeros));
  }
  int32_t ReadSe() {
    uint32_t k = ReadUe();
    return (k & 1) ? int32_t((k + 1) / 2) : -int32_t(k / 2);
  }
  void AlignToByte() { Skip((8 - (pos_ & 7)) & 7); }

  uint64_t BitPosition() const { return pos_ > bits_ ? bits_ : pos_; }
  uint64_t BitsLeft() const { return bits_ - BitPosition(); }
  bool Failed() const { return failed_; }

private:
  const uint8_t* data_;
  uint64_t bits_;
  uint64_t pos_ = 0;
  bool failed_ = false;
};

// Big-endian and little-endian loads with the bounds check left to the caller's size test.
inline uint16_t Be16(const uint8_t* p) { return uint16_t(p[0] << 8 | p[1]); }
inline uint32_t Be24(const uint8_t* p) { return uint32_t(p[0]) << 16 | uint32_t(p[1]) << 8 | p[2]; }
inline uint32_t Be32(const uint8_t* p) {
  return uint32_t(p[0]) << 24 | uint32_t(p[1]) << 16 | uint32_t(p[2]) << 8 | p[3];
}
inline uint16_t Le16(const uint8_t* p) { return uint16_t(p[0] | p[1] << 8); }
inline uint32_t Le32(const uint8_t* p) {
  return uint32_t(p[0]) | uint32_t(p[1]) << 8 | uint32_t(p[2]) << 16 | uint32_t(p[3]) << 24;
}
inline uint64_t Le64(const uint8_t* p) { return uint64_t(Le32(p)) | uint64_t(Le32(p + 4)) << 32; }

}  // namespace sonvex
