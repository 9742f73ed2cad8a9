// Channel operations and time operations on PCM: mixer clipping, amplifier widening, joiner
// interleave and its input checks, the delayer's exact counts, the gap realizer's inserts and
// removals, the resampler's exact lengths and its spectrum, and the memory storage.
#include <gtest/gtest.h>

#include <cmath>
#include <complex>
#include <numbers>

#include "framework/console.h"
#include "pcm/channelamplifier.h"
#include "pcm/channeljoiner.h"
#include "pcm/channelmixer.h"
#include "pcm/memstorage.h"
#include "pcm/rawdelayer.h"
#include "pcm/rawgaprealizer.h"
#include "pcm/resampler.h"
#include "support/capture.h"

namespace sonvex::channelopstest {
using namespace ::sonvex::test;
namespace {

struct LogLines {
  std::vector<std::string> lines;
  LogLines() { SetLogHook([this](int, const std::string& t) { lines.push_back(t); }); }
  ~LogLines() { SetLogHook(nullptr); }
};

std::vector<uint8_t> Pack(const std::vector<int32_t>& samples, int bytes) {
  std::vector<uint8_t> out;
  for (int32_t s : samples)
    for (int b = 0; b < bytes; b++) out.push_back(uint8_t(uint32_t(s) >> (8 * b)));
  return out;
}

std::vector<int32_t> Unpack(const std::vector<uint8_t>& data, int bytes) {
  std::vector<int32_t> out;
  for (size_t i = 0; i + bytes <= data.size(); i += bytes) {
    uint32_t v = 0;
    for (int b = 0; b < bytes; b++) v |= uint32_t(data[i + b]) << (8 * b);
    int shift = 32 - 8 * bytes;
    out.push_back(int32_t(v << shift) >> shift);
  }
  return out;
}

// Two feeders (plain pass-through stages) into one merge stage with a capture behind it.
struct MergeRig {
  std::shared_ptr<TCapture> capture = TCapture::Create();
  std::vector<std::shared_ptr<TCapture>> feeders;
  UpStreamRef merge;
  MergeRig(UpStreamRef stage, int inputs) : merge(std::move(stage)) {
    merge->SetUpStream(capture);
    for (int i = 0; i < inputs; i++) {
      feeders.push_back(TCapture::Create());
      feeders.back()->SetUpStream(merge);
    }
  }
  bool Init(int i, uint32_t bits, int64_t count = 0, bool big = false) {
    return merge->InitAudio("pcm", 1, bits, 48000, big, count);
  }
  bool Write(int i, const std::vector<uint8_t>& data) {
    return merge->Write(feeders[size_t(i)]->SenderIdFor(0), false, data.data(),
                        uint32_t(data.size()), -1, false);
  }
};

struct MixCase {
  int bytes;
  int32_t a, b, expected;
};

TEST(ChannelMixer, SumsClipAtFullScale) {
  const MixCase cases[] = {
      {2, 30000, 30000, 32767},        {2, -30000, -30000, -32768}, {2, 100, -300, -200},
      {3, 8388607, 1, 8388607},        {3, -8388608, -1, -8388608}, {3, 4000000, 4000000, 8000000},
      {1, 100, 100, 127},              {1, -100, -100, -128},
  };
  for (const MixCase& c : cases) {
    MergeRig rig(TChannelMixer::Create(), 2);
    ASSERT_TRUE(rig.Init(0, uint32_t(c.bytes * 8)));
    ASSERT_TRUE(rig.Init(1, uint32_t(c.bytes * 8)));
    ASSERT_TRUE(rig.Write(0, Pack({c.a, c.a}, c.bytes)));
    EXPECT_TRUE(rig.capture->bytes.empty());  // the other input lags: nothing yet
    ASSERT_TRUE(rig.Write(1, Pack({c.b}, c.bytes)));
    EXPECT_EQ(Unpack(rig.capture->bytes, c.bytes), std::vector<int32_t>{c.expected})
        << c.a << " + " << c.b;
  }
}

TEST(ChannelJoiner, InterleavesInInputOrderAndRefusesOddInputs) {
  MergeRig rig(TChannelJoiner::Create(), 3);
  for (int i = 0; i < 3; i++) ASSERT_TRUE(rig.Init(i, 24, 1000));
  EXPECT_EQ(rig.capture->audioInits.size(), 1u);
  EXPECT_EQ(rig.capture->audioInits[0].channels, 3u);
  ASSERT_TRUE(rig.Write(2, Pack({30, 31}, 3)));
  ASSERT_TRUE(rig.Write(0, Pack({10, 11, 12}, 3)));
  ASSERT_TRUE(rig.Write(1, Pack({20, 21}, 3)));
  EXPECT_EQ(Unpack(rig.capture->bytes, 3), (std::vector<int32_t>{10, 20, 30, 11, 21, 31}));

  LogLines log;
  MergeRig odd(TChannelJoiner::Create(), 2);
  ASSERT_TRUE(odd.Init(0, 16, 1000));
  EXPECT_FALSE(odd.Init(1, 16, 999));
  EXPECT_EQ(log.lines.back(), "The channel joiner received channels with different attributes.");
  MergeRig stranger(TChannelJoiner::Create(), 1);
  ASSERT_TRUE(stranger.Init(0, 16));
  uint8_t two[2] = {};
  EXPECT_FALSE(stranger.merge->Write(12345, false, two, 2, -1, false));
  EXPECT_EQ(log.lines.back(), "The channel joiner received data from an unknown source.");
}

TEST(ChannelAmplifier, WidensByEightBitsWithoutClipping) {
  struct Case {
    uint32_t bits;
    int32_t factor, sample, expected;
  } cases[] = {{16, -64, -32768, 2097152}, {24, 181, -8388608, -1518338048}, {8, 91, -128, -11648},
               {16, 128, 32767, 4194176}};
  for (const Case& c : cases) {
    auto amp = TChannelAmplifier::Create(c.factor);
    auto capture = TCapture::Create();
    amp->SetUpStream(capture);
    ASSERT_TRUE(amp->InitAudio("pcm", 1, c.bits, 48000, false, 0));
    EXPECT_EQ(capture->audioInits[0].bits, c.bits + 8);
    auto in = Pack({c.sample}, int(c.bits / 8));
    ASSERT_TRUE(amp->Write(0, false, in.data(), uint32_t(in.size()), -1, false));
    EXPECT_EQ(Unpack(capture->bytes, int(c.bits / 8) + 1), std::vector<int32_t>{c.expected});
  }
}

// A stereo 16-bit stage of `frames` frames with sample value = frame index, in blocks.
struct DelayRun {
  std::shared_ptr<TCapture> capture = TCapture::Create();
  std::shared_ptr<TRawDelayer> delayer = TRawDelayer::Create();
  explicit DelayRun(int32_t ms) {
    delayer->SetUpStream(capture);
    delayer->SetSilent(true);
    delayer->SetDelay(0, ms);
  }
  void Feed(uint32_t frames, uint32_t block) {
    ASSERT_TRUE(delayer->InitAudio("pcm", 2, 16, 48000, false, frames));
    std::vector<int32_t> samples;
    for (uint32_t f = 0; f < frames; f++) samples.insert(samples.end(), {int32_t(f), int32_t(f)});
    auto data = Pack(samples, 2);
    for (size_t at = 0; at < data.size(); at += block)
      ASSERT_TRUE(delayer->Write(0, false, data.data() + at,
                                 uint32_t(std::min<size_t>(block, data.size() - at)), -1, false));
    ASSERT_TRUE(delayer->Finish());
  }
};

TEST(RawDelayer, AddsOrDropsExactlyTheDelay) {
  DelayRun later(100);
  later.Feed(20000, 100000);
  EXPECT_EQ(later.capture->audioInits[0].totalSize, 24800);
  ASSERT_EQ(later.capture->bytes.size(), 24800u * 4);
  EXPECT_TRUE(std::all_of(later.capture->bytes.begin(), later.capture->bytes.begin() + 19200,
                          [](uint8_t b) { return b == 0; }));
  EXPECT_EQ(Unpack(later.capture->bytes, 2)[9600], 0);
  EXPECT_EQ(Unpack(later.capture->bytes, 2)[9602], 1);  // audio starts behind 4,800 frames

  // The first block (25,000 frames) loses its last 4,800 frames.
  DelayRun earlier(-100);
  earlier.Feed(50000, 100000);
  EXPECT_EQ(earlier.capture->audioInits[0].totalSize, 45200);
  auto out = Unpack(earlier.capture->bytes, 2);
  ASSERT_EQ(out.size(), 45200u * 2);
  EXPECT_EQ(out[2 * 20199], 20199);
  EXPECT_EQ(out[2 * 20200], 25000);

  DelayRun odd(7);  // 441 * 7 / 10 = 308 frames at 44.1 kHz
  ASSERT_TRUE(odd.delayer->InitAudio("pcm", 1, 16, 44100, false, 0));
  uint8_t two[2] = {1, 1};
  ASSERT_TRUE(odd.delayer->Write(0, false, two, 2, -1, false));
  EXPECT_EQ(odd.capture->bytes.size(), 308u * 2 + 2);
}

// Gap records as the realizer takes them, led by the zero entry.
std::string GapData(const std::vector<TGapEntry>& entries) {
  std::vector<TGapEntry> all{{0, 0}};
  all.insert(all.end(), entries.begin(), entries.end());
  return std::string(reinterpret_cast<const char*>(all.data()), all.size() * sizeof(TGapEntry));
}

std::vector<int32_t> Realize(const std::vector<TGapEntry>& entries, uint32_t frames,
                             uint32_t block) {
  auto realizer = TRawGapRealizer::Create(GapData(entries));
  auto capture = TCapture::Create();
  realizer->SetUpStream(capture);
  realizer->SetSilent(true);
  EXPECT_TRUE(realizer->InitAudio("pcm", 1, 24, 48000, false, frames));
  std::vector<int32_t> samples;
  for (uint32_t f = 0; f < frames; f++) samples.push_back(int32_t(f) + 1);
  auto data = Pack(samples, 3);
  for (size_t at = 0; at < data.size(); at += block)
    EXPECT_TRUE(realizer->Write(0, false, data.data() + at,
                                uint32_t(std::min<size_t>(block, data.size() - at)), -1, false));
  return Unpack(capture->bytes, 3);
}

TEST(RawGapRealizer, InsertsTheLatestSecondAndRemovesOverlaps) {
  // A gap of 1,500 ms found at 5 s (time stamps of the audio after it): one full second of the
  // preceding audio, then its last 500 ms.
  auto gap = Realize({{65000000, 15000000}}, 48000 * 8, 30000);
  ASSERT_EQ(gap.size(), 48000u * 8 + 72000);
  const int32_t at = 48000 * 5;
  EXPECT_EQ(gap[at - 1], at);
  EXPECT_EQ(gap[at], at - 48000 + 1);           // the second before the gap
  EXPECT_EQ(gap[at + 48000], at - 24000 + 1);   // its last half second
  EXPECT_EQ(gap[at + 72000], at + 1);           // then the stream goes on
  // An overlap of 200 ms at 3 s, larger than the blocks: 9,600 frames removed.
  auto overlap = Realize({{30000000, -2000000}}, 48000 * 6, 3000);
  ASSERT_EQ(overlap.size(), 48000u * 6 - 9600);
  EXPECT_EQ(overlap[144000 - 1], 144000);
  EXPECT_EQ(overlap[144000], 144000 + 9600 + 1);
}

TEST(RawGapRealizer, GapAtTheStartIsSilence) {
  auto gap = Realize({{1000000, 1000000}}, 48000, 4096);
  ASSERT_EQ(gap.size(), 48000u + 4800);
  EXPECT_TRUE(std::all_of(gap.begin(), gap.begin() + 4800, [](int32_t s) { return s == 0; }));
  EXPECT_EQ(gap[4800], 1);
}

// Runs `samples` (24-bit mono) through a resampler, in blocks of 10,000.
std::vector<int32_t> Resample(const std::shared_ptr<TResampler>& stage, uint32_t rate,
                              const std::vector<int32_t>& samples, uint32_t* announced = nullptr) {
  auto capture = TCapture::Create();
  stage->SetUpStream(capture);
  stage->SetSilent(true);
  EXPECT_TRUE(stage->InitAudio("pcm", 1, 24, rate, false, int64_t(samples.size())));
  if (announced) *announced = capture->audioInits[0].sampleRate;
  auto data = Pack(samples, 3);
  for (size_t at = 0; at < data.size(); at += 30000)
    EXPECT_TRUE(stage->Write(0, false, data.data() + at,
                             uint32_t(std::min<size_t>(30000, data.size() - at)), -1, false));
  EXPECT_TRUE(stage->Finish());
  return Unpack(capture->bytes, 3);
}

TEST(Resampler, ExactLengthsAndSpeedChanges) {
  std::vector<int32_t> million(1000000);
  for (size_t i = 0; i < million.size(); i++) million[i] = int32_t(1000000 * std::sin(i * 0.01));
  struct Case {
    std::shared_ptr<TResampler> stage;
    uint32_t rate, announced;
    size_t length;
  } cases[] = {
      {TResampler::Resample(48000, 4), 44100, 48000, 1088435},
      {TResampler::Resample(44100, 4), 48000, 44100, 918750},
      {TResampler::Resample(48000, 2), 96000, 48000, 500000},
      {TResampler::Speedup(4), 48000, 48000, 959041},
      {TResampler::Slowdown(4), 48000, 48000, 1042708},
  };
  for (Case& c : cases) {
    uint32_t announced = 0;
    EXPECT_EQ(Resample(c.stage, c.rate, million, &announced).size(), c.length);
    EXPECT_EQ(announced, c.announced);
  }
  EXPECT_EQ(Resample(TResampler::Resample(48000, 4), 44100, {}).size(), 0u);
}

// A sweep from 20 Hz to 47 kHz at 96 kHz, down to 48 kHz at quality 4: whatever lay above
// 24 kHz must not fold back. The spectrum of the output, in windowed pieces, has nothing above
// -120 dB (relative to full scale) where the sweep was above the new Nyquist frequency.
TEST(Resampler, SweepHasNoAliasingAtQualityFour) {
  const double rate = 96000, seconds = 4;
  std::vector<int32_t> sweep(size_t(rate * seconds));
  for (size_t i = 0; i < sweep.size(); i++) {
    double t = double(i) / rate;
    double f0 = 20, f1 = 47000;
    double phase = 2 * std::numbers::pi * (f0 * t + (f1 - f0) * t * t / (2 * seconds));
    sweep[i] = int32_t(std::lround(0.5 * 8388607 * std::sin(phase)));
  }
  auto out = Resample(TResampler::Resample(48000, 4), 96000, sweep);
  ASSERT_EQ(out.size(), sweep.size() / 2);
  // Pieces of 4,096 samples in the part where the sweep is above 26 kHz (past the transition
  // band); a naive FFT is enough for a few pieces.
  const size_t n = 4096;
  double worst = -400;
  for (size_t start = size_t(48000 * 2.5); start + n <= out.size(); start += 4 * n) {
    std::vector<std::complex<double>> x(n);
    for (size_t k = 0; k < n; k++) {
      double w = 0.5 - 0.5 * std::cos(2 * std::numbers::pi * k / (n - 1));  // Hann
      x[k] = w * out[start + k] / 8388608.0;
    }
    // Iterative radix-2 FFT.
    for (size_t i = 1, j = 0; i < n; i++) {
      size_t bit = n >> 1;
      for (; j & bit; bit >>= 1) j ^= bit;
      j ^= bit;
      if (i < j) std::swap(x[i], x[j]);
    }
    for (size_t len = 2; len <= n; len <<= 1) {
      auto w = std::polar(1.0, -2 * std::numbers::pi / double(len));
      for (size_t i = 0; i < n; i += len) {
        std::complex<double> u(1);
        for (size_t k = 0; k < len / 2; k++, u *= w) {
          auto a = x[i + k], b = x[i + k + len / 2] * u;
          x[i + k] = a + b;
          x[i + k + len / 2] = a - b;
        }
      }
    }
    for (size_t k = 1; k < n / 2; k++)
      worst = std::max(worst, 20 * std::log10(std::abs(x[k]) / (n / 4) + 1e-30));
  }
  // 24-bit rounding alone lies near -146 dB per bin; aliasing of the -6 dB sweep would stand
  // far above -120 dB.
  EXPECT_LT(worst, -120.0);
}

TEST(MemStorage, KeepsDataOnlyAfterAFormat) {
  auto early = TMemStorage::Create();
  uint8_t bytes[3] = {1, 2, 3};
  EXPECT_TRUE(early->Write(0, false, bytes, 3, -1, false));
  EXPECT_EQ(early->GetData(), "");
  auto storage = TMemStorage::Create();
  ASSERT_TRUE(storage->InitAudio("pcm", 1, 8, 48000, false, 0));
  storage->Write(0, false, bytes, 3, -1, false);
  storage->Write(0, false, bytes, 2, -1, false);
  EXPECT_EQ(storage->GetData(), std::string("\1\2\3\1\2", 5));
  EXPECT_TRUE(storage->Finish());
}

}  // namespace
}  // namespace sonvex::channelopstest
