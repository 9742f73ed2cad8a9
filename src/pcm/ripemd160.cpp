// RIPEMD-160 (Dobbertin, Bosselaers, Preneel 1996): two parallel lines of five rounds over
// 512-bit blocks, little-endian words, padding as MD4.
// The noise table takes a million hashes: keep this file optimised even in debug builds.
#if defined(__GNUC__) && !defined(__clang__)
#pragma GCC optimize("O2")
#endif
#include "pcm/ripemd160.h"

#include <cstring>
#include <vector>

namespace sonvex {
namespace {

// Message word order of each round, left and right line.
constexpr uint8_t kWordLeft[80] = {
    0, 1, 2,  3,  4,  5,  6,  7,  8, 9, 10, 11, 12, 13, 14, 15, 7,  4,  13, 1,
    10, 6, 15, 3,  12, 0,  9,  5,  2, 14, 11, 8,  3,  10, 14, 4,  9,  15, 8,  1,
    2, 7, 0,  6,  13, 11, 5,  12, 1, 9, 11, 10, 0,  8,  12, 4,  13, 3,  7,  15,
    14, 5, 6, 2,  4,  0,  5,  9,  7, 12, 2, 10, 14, 1,  3,  8,  11, 6,  15, 13};
constexpr uint8_t kWordRight[80] = {
    5,  14, 7,  0, 9, 2,  11, 4,  13, 6,  15, 8,  1,  10, 3,  12, 6,  11, 3,  7,
    0,  13, 5,  10, 14, 15, 8, 12, 4,  9,  1,  2,  15, 5,  1,  3,  7,  14, 6,  9,
    11, 8,  12, 2, 10, 0,  4,  13, 8,  6,  4,  1,  3,  11, 15, 0,  5,  12, 2,  13,
    9,  7,  10, 14, 12, 15, 10, 4, 1,  5,  8,  7,  6,  2,  13, 14, 0,  3,  9,  11};
// Rotation amounts, left and right line.
constexpr uint8_t kShiftLeft[80] = {
    11, 14, 15, 12, 5,  8,  7,  9,  11, 13, 14, 15, 6,  7,  9,  8,  7,  6,  8,  13,
    11, 9,  7,  15, 7,  12, 15, 9,  11, 7,  13, 12, 11, 13, 6,  7,  14, 9,  13, 15,
    14, 8,  13, 6,  5,  12, 7,  5,  11, 12, 14, 15, 14, 15, 9,  8,  9,  14, 5,  6,
    8,  6,  5,  12, 9,  15, 5,  11, 6,  8,  13, 12, 5,  12, 13, 14, 11, 8,  5,  6};
constexpr uint8_t kShiftRight[80] = {
    8,  9,  9,  11, 13, 15, 15, 5,  7,  7,  8,  11, 14, 14, 12, 6,  9,  13, 15, 7,
    12, 8,  9,  11, 7,  7,  12, 7,  6,  15, 13, 11, 9,  7,  15, 11, 8,  6,  6,  14,
    12, 13, 5,  14, 13, 13, 7,  5,  15, 5,  8,  11, 14, 14, 6,  14, 6,  9,  12, 9,
    12, 5,  15, 8,  8,  5,  12, 9,  12, 5,  14, 6,  8,  13, 6,  5,  15, 13, 11, 11};
constexpr uint32_t kConstLeft[5] = {0x00000000, 0x5A827999, 0x6ED9EBA1, 0x8F1BBCDC, 0xA953FD4E};
constexpr uint32_t kConstRight[5] = {0x50A28BE6, 0x5C4DD124, 0x6D703EF3, 0x7A6D76E9, 0x00000000};

inline uint32_t Rol(uint32_t x, int n) { return (x << n) | (x >> (32 - n)); }

inline uint32_t F(int j, uint32_t x, uint32_t y, uint32_t z) {
  switch (j / 16) {
    case 0: return x ^ y ^ z;
    case 1: return (x & y) | (~x & z);
    case 2: return (x | ~y) ^ z;
    case 3: return (x & z) | (y & ~z);
    default: return x ^ (y | ~z);
  }
}

void Compress(uint32_t h[5], const uint8_t* block) {
  uint32_t x[16];
  for (int i = 0; i < 16; i++)
    x[i] = uint32_t(block[4 * i]) | uint32_t(block[4 * i + 1]) << 8 |
           uint32_t(block[4 * i + 2]) << 16 | uint32_t(block[4 * i + 3]) << 24;
  uint32_t al = h[0], bl = h[1], cl = h[2], dl = h[3], el = h[4];
  uint32_t ar = h[0], br = h[1], cr = h[2], dr = h[3], er = h[4];
  for (int j = 0; j < 80; j++) {
    uint32_t t = Rol(al + F(j, bl, cl, dl) + x[kWordLeft[j]] + kConstLeft[j / 16], kShiftLeft[j]) + el;
    al = el; el = dl; dl = Rol(cl, 10); cl = bl; bl = t;
    t = Rol(ar + F(79 - j, br, cr, dr) + x[kWordRight[j]] + kConstRight[j / 16], kShiftRight[j]) + er;
    ar = er; er = dr; dr = Rol(cr, 10); cr = br; br = t;
  }
  uint32_t t = h[1] + cl + dr;
  h[1] = h[2] + dl + er;
  h[2] = h[3] + el + ar;
  h[3] = h[4] + al + br;
  h[4] = h[0] + bl + cr;
  h[0] = t;
}

}  // namespace

std::array<uint8_t, 20> Ripemd160(const uint8_t* data, size_t size) {
  uint32_t h[5] = {0x67452301, 0xEFCDAB89, 0x98BADCFE, 0x10325476, 0xC3D2E1F0};
  size_t whole = size / 64 * 64;
  for (size_t i = 0; i < whole; i += 64) Compress(h, data + i);
  uint8_t tail[128] = {};
  size_t rest = size - whole;
  if (rest) std::memcpy(tail, data + whole, rest);
  tail[rest] = 0x80;
  size_t tailSize = rest < 56 ? 64 : 128;
  uint64_t bits = uint64_t(size) * 8;
  for (int i = 0; i < 8; i++) tail[tailSize - 8 + i] = uint8_t(bits >> (8 * i));
  for (size_t i = 0; i < tailSize; i += 64) Compress(h, tail + i);
  std::array<uint8_t, 20> digest;
  for (int i = 0; i < 5; i++)
    for (int k = 0; k < 4; k++) digest[4 * i + k] = uint8_t(h[i] >> (8 * k));
  return digest;
}

}  // namespace sonvex
