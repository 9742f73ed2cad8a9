// TResampler on libsoxr's push interface: one resampler per mono branch, no thread of its own.
// Samples travel as doubles in units of a 24-bit sample; the output is rounded and clipped to
// 24 bits. The library's filter tail would overrun the exact length; Finish cuts it.
#include "pcm/resampler.h"

#include <algorithm>
#include <cmath>

namespace sonvex {

namespace {

// Quality 0..4 onto the library's recipes: quick, low, medium, high, very high.
constexpr unsigned long kRecipes[] = {SOXR_QQ, SOXR_LQ, SOXR_MQ, SOXR_HQ, SOXR_VHQ};
constexpr size_t kOutputChunk = 16384;

}  // namespace

TResampler::TResampler(TMode mode, uint32_t targetRate, uint32_t quality)
    : mode(mode), quality(quality), target(targetRate) {}

TResampler::~TResampler() {
  if (soxr) soxr_delete(soxr);
}

long double TResampler::TargetRate(TMode mode, uint32_t inputRate, uint32_t targetRate) {
  switch (mode) {
    case TMode::Speedup: return (long double)inputRate * 24 / 1.001L / 25;
    case TMode::Slowdown: return (long double)inputRate / 24 * 1.001L * 25;
    default: return targetRate;
  }
}

bool TResampler::InitAudio(const std::string& format, uint32_t channels, uint32_t bits,
                           uint32_t sampleRate, bool bigEndian, int64_t) {
  if (!valid) return false;
  if (!CheckUpStreams("resampler")) return false;
  if (format != "pcm" || channels != 1 || bigEndian || (bits != 8 && bits != 16 && bits != 24) ||
      sampleRate == 0)
    return Fail("The resampler received a non-supported data format.");
  bytesPerSample = bits / 8;
  inputRate = sampleRate;
  target = TargetRate(mode, sampleRate, uint32_t(target));
  uint32_t announced = sampleRate;
  switch (mode) {
    case TMode::Speedup: Log(0, "Applying PAL speedup..."); break;
    case TMode::Slowdown: Log(0, "Reversing PAL speedup..."); break;
    default:
      announced = uint32_t(target);
      Log(0, "Resampling to " + KhzText(announced) + "khz...");
      break;
  }
  soxr_io_spec_t io = soxr_io_spec(SOXR_FLOAT64_I, SOXR_FLOAT64_I);
  soxr_quality_spec_t spec = soxr_quality_spec(kRecipes[std::min<uint32_t>(quality, 4)], 0);
  soxr_runtime_spec_t runtime = soxr_runtime_spec(1);
  soxr_error_t error = nullptr;
  if (soxr) soxr_delete(soxr);
  soxr = soxr_create(double(sampleRate), double(target), 1, &error, &io, &spec, &runtime);
  if (!soxr || error) return Fail("The resampler couldn't allocate enough memory.");
  out.resize(kOutputChunk);
  return NotifyAudio("pcm", 1, 24, announced, false, 0);
}

bool TResampler::Process(const double* input, size_t count, int64_t limit) {
  size_t offset = 0;
  while (true) {
    size_t used = 0, made = 0;
    soxr_error_t error = soxr_process(soxr, input ? input + offset : nullptr, count - offset,
                                      &used, out.data(), out.size(), &made);
    if (error) {
      Log(2, std::string("The resampler reported an error (") + error + ").");
      return valid = false;
    }
    offset += used;
    if (limit >= 0)
      made = size_t(std::clamp<int64_t>(limit - int64_t(outputSamples), 0, int64_t(made)));
    if (made > 0) {
      packed.resize(made * 3);
      for (size_t k = 0; k < made; k++) {
        double v = std::nearbyint(out[k]);
        int32_t s = int32_t(std::clamp(v, -8388608.0, 8388607.0));
        packed[3 * k] = uint8_t(s);
        packed[3 * k + 1] = uint8_t(s >> 8);
        packed[3 * k + 2] = uint8_t(s >> 16);
      }
      outputSamples += made;
      if (!Send(false, packed.data(), uint32_t(made * 3), -1, false)) return valid = false;
    }
    // Input: until all of it is taken and the library has nothing more for now. Flush: until
    // it gives nothing.
    if (input ? (offset >= count && made < out.size()) : made == 0) return true;
  }
}

bool TResampler::Write(SenderId, bool, const uint8_t* data, uint32_t size, int64_t, bool) {
  if (!valid) return false;
  if (bytesPerSample == 0) return Fail("The resampler received a non-supported data format.");
  if (!StoreData(0, data, size)) return Fail("The resampler couldn't allocate enough memory.");
  const uint32_t n = BufferFill(0) / bytesPerSample;
  if (n == 0) return true;
  in.resize(n);
  const uint8_t* p = BufferData(0);
  for (uint32_t k = 0; k < n; k++, p += bytesPerSample) {
    int32_t s;
    if (bytesPerSample == 1) s = (int32_t(p[0]) - 128) * 65536;  // offset form
    else if (bytesPerSample == 2) s = int32_t(int16_t(uint16_t(p[0] | p[1] << 8))) << 8;
    else s = int32_t(uint32_t(p[0]) << 8 | uint32_t(p[1]) << 16 | uint32_t(p[2]) << 24) >> 8;
    in[k] = s;
  }
  RemoveData(0, n * bytesPerSample);
  inputSamples += n;
  return Process(in.data(), n, -1);
}

bool TResampler::Finish() {
  if (!valid) return false;
  if (soxr) {
    const int64_t allowed =
        int64_t(std::trunc((long double)inputSamples * target / inputRate + 0.5L));
    if (!Process(nullptr, 0, allowed)) return false;
  }
  return FinishUpStreams();
}

}  // namespace sonvex
