// TTsPcmReader: the Blu-ray LPCM header, its refusals, incomplete samples, the initial delay.
#include "ts/tspcmreader.h"

#include <gtest/gtest.h>

#include "support/capture.h"
#include "ts/tsbuilder.h"

namespace sonvex::tstest {
namespace {

Bytes LpcmBlock(uint32_t assignment, uint32_t rateCode, uint32_t depthCode, size_t bytes) {
  BitWriter w;
  w.Put(16, bytes);       // audio_data_payload_size
  w.Put(4, assignment);   // channel_assignment
  w.Put(4, rateCode);     // sampling_frequency
  w.Put(2, depthCode);    // bits_per_sample
  w.Put(6, 0);            // start flag, reserved
  for (size_t i = 0; i < bytes; i++) w.Put(8, uint8_t(i * 3));
  return w.bytes;
}

struct PcmRun {
  std::shared_ptr<TTsPcmReader> reader = TTsPcmReader::Create();
  std::shared_ptr<TCapture> capture = TCapture::Create();
  PcmRun() {
    reader->SetUpStream(capture);
    EXPECT_TRUE(reader->InitAudio("m2ts/pcm", 0, 0, 0, false, 0));
  }
  bool Write(const Bytes& block, int64_t position = -1) {
    return reader->Write(0, false, block.data(), uint32_t(block.size()), position, false);
  }
};

TEST(TsPcmReader, HeadersGiveStoredChannelsRateAndContainerSize) {
  struct Case {
    uint32_t assignment, rate, depth;
    uint32_t channels, sampleRate, bits;
  } cases[] = {
      {1, 1, 1, 2, 48000, 16},   // mono travels as two channels
      {3, 4, 3, 2, 96000, 24},   // stereo
      {5, 5, 2, 4, 192000, 24},  // 2/1 as four; 20 bits in 24 bit containers
      {8, 1, 1, 6, 48000, 16},   // 3/2 without LFE: six stored, never five
      {9, 1, 3, 6, 48000, 24},   // 5.1
      {11, 1, 3, 8, 48000, 24},  // 7.1
  };
  for (const Case& c : cases) {
    PcmRun run;
    Bytes block = LpcmBlock(c.assignment, c.rate, c.depth, c.channels * c.bits / 8 * 10);
    ASSERT_TRUE(run.Write(block, 1000));
    ASSERT_EQ(run.capture->audioInits.size(), 1u);
    const auto& init = run.capture->audioInits[0];
    EXPECT_EQ(init.format, "pcm");
    EXPECT_EQ(init.channels, c.channels);
    EXPECT_EQ(init.sampleRate, c.sampleRate);
    EXPECT_EQ(init.bits, c.bits);
    EXPECT_TRUE(init.bigEndian);
    EXPECT_EQ(run.capture->bytes, Bytes(block.begin() + 4, block.end()));
    EXPECT_EQ(run.reader->AudioDetails()->Name(), "RAW/PCM");
    EXPECT_EQ(run.capture->positions[0], 1000);
  }
}

TEST(TsPcmReader, RefusesWhatItCannotCarry) {
  struct Case {
    Bytes block;
    const char* message;
  } cases[] = {
      {{0, 0, 0x31}, "The ts pcm reader received an incorrectly sized data block."},
      {LpcmBlock(2, 1, 1, 8), "The ts pcm reader received an unsupported channel number."},
      {LpcmBlock(3, 1, 0, 8), "The ts pcm reader received an unsupported bitdepth."},
      {LpcmBlock(3, 2, 1, 8), "The ts pcm reader received an unsupported sample rate."},
  };
  for (const Case& c : cases) {
    LogCatcher log;
    PcmRun run;
    EXPECT_FALSE(run.Write(c.block)) << c.message;
    EXPECT_TRUE(log.Has(c.message)) << c.message;
  }
  LogCatcher log;
  PcmRun run;
  ASSERT_TRUE(run.Write(LpcmBlock(3, 1, 1, 40)));
  EXPECT_FALSE(run.Write(LpcmBlock(9, 1, 1, 48)));
  EXPECT_TRUE(log.Has("The ts pcm reader received a PCM block in an unexpected format."));

  auto reader = TTsPcmReader::Create();
  reader->SetUpStream(TCapture::Create());
  EXPECT_FALSE(reader->InitAudio("ac3", 0, 0, 0, false, 0));
  EXPECT_TRUE(log.Has("The ts pcm reader received a non-supported data format."));
}

TEST(TsPcmReader, CutsIncompleteSamplesAndCountsTheSamplesAheadOfTheFirstStamp) {
  LogCatcher log;
  PcmRun run;
  EXPECT_FALSE(run.reader->HasTimestamps());
  ASSERT_TRUE(run.Write(LpcmBlock(3, 1, 1, 4 * 480 + 3)));  // 480 samples and 3 stray bytes
  EXPECT_TRUE(log.Has("Dropped incomplete PCM/RAW sample."));
  ASSERT_TRUE(run.Write(LpcmBlock(3, 1, 1, 4 * 480), 90000));
  EXPECT_TRUE(run.reader->HasTimestamps());
  EXPECT_EQ(run.reader->InitialDelay(), -10);  // 480 samples at 48 kHz ahead of the stamp
  EXPECT_EQ(run.capture->bytes.size(), 2u * 4 * 480);
  ASSERT_TRUE(run.reader->Write(0, false, nullptr, 0, -1, true));
  EXPECT_EQ(run.capture->blocks.back(), 0u);
}

}  // namespace
}  // namespace sonvex::tstest
