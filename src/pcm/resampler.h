// TResampler: changes the sample rate of one mono PCM branch with libsoxr, also for the PAL speed
// changes (the same operation with an altered target rate, announced at the old rate). The
// output is always 24-bit, and exactly round(input samples * target / input rate) long.
#pragma once

#include <soxr.h>

#include "framework/upstream.h"

namespace sonvex {

class TResampler : public TUpStream {
public:
  enum class TMode { Resample, Speedup, Slowdown };
  TResampler(TMode mode, uint32_t targetRate, uint32_t quality);
  ~TResampler() override;
  // The three ways to make one: to a rate, PAL speedup (24000/1001 to 25), and back.
  static std::shared_ptr<TResampler> Resample(uint32_t targetRate, uint32_t quality) {
    return std::make_shared<TResampler>(TMode::Resample, targetRate, quality);
  }
  static std::shared_ptr<TResampler> Speedup(uint32_t quality) {
    return std::make_shared<TResampler>(TMode::Speedup, 0, quality);
  }
  static std::shared_ptr<TResampler> Slowdown(uint32_t quality) {
    return std::make_shared<TResampler>(TMode::Slowdown, 0, quality);
  }

  bool InitAudio(const std::string& format, uint32_t channels, uint32_t bitsPerSample,
                 uint32_t sampleRate, bool bigEndian, int64_t totalSize) override;
  bool Write(SenderId sender, bool isHeader, const uint8_t* data, uint32_t size, int64_t position,
             bool flush) override;
  bool Finish() override;

  // The rate handed to the library for a stream of `inputRate`.
  static long double TargetRate(TMode mode, uint32_t inputRate, uint32_t targetRate);

private:
  // Runs `count` input samples (or the flush, for nullptr) through the library and sends what
  // comes out, no more than `limit` samples in all when `limit` is not negative.
  bool Process(const double* input, size_t count, int64_t limit);

  TMode mode;
  uint32_t quality;
  uint32_t inputRate = 0;
  long double target = 0;
  uint32_t bytesPerSample = 0;  // 0 until the format arrives
  soxr_t soxr = nullptr;
  uint64_t inputSamples = 0;
  uint64_t outputSamples = 0;
  std::vector<double> in, out;
  std::vector<uint8_t> packed;
};

}  // namespace sonvex
