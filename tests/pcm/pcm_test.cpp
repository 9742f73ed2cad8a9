// PCM basics (TRawReader, TEndianSwapper, TStripTo16bit) and TBitdepthReducer: rounding, containers,
// the dither's triangular distribution, the noise cache, and the hash that builds the noise.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdlib>
#include <filesystem>
#include <fstream>

#include "framework/console.h"
#include "pcm/bitdepthreducer.h"
#include "pcm/endianswapper.h"
#include "pcm/rawreader.h"
#include "pcm/ripemd160.h"
#include "pcm/stripto16bit.h"
#include "support/capture.h"

namespace sonvex::test {}
namespace sonvex::pcmtest {
using namespace ::sonvex::test;
namespace {

std::vector<uint8_t> Pack24(const std::vector<int32_t>& samples) {
  std::vector<uint8_t> out;
  for (int32_t s : samples) {
    out.push_back(uint8_t(s));
    out.push_back(uint8_t(s >> 8));
    out.push_back(uint8_t(s >> 16));
  }
  return out;
}

int32_t Read16(const std::vector<uint8_t>& v, size_t i) {
  return int16_t(uint16_t(v[2 * i] | v[2 * i + 1] << 8));
}

// The noise table is built once per process: the cache goes to a folder of the test binary's own,
// set before any test runs, and holds a noise file already, so the tests take the loading path
// and don't spend seconds hashing.
const bool cacheMoved = [] {
  auto dir = std::filesystem::temp_directory_path() / ("sonvex_noise_" + std::to_string(getpid()));
  std::filesystem::create_directories(dir / "sonvex");
  std::ofstream file(dir / "sonvex" / "white.noise", std::ios::binary);
  uint64_t state = 0x9E3779B97F4A7C15ull;
  for (int i = 0; i < 0x100000; i++) {
    state ^= state << 13, state ^= state >> 7, state ^= state << 17;  // xorshift64
    file.put(char(state >> 56));
  }
  return bool(file) && setenv("XDG_CACHE_HOME", dir.c_str(), 1) == 0;
}();

TEST(Ripemd160, KnownDigests) {
  auto hex = [](const std::array<uint8_t, 20>& d) {
    std::string s;
    char b[3];
    for (uint8_t x : d) {
      snprintf(b, sizeof b, "%02x", x);
      s += b;
    }
    return s;
  };
  EXPECT_EQ(hex(Ripemd160(reinterpret_cast<const uint8_t*>("abc"), 3)),
            "8eb208f7e05d987a9b044a8e98c6b087f15a0bfc");
  EXPECT_EQ(hex(Ripemd160(nullptr, 0)), "9c1185a5c5e9fc54612808977ee8f548b2258d31");
  std::string million(1000000, 'a');
  EXPECT_EQ(hex(Ripemd160(reinterpret_cast<const uint8_t*>(million.data()), million.size())),
            "52783243c1697bdbe16d37f97f68f08325dc1528");
}

TEST(EndianSwapper, SplitSamplesAndEightBit) {
  auto swapper = TEndianSwapper::Create();
  auto capture = TCapture::Create();
  swapper->SetUpStream(capture);
  swapper->SetSilent(true);
  ASSERT_TRUE(swapper->InitAudio("pcm", 2, 24, 48000, true, 0));
  EXPECT_FALSE(capture->audioInits[0].bigEndian);
  uint8_t bytes[] = {1, 2, 3, 4, 5, 6, 7};
  for (int i = 0; i < 3; i++) ASSERT_TRUE(swapper->Write(0, false, bytes + i, 1, -1, false));
  EXPECT_EQ(capture->blocks, std::vector<uint32_t>{3});  // held until the third byte
  ASSERT_TRUE(swapper->Write(0, false, bytes + 3, 4, -1, false));
  EXPECT_EQ(capture->bytes, (std::vector<uint8_t>{3, 2, 1, 6, 5, 4}));

  auto eight = TEndianSwapper::Create();
  auto out8 = TCapture::Create();
  eight->SetUpStream(out8);
  eight->SetSilent(true);
  ASSERT_TRUE(eight->InitAudio("pcm", 1, 8, 48000, false, 0));
  ASSERT_TRUE(eight->Write(0, false, bytes, 7, -1, false));
  EXPECT_TRUE(out8->audioInits[0].bigEndian);
  EXPECT_EQ(out8->bytes, std::vector<uint8_t>(bytes, bytes + 7));
}

TEST(RawReader, SkipAndSampleCount) {
  auto reader = TRawReader::Create(2, 0, false, 1000, 48000, 16);
  auto capture = TCapture::Create();
  reader->SetUpStream(capture);
  reader->SetSilent(true);
  ASSERT_TRUE(reader->InitAudio("?", 1, 8, 0, false, 4000));
  EXPECT_EQ(capture->audioInits[0].totalSize, 1000);  // leading bytes not subtracted
  std::vector<uint8_t> block(100, 7);
  for (int i = 0; i < 10; i++) ASSERT_TRUE(reader->Write(0, false, block.data(), 100, -1, false));
  EXPECT_TRUE(capture->bytes.empty());
  ASSERT_TRUE(reader->Write(0, false, block.data(), 100, -1, false));
  EXPECT_EQ(capture->bytes.size(), 100u);
  auto fixed = TRawReader::Create(2, 12345, false, 0, 48000, 16);
  auto out = TCapture::Create();
  fixed->SetUpStream(out);
  fixed->SetSilent(true);
  ASSERT_TRUE(fixed->InitAudio("?", 1, 8, 0, false, 4000));
  EXPECT_EQ(out->audioInits[0].totalSize, 12345);
}

TEST(StripTo16bit, ZeroLowBytesNarrowAndRemainderStays) {
  auto strip = TStripTo16bit::Create();
  auto capture = TCapture::Create();
  strip->SetUpStream(capture);
  std::vector<std::string> lines;
  SetLogHook([&](int, const std::string& t) { lines.push_back(t); });
  ASSERT_TRUE(strip->InitAudio("pcm", 2, 24, 48000, false, 0));
  auto data = Pack24({0x123400, -0x100, 0x7FFF00, 0x000100});
  data.push_back(0);  // one byte of a next sample
  ASSERT_TRUE(strip->Write(0, false, data.data(), uint32_t(data.size()), -1, false));
  ASSERT_TRUE(strip->Finish());
  SetLogHook(nullptr);
  EXPECT_EQ(capture->audioInits[0].bits, 16u);
  EXPECT_EQ(capture->bytes, (std::vector<uint8_t>{0x34, 0x12, 0xFF, 0xFF, 0xFF, 0x7F, 0x01, 0x00}));
  EXPECT_TRUE(strip->Is16bit());
  EXPECT_EQ(lines, (std::vector<std::string>{"This audio track contains only 16 bit of information.",
                                             "The zero bytes were successfully removed."}));
}

TEST(StripTo16bit, NonZeroLowByteStopsOutputButNotTheRun) {
  auto strip = TStripTo16bit::Create();
  auto capture = TCapture::Create();
  strip->SetUpStream(capture);
  std::vector<std::string> lines;
  SetLogHook([&](int, const std::string& t) { lines.push_back(t); });
  ASSERT_TRUE(strip->InitAudio("pcm", 1, 24, 48000, false, 0));
  auto clean = Pack24({0x100, 0x200});
  auto dirty = Pack24({0x300, 0x401});
  ASSERT_TRUE(strip->Write(0, false, clean.data(), 6, -1, false));
  ASSERT_TRUE(strip->Write(0, false, dirty.data(), 6, -1, false));
  EXPECT_TRUE(strip->Finish());
  SetLogHook(nullptr);
  EXPECT_FALSE(strip->Is16bit());
  EXPECT_EQ(capture->bytes.size(), 4u);  // the block with the find is not sent
  EXPECT_EQ(lines.at(0), "This audio track contains more than 16 bit of information.");
  EXPECT_TRUE(capture->IsSilent());
}

std::shared_ptr<TCapture> Reduce(uint32_t target, bool dither, uint32_t bits,
                                 const std::vector<uint8_t>& data, size_t piece = 0) {
  auto reducer = TBitdepthReducer::Create(target, dither);
  auto capture = TCapture::Create();
  reducer->SetUpStream(capture);
  reducer->SetSilent(true);
  EXPECT_TRUE(reducer->InitAudio("pcm", 1, bits, 48000, false, 0));
  if (piece == 0) piece = data.size();
  for (size_t at = 0; at < data.size(); at += piece)
    EXPECT_TRUE(reducer->Write(0, false, data.data() + at,
                               uint32_t(std::min(piece, data.size() - at)), -1, false));
  return capture;
}

TEST(BitdepthReducer, RoundingContainersAndPassThrough) {
  auto r = Reduce(16, false, 24, Pack24({0x80, 0x7F, -0x81, 0x7FFFFF}));
  EXPECT_EQ(r->audioInits[0].bits, 16u);
  ASSERT_EQ(r->bytes.size(), 8u);
  EXPECT_EQ(Read16(r->bytes, 0), 1);
  EXPECT_EQ(Read16(r->bytes, 1), 0);
  EXPECT_EQ(Read16(r->bytes, 2), -1);
  EXPECT_EQ(Read16(r->bytes, 3), 32767);  // clipped, not wrapped
  auto fourteen = Reduce(14, false, 24, Pack24({0x123456, -0x123456}));
  EXPECT_EQ(fourteen->audioInits[0].bits, 16u);
  EXPECT_EQ(Read16(fourteen->bytes, 0) & 3, 0);
  EXPECT_EQ(Read16(fourteen->bytes, 1) & 3, 0);
  std::vector<uint8_t> sixteen = {1, 2, 3, 4};
  auto same = Reduce(20, true, 16, sixteen);  // target falls to 16: unchanged
  EXPECT_EQ(same->audioInits[0].bits, 16u);
  EXPECT_EQ(same->bytes, sixteen);
  auto eight = Reduce(8, false, 16, {0x00, 0x80, 0xFF, 0x7F});
  EXPECT_EQ(eight->bytes, (std::vector<uint8_t>{0x00, 0xFF}));  // offset form
}

TEST(BitdepthReducer, RefusesTargetsOutsideEightToTwentyFour) {
  std::vector<std::string> lines;
  SetLogHook([&](int, const std::string& t) { lines.push_back(t); });
  auto reducer = TBitdepthReducer::Create(25, false);
  SetLogHook(nullptr);
  EXPECT_FALSE(reducer->IsValid());
  ASSERT_EQ(lines.size(), 1u);
  EXPECT_EQ(lines[0], "The bitdepth reducer was called with incorrect parameters.");
}

// -down16 with dither: each sample within 2 LSB of the exact value, and the error (noise plus
// rounding) triangular over -1..+1 LSB: variance 1/6 + 1/12 LSB^2, no bias, no values beyond.
TEST(BitdepthReducer, DitherIsTriangularAndWithinTwoLsb) {
  ASSERT_TRUE(cacheMoved);
  ASSERT_NE(NoiseTable(), nullptr);
  const size_t count = 300000;  // longer than the table: exercises the wrap
  std::vector<int32_t> samples(count);
  uint32_t seed = 12345;
  for (auto& s : samples) {
    seed = seed * 1664525u + 1013904223u;
    s = int32_t(seed >> 9) - 0x400000;
  }
  auto r = Reduce(16, true, 24, Pack24(samples), 100000);
  ASSERT_EQ(r->bytes.size(), count * 2);
  double sum = 0, sumSquares = 0;
  for (size_t i = 0; i < count; i++) {
    double exact = samples[i] / 256.0;
    double error = Read16(r->bytes, i) - exact;
    ASSERT_LE(std::abs(error), 2.0) << i;
    sum += error;
    sumSquares += error * error;
  }
  double mean = sum / count, variance = sumSquares / count - mean * mean;
  EXPECT_NEAR(mean, 0.0, 0.01);
  EXPECT_NEAR(variance, 0.25, 0.02);
  // On exact 16-bit values the rounded dither alone shows: triangular noise of +-1 LSB rounds to
  // -1, 0, +1 with probabilities 1/8, 3/4, 1/8.
  std::vector<int32_t> exact(count, 0x1200);
  auto noise = Reduce(16, true, 24, Pack24(exact), 65536);
  int outcomes[3] = {};
  for (size_t i = 0; i < count; i++) {
    int32_t d = Read16(noise->bytes, i) - 0x12;
    ASSERT_LE(std::abs(d), 1);
    outcomes[d + 1]++;
  }
  EXPECT_NEAR(double(outcomes[0]) / count, 0.125, 0.01);
  EXPECT_NEAR(double(outcomes[1]) / count, 0.75, 0.01);
  EXPECT_NEAR(double(outcomes[2]) / count, 0.125, 0.01);
  EXPECT_TRUE(std::filesystem::exists(NoiseFileName()));
  EXPECT_EQ(std::filesystem::file_size(NoiseFileName()), 0x100000u);
}

}  // namespace
}  // namespace sonvex::pcmtest

#include "pcm/channelmodder.h"

namespace sonvex::test {}
namespace sonvex::pcmtest {
using namespace ::sonvex::test;
namespace {

TEST(ChannelModder, TextMapsBlurayAndChecks) {
  std::vector<std::string> lines;
  SetLogHook([&](int, const std::string& t) { lines.push_back(t); });
  auto modder = TChannelModder::Create("bluray");
  auto capture = TCapture::Create();
  modder->SetUpStream(capture);
  ASSERT_TRUE(modder->InitAudio("pcm", 6, 8, 48000, false, 0));
  std::vector<uint8_t> frames = {0, 1, 2, 3, 4, 5, 10, 11, 12, 13, 14};  // a frame and a part
  ASSERT_TRUE(modder->Write(0, false, frames.data(), uint32_t(frames.size()), -1, false));
  EXPECT_EQ(capture->bytes, (std::vector<uint8_t>{0, 1, 2, 5, 3, 4}));
  ASSERT_TRUE(modder->Write(0, false, frames.data() + 5, 1, -1, false));
  EXPECT_EQ(capture->bytes.size(), 12u);
  EXPECT_EQ(capture->bytes[9], 5);  // the held part completed by the next block
  auto wrong = TChannelModder::Create(std::vector<uint32_t>{0, 2});
  wrong->SetUpStream(TCapture::Create());
  EXPECT_FALSE(wrong->InitAudio("pcm", 2, 16, 48000, false, 0));
  SetLogHook(nullptr);
  EXPECT_EQ(lines.front(), "Remapping channels...");
  EXPECT_EQ(lines.back(), "The channel modder was started with incorrect parameters.");
}

}  // namespace
}  // namespace sonvex::pcmtest
