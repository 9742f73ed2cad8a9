// TBitdepthReducer and its noise table.
//
// Dither: the difference of two consecutive uniform 30-bit values, scaled to one target LSB,
// is triangular (TPDF) noise of +-1 LSB with a first-order high-pass spectrum. Rounding adds half
// an LSB and truncates towards negative infinity; without dither that is round-to-nearest.
#include "pcm/bitdepthreducer.h"

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <memory>
#include <mutex>

#include "framework/console.h"
#include "pcm/ripemd160.h"

namespace sonvex {
namespace {

constexpr uint32_t kNoiseFileSize = kNoiseEntries * 4;

std::mutex noiseLock;
int32_t* noiseTable = nullptr;

// The runtime's linear congruential generator: next = seed * 134775813 + 1, a draw below `range`
// is the upper part of seed * range.
struct TRandom {
  uint32_t seed;
  uint32_t Next(uint32_t range) {
    seed = seed * 134775813u + 1u;
    return uint32_t((uint64_t(seed) * range) >> 32);
  }
};

void GenerateNoise(uint8_t* out) {
  TRandom random{uint32_t(std::chrono::steady_clock::now().time_since_epoch().count()) ^
                 uint32_t(std::chrono::system_clock::now().time_since_epoch().count())};
  uint32_t high = random.Next(65536);
  uint32_t value = (high << 16) | random.Next(65536);
  uint8_t message[4 + 128] = {};
  uint8_t* pool = message + 4;
  for (int i = 0; i < 128; i++) {
    pool[i] ^= uint8_t(value);
    value = (value << 1) | (value >> 31);
  }
  for (int i = 0; i < 32; i++) random.Next(65536);
  for (uint32_t counter = 0; counter < kNoiseFileSize; counter++) {
    message[0] = uint8_t(counter);
    message[1] = uint8_t(counter >> 8);
    message[2] = uint8_t(counter >> 16);
    message[3] = uint8_t(counter >> 24);
    auto digest = Ripemd160(message, sizeof(message));
    out[counter] = digest[1];
    pool[counter % 128] ^= digest[0];
  }
}

bool LoadNoise(const std::string& name, uint8_t* out) {
  std::ifstream file(name, std::ios::binary);
  if (!file) return false;
  WriteLine(0, "Loading white noise (needed for dithering)...");
  std::error_code error;
  if (std::filesystem::file_size(name, error) != kNoiseFileSize || error) return false;
  file.read(reinterpret_cast<char*>(out), kNoiseFileSize);
  return file.gcount() == std::streamsize(kNoiseFileSize);
}

void SaveNoise(const std::string& name, const uint8_t* data) {
  std::error_code error;
  std::filesystem::create_directories(std::filesystem::path(name).parent_path(), error);
  bool ok = false;
  {
    std::ofstream file(name, std::ios::binary | std::ios::trunc);
    if (file) {
      file.write(reinterpret_cast<const char*>(data), kNoiseFileSize);
      file.flush();
      ok = bool(file);
    }
  }
  if (!ok) std::filesystem::remove(name, error);
}

}  // namespace

std::string NoiseFileName() {
  const char* cache = std::getenv("XDG_CACHE_HOME");
  std::string base;
  if (cache && *cache) {
    base = cache;
  } else {
    const char* home = std::getenv("HOME");
    base = std::string(home ? home : ".") + "/.cache";
  }
  return base + "/sonvex/white.noise";
}

const int32_t* NoiseTable() {
  std::lock_guard<std::mutex> guard(noiseLock);
  if (noiseTable) return noiseTable;
  std::unique_ptr<uint8_t[]> raw(new (std::nothrow) uint8_t[kNoiseFileSize]);
  std::unique_ptr<int32_t[]> table(new (std::nothrow) int32_t[2 * kNoiseEntries]);
  if (!raw || !table) return nullptr;
  std::string name = NoiseFileName();
  if (!LoadNoise(name, raw.get())) {
    WriteLine(0, "Creating white noise (needed for dithering). Please wait...");
    GenerateNoise(raw.get());
    SaveNoise(name, raw.get());
  }
  for (uint32_t i = 0; i < kNoiseEntries; i++) {
    const uint8_t* p = raw.get() + 4 * i;
    uint32_t value = uint32_t(p[0]) | uint32_t(p[1]) << 8 | uint32_t(p[2]) << 16 |
                     uint32_t(p[3]) << 24;
    table[i] = table[i + kNoiseEntries] = int32_t(value >> 2);
  }
  noiseTable = table.release();
  return noiseTable;
}

TBitdepthReducer::TBitdepthReducer(uint32_t target, bool dither) : target(target), dither(dither) {
  if (target < 8 || target > 24) Fail("The bitdepth reducer was called with incorrect parameters.");
}

std::shared_ptr<TBitdepthReducer> TBitdepthReducer::Create(uint32_t target, bool dither,
                                                           bool quiet) {
  auto stage = std::make_shared<TBitdepthReducer>(target, dither);
  if (quiet) stage->SetSilent(false);
  return stage;
}

bool TBitdepthReducer::InitAudio(const std::string& format, uint32_t channels, uint32_t bits,
                                 uint32_t sampleRate, bool bigEndian, int64_t totalSize) {
  if (!valid) return false;
  if (!CheckUpStreams("bitdepth reducer")) return false;
  if (format != "pcm" || channels == 0 || bigEndian ||
      (bits != 8 && bits != 16 && bits != 24 && bits != 32))
    return Fail("The bitdepth reducer received a non-supported data format.");
  inputDepth = bits;
  if (inputDepth < target) target = inputDepth;
  if (inputDepth != target)
    Log(0, "Reducing depth from " + std::to_string(inputDepth) + " to " + std::to_string(target) +
               " bits...");
  uint32_t container = (target + 7) / 8 * 8;
  if (dither && inputDepth != target && !(noise = NoiseTable()))
    return Fail("The bitdepth reducer couldn't allocate enough memory.");
  return NotifyAudio(format, channels, container, sampleRate, bigEndian, totalSize);
}

namespace {

template <int InBytes>
inline int32_t ReadSample(const uint8_t* p) {
  if constexpr (InBytes == 2) return int16_t(uint16_t(p[0] | p[1] << 8));
  if constexpr (InBytes == 3)
    return int32_t((uint32_t(p[0]) << 8 | uint32_t(p[1]) << 16 | uint32_t(p[2]) << 24)) >> 8;
  return int32_t(uint32_t(p[0]) | uint32_t(p[1]) << 8 | uint32_t(p[2]) << 16 |
                 uint32_t(p[3]) << 24);
}

// One loop per input and container size; `noise` is null without dither. Writes in place: the
// output is never longer than the input.
template <int InBytes, int OutBytes>
void Reduce(uint8_t* data, uint32_t count, int shift, int pad, const int32_t* noise) {
  const int32_t round = int32_t(1u << (shift - 1));
  const int noiseShift = 30 - shift;
  constexpr int64_t kMax = OutBytes == 1 ? 127 : OutBytes == 2 ? 32767 : 8388607;
  constexpr int64_t kMin = -kMax - 1;
  const uint8_t* in = data;
  uint8_t* out = data;
  for (uint32_t k = 0; k < count; k++, in += InBytes, out += OutBytes) {
    int32_t s = ReadSample<InBytes>(in);
    int32_t n = noise ? (noise[k + 1] - noise[k]) >> noiseShift : 0;
    // On 64 bits, so a sample near full scale clips instead of wrapping to the other end.
    int64_t v = ((int64_t(s) + n + round) >> shift) * (int64_t(1) << pad);
    if (v > kMax) v = kMax;
    if (v < kMin) v = kMin;
    if constexpr (OutBytes == 1) {
      out[0] = uint8_t(int32_t(v) + 128);
    } else if constexpr (OutBytes == 2) {
      out[0] = uint8_t(v);
      out[1] = uint8_t(v >> 8);
    } else {
      out[0] = uint8_t(v);
      out[1] = uint8_t(v >> 8);
      out[2] = uint8_t(v >> 16);
    }
  }
}

}  // namespace

bool TBitdepthReducer::Write(SenderId, bool, const uint8_t* data, uint32_t size, int64_t position,
                             bool flush) {
  if (!valid) return false;
  if (inputDepth == 0) return Fail("The bitdepth reducer didn't receive the format information.");
  if (inputDepth <= target) return Send(false, data, size, position, flush);
  if (!StoreData(0, data, size))
    return Fail("The bitdepth reducer couldn't allocate enough memory.");
  const uint32_t inBytes = inputDepth / 8;
  const uint32_t n = BufferFill(0) / inBytes;
  if (n == 0) return true;
  const uint32_t containerBits = (target + 7) / 8 * 8;
  const uint32_t outBytes = containerBits / 8;
  const int shift = int(inputDepth - target);
  const int pad = int(containerBits - target);
  const int32_t* table = dither ? noise : nullptr;
  uint8_t* buffer = BufferData(0);
  // Pieces of at most one table half, so the noise pointer never runs off the table.
  uint32_t done = 0;
  while (done < n) {
    uint32_t count = std::min(n - done, kNoiseEntries);
    uint8_t* in = buffer + size_t(done) * inBytes;
    uint8_t* out = buffer + size_t(done) * outBytes;
    // In-place with differing strides: the piece's output lands at `out` <= `in`. Move input
    // down first when the pieces would overlap out of order.
    if (out != in) std::memmove(out, in, size_t(count) * inBytes);
    const int32_t* run = table ? table + noisePosition : nullptr;
    switch (inBytes * 10 + outBytes) {
      case 21: Reduce<2, 1>(out, count, shift, pad, run); break;
      case 22: Reduce<2, 2>(out, count, shift, pad, run); break;
      case 31: Reduce<3, 1>(out, count, shift, pad, run); break;
      case 32: Reduce<3, 2>(out, count, shift, pad, run); break;
      case 33: Reduce<3, 3>(out, count, shift, pad, run); break;
      case 41: Reduce<4, 1>(out, count, shift, pad, run); break;
      case 42: Reduce<4, 2>(out, count, shift, pad, run); break;
      default: Reduce<4, 3>(out, count, shift, pad, run); break;
    }
    noisePosition += count;
    if (noisePosition >= kNoiseEntries) noisePosition -= kNoiseEntries;
    done += count;
  }
  bool ok = Send(false, buffer, n * outBytes, position, flush);
  RemoveData(0, n * inBytes);
  return ok;
}

}  // namespace sonvex
