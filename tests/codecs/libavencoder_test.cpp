// The AC3 and DTS encoder stages in process: bit rate tables, the formats they refuse and their
// words, and the frames they send (one whole frame per Send, ceil(samples / frame length) of
// them, read back as clean frames by this program's own header parsers).
#include <gtest/gtest.h>

#include <cmath>

#include "ac3/ac3bitstream.h"
#include "ac3/ac3encoder.h"
#include "dts/dtsbitstream.h"
#include "dts/dtsencoder.h"
#include "oracle.h"
#include "support/capture.h"

namespace sonvex::codecstest {
namespace {

using test::TCapture;

// Interleaved PCM: a quiet sine, one frequency per channel, of `bits` bits.
std::vector<uint8_t> Sine(uint32_t frames, uint32_t channels, uint32_t bits, uint32_t rate) {
  std::vector<uint8_t> out;
  const uint32_t bytes = bits / 8;
  for (uint32_t i = 0; i < frames; i++)
    for (uint32_t c = 0; c < channels; c++) {
      double v = 0.25 * std::sin(2 * M_PI * (300.0 + 200 * c) * i / rate);
      int32_t s = int32_t(std::lround(v * double(1u << (bits - 1))));
      if (bits == 8) s += 128;
      for (uint32_t b = 0; b < bytes; b++) out.push_back(uint8_t(uint32_t(s) >> (8 * b)));
    }
  return out;
}

struct Run {
  std::shared_ptr<TCapture> capture = TCapture::Create();
  bool ok = false;
};

// Init, the data in pieces of `piece` bytes, Finish.
Run Encode(const std::shared_ptr<TLibavEncoder>& encoder, const std::vector<uint8_t>& pcm,
           uint32_t channels, uint32_t bits, uint32_t rate, size_t piece) {
  Run run;
  encoder->SetUpStream(run.capture);
  run.ok = encoder->InitAudio("pcm", channels, bits, rate, false, int64_t(pcm.size()));
  for (size_t at = 0; run.ok && at < pcm.size(); at += piece)
    run.ok = encoder->Write(0, false, pcm.data() + at, uint32_t(std::min(piece, pcm.size() - at)),
                            -1, false);
  if (run.ok) run.ok = encoder->Finish();
  return run;
}

TEST(Ac3Encoder, BitrateTable) {
  for (uint32_t kbits : {32u, 40u, 48u, 56u, 64u, 80u, 96u, 112u, 128u, 160u, 192u, 224u, 256u,
                         320u, 384u, 448u, 512u, 576u, 640u}) {
    auto run = Encode(TAc3Encoder::Create(kbits), Sine(1536, 2, 16, 48000), 2, 16, 48000, 6144);
    ASSERT_TRUE(run.ok) << kbits;
    TAc3FrameInfo info;
    ASSERT_EQ(ParseAc3Frame(run.capture->bytes.data(), uint32_t(run.capture->bytes.size()), info),
              kAc3Good);
    EXPECT_EQ(info.bitrate, kbits * 1000);
    EXPECT_EQ(info.frameSize, kbits * 4);  // 1536 samples at 48 kHz: 32 ms
  }
  for (uint32_t kbits : {31u, 500u, 639u, 768u, 1536u}) {
    TLog log;
    auto encoder = TAc3Encoder::Create(kbits);
    EXPECT_FALSE(encoder->IsValid());
    EXPECT_EQ(log.Texts(), std::vector<std::string>{"This bitrate isn't supported by the AC3 encoder."});
    EXPECT_FALSE(encoder->InitAudio("pcm", 2, 16, 48000, false, 0));
  }
}

TEST(DtsEncoder, BitrateTable) {
  for (uint32_t kbits : {768u, 1536u}) {
    auto run = Encode(TDtsEncoder::Create(kbits), Sine(512, 6, 24, 48000), 6, 24, 48000, 1 << 20);
    ASSERT_TRUE(run.ok);
    TDtsFrameInfo info = ParseDtsFrame(run.capture->bytes.data(),
                                       uint32_t(run.capture->bytes.size()), false, true);
    EXPECT_EQ(info.result, 0);
    EXPECT_EQ(info.bitrate, kbits * 1000);
    EXPECT_EQ(info.coreSize, kbits * 4 / 3);  // 512 samples at 48 kHz
  }
  for (uint32_t kbits : {448u, 640u, 1000u}) {
    TLog log;
    EXPECT_FALSE(TDtsEncoder::Create(kbits)->IsValid());
    EXPECT_EQ(log.Texts(), std::vector<std::string>{"This bitrate isn't supported by the DTS encoder."});
  }
}

// Formats each stage refuses, and the one line it says.
struct Refusal {
  bool dts;
  std::string format;
  uint32_t channels, bits, rate;
  bool bigEndian;
  const char* message;
};

TEST(LibavEncoders, RefusedFormats) {
  const Refusal cases[] = {
      {false, "ac3", 2, 16, 48000, false, "The AC3 encoder received a non-supported data format."},
      {false, "pcm", 7, 16, 48000, false, "The AC3 encoder received a non-supported data format."},
      {false, "pcm", 8, 24, 48000, false, "The AC3 encoder received a non-supported data format."},
      {false, "pcm", 2, 32, 48000, false, "The AC3 encoder received a non-supported data format."},
      {false, "pcm", 2, 16, 48000, true, "The AC3 encoder received a non-supported data format."},
      {false, "pcm", 2, 16, 96000, false, "Initialization of the AC3 encoder failed."},
      {false, "pcm", 2, 16, 22050, false, "Initialization of the AC3 encoder failed."},
      {true, "pcm", 2, 20, 48000, false, "The DTS encoder received a non-supported data format."},
      {true, "pcm", 3, 16, 48000, false, "The DTS encoder didn't accept this channel configuration."},
      {true, "pcm", 8, 24, 48000, false, "The DTS encoder didn't accept this channel configuration."},
      {true, "pcm", 2, 16, 32000, false, "The DTS encoder didn't accept this sample rate."},
      {true, "pcm", 6, 24, 96000, false, "The DTS encoder didn't accept this sample rate."},
  };
  for (const Refusal& c : cases) {
    std::shared_ptr<TLibavEncoder> encoder;
    if (c.dts)
      encoder = TDtsEncoder::Create(1536);
    else
      encoder = TAc3Encoder::Create(448);
    auto capture = TCapture::Create();
    encoder->SetUpStream(capture);
    TLog log;
    EXPECT_FALSE(encoder->InitAudio(c.format, c.channels, c.bits, c.rate, c.bigEndian, 0));
    EXPECT_FALSE(encoder->IsValid());
    ASSERT_FALSE(log.Texts().empty());
    EXPECT_EQ(log.Texts().back(), c.message) << c.channels << " " << c.bits << " " << c.rate;
    EXPECT_FALSE(encoder->Write(0, false, nullptr, 0, -1, false));
    EXPECT_TRUE(capture->bytes.empty());
  }
  // A stage with nowhere to send.
  TLog log;
  auto lonely = TAc3Encoder::Create(448);
  EXPECT_FALSE(lonely->InitAudio("pcm", 2, 16, 48000, false, 0));
  EXPECT_EQ(log.Texts(), std::vector<std::string>{"The AC3 encoder upstream property is not set."});
}

// WAV masks: taken where the encoder has the layout (the surround pair as side or back, no mask
// as the usual layout, one channel as mono), refused as a configuration where it has none.
struct Mask {
  bool dts;
  uint32_t channels, mask;
  bool taken;
};

TEST(LibavEncoders, ChannelMasks) {
  const Mask cases[] = {
      {false, 6, 0x3F, true},  {false, 6, 0x60F, true}, {false, 6, 0, true},
      {false, 5, 0x37, true},  {false, 4, 0x107, true}, {false, 3, 0x103, true},
      {false, 1, 0x1, true},   {false, 4, 0xC3, false}, {false, 6, 0x707, false},
      {true, 6, 0x3F, true},   {true, 6, 0x60F, true},  {true, 2, 0x3, true},
      {true, 1, 0x4, true},    {true, 6, 0x707, false},
  };
  for (const Mask& c : cases) {
    std::shared_ptr<TLibavEncoder> encoder;
    if (c.dts)
      encoder = TDtsEncoder::Create(768);
    else
      encoder = TAc3Encoder::Create(448);
    encoder->SetChannelMask(c.mask);
    encoder->SetUpStream(TCapture::Create());
    TLog log;
    EXPECT_EQ(encoder->InitAudio("pcm", c.channels, 16, 48000, false, 0), c.taken)
        << c.channels << " channels, mask " << c.mask;
    if (!c.taken) {
      const std::string family = c.dts ? "DTS" : "AC3";
      EXPECT_EQ(log.Texts(1), std::vector<std::string>{"The " + family +
                                                    " encoder didn't accept this channel "
                                                    "configuration."});
    }
  }
}

// Frames per stream length, and one whole frame per Send whatever the input pieces are.
struct Length {
  bool dts;
  uint32_t frames, channels, bits, rate;
  size_t piece;
};

TEST(LibavEncoders, OneFramePerSendAndFrameCounts) {
  const Length cases[] = {
      {false, 1, 2, 16, 48000, 4},          {false, 1535, 6, 24, 48000, 999},
      {false, 1536, 1, 8, 44100, 1536},     {false, 1537, 2, 16, 32000, 1 << 20},
      {false, 48000, 6, 16, 48000, 16384},  {false, 44100, 2, 24, 44100, 7},
      {false, 9216, 5, 16, 48000, 30720},   {true, 1, 2, 16, 48000, 4},
      {true, 511, 1, 16, 44100, 100},       {true, 513, 6, 24, 48000, 65536},
      {true, 24000, 2, 8, 48000, 12345},
  };
  for (const Length& c : cases) {
    const uint32_t block = c.dts ? 512 : 1536;
    std::shared_ptr<TLibavEncoder> encoder;
    if (c.dts)
      encoder = TDtsEncoder::Create(768);
    else
      encoder = TAc3Encoder::Create(c.channels > 2 ? 448 : 192);
    auto run = Encode(encoder, Sine(c.frames, c.channels, c.bits, c.rate), c.channels, c.bits,
                      c.rate, c.piece);
    ASSERT_TRUE(run.ok);
    auto& cap = *run.capture;
    ASSERT_EQ(cap.audioInits.size(), 1u);
    EXPECT_EQ(cap.audioInits[0].format, c.dts ? "dts" : "ac3");
    EXPECT_EQ(cap.finished, 1);
    EXPECT_EQ(cap.blocks.size(), (c.frames + block - 1) / block) << c.frames;
    size_t at = 0;
    for (uint32_t size : cap.blocks) {
      const uint8_t* frame = cap.bytes.data() + at;
      if (c.dts) {
        TDtsFrameInfo info = ParseDtsFrame(frame, size, false, at == 0);
        EXPECT_EQ(info.result, 0);
        EXPECT_EQ(info.coreSize, size);
        EXPECT_EQ(info.channels, c.channels);
        EXPECT_EQ(info.sampleRate, c.rate);
      } else {
        TAc3FrameInfo info;
        EXPECT_EQ(ParseAc3Frame(frame, size, info), kAc3Good);  // both CRCs hold
        EXPECT_EQ(info.frameSize, size);
        EXPECT_EQ(info.channels, c.channels);
        EXPECT_EQ(info.sampleRate, c.rate);
      }
      at += size;
    }
  }
}

// Nothing in, nothing out; the stream still ends.
TEST(LibavEncoders, EmptyStream) {
  for (bool dts : {false, true}) {
    std::shared_ptr<TLibavEncoder> encoder;
    if (dts)
      encoder = TDtsEncoder::Create(0);
    else
      encoder = TAc3Encoder::Create(0);
    auto run = Encode(encoder, {}, 2, 16, 48000, 1);
    EXPECT_TRUE(run.ok);
    EXPECT_TRUE(run.capture->bytes.empty());
    EXPECT_EQ(run.capture->finished, 1);
  }
}

// A next stage that refuses a frame stops the encoder without a word of its own.
TEST(LibavEncoders, RefusingNextStageStopsTheStream) {
  auto encoder = TAc3Encoder::Create(192);
  auto capture = TCapture::Create();
  encoder->SetUpStream(capture);
  ASSERT_TRUE(encoder->InitAudio("pcm", 2, 16, 48000, false, 0));
  capture->acceptWrites = false;
  TLog log;
  auto pcm = Sine(4000, 2, 16, 48000);
  EXPECT_FALSE(encoder->Write(0, false, pcm.data(), uint32_t(pcm.size()), -1, false));
  EXPECT_EQ(capture->blocks.size(), 1u);
  EXPECT_FALSE(encoder->Finish());
  EXPECT_TRUE(log.Texts().empty());
}

}  // namespace
}  // namespace sonvex::codecstest
