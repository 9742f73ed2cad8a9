// RIPEMD-160, the hash that stirs the pool of the dither noise generator.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

namespace sonvex {

std::array<uint8_t, 20> Ripemd160(const uint8_t* data, size_t size);

}  // namespace sonvex
