// TLibavDecoder against ffmpeg's own decode of the corpus streams: lossless streams sample for
// sample at their real depth, lossy ones within 2 LSB at 24 bits after the TBitdepthReducer.
#include "codecs/libavdecoder.h"

#include <gtest/gtest.h>

#include "codecs/oracle.h"
#include "pcm/bitdepthreducer.h"

namespace sonvex::codecstest {
namespace {

struct DecodeResult {
  bool ok = false;
  std::shared_ptr<TCapture> capture;
  uint32_t decodedBits = 0;
};

// Decoder, reducer to 24 bits (as the chain has it), capture.
DecodeResult Decode(const std::string& tag, const std::vector<uint8_t>& data, size_t piece) {
  DecodeResult result;
  auto decoder = TLibavDecoder::CreateFor(tag);
  auto reducer = TBitdepthReducer::Create(24, true);
  result.capture = TCapture::Create();
  decoder->SetUpStream(reducer);
  reducer->SetUpStream(result.capture);
  decoder->SetSilent(true);
  result.ok = PushFile(*decoder, data, piece, tag);
  return result;
}

struct Case {
  const char* file;
  const char* tag;
  int32_t tolerance;  // in LSB of the output depth
  uint32_t channels;
  const char* ffmpegInput = "";  // forces ffmpeg's demuxer where probing a short file fails
};

class CorpusDecode : public ::testing::TestWithParam<Case> {};

TEST_P(CorpusDecode, MatchesFfmpeg) {
  SKIP_WITHOUT_CORPUS();
  SKIP_WITHOUT_TOOL("ffmpeg");
  const Case& c = GetParam();
  std::string path = CorpusPath(c.file);
  auto data = ReadFile(path);
  ASSERT_FALSE(data.empty()) << path;
  DecodeResult result = Decode(c.tag, data, 65536);
  ASSERT_TRUE(result.ok);
  const auto& init = result.capture->audioInits.at(0);
  EXPECT_EQ(init.channels, c.channels);
  ASSERT_TRUE(init.bits == 16 || init.bits == 24) << init.bits;
  uint32_t bytes = init.bits / 8;
  auto reference = FfmpegDecode(path, bytes == 2 ? "s16le" : "s24le", c.ffmpegInput);
  ASSERT_FALSE(reference.empty());
  EXPECT_TRUE(SamplesMatch(result.capture->bytes, reference, bytes, c.tolerance, init.channels));
}

INSTANTIATE_TEST_SUITE_P(
    Lossless, CorpusDecode,
    ::testing::Values(Case{"gen/truehd_20_48k.thd", "thd", 0, 2},
                      Case{"gen/truehd_51_48k.thd", "thd", 0, 6},
                      Case{"gen/mlp_20_48k.mlp", "mlp", 0, 2},
                      Case{"public/truehd/fba_2ch.mlp", "thd", 0, 2, "-f truehd"},
                      Case{"public/truehd/fba_atmos_obj.mlp", "thd", 0, 8, "-f truehd"},
                      Case{"public/truehd/dts1_truehd_ac3_interleaved.thdac3", "thd", 0, 8,
                           "-f truehd"},
                      Case{"public/dts/xll_51_24_48_768.dts", "dtsma", 0, 6},
                      Case{"public/dts/xll_51_16_192_768_0.dts", "dtsma", 0, 6},
                      Case{"public/dts/xll_71_24_48_768_0.dts", "dtsma", 0, 8},
                      Case{"public/dts/dts1_dtsma_51_16.dtshd", "dtsma", 0, 6}));

INSTANTIATE_TEST_SUITE_P(
    Lossy, CorpusDecode,
    ::testing::Values(Case{"gen/ac3_51_448k.ac3", "ac3", 2, 6},
                      Case{"public/ac3/monsters_inc_2.0_192_small.ac3", "ac3", 2, 2},
                      Case{"gen/eac3_51_640k.eac3", "eac3", 2, 6},
                      Case{"public/eac3/csi_miami_5.1_256_spx_small.eac3", "eac3", 2, 6},
                      Case{"public/dts/core_51_24_48_768_0.dts", "dts", 2, 6, "-f dts"},
                      Case{"gen/dts_51_768k.dts", "dts", 2, 6},
                      Case{"gen/mp2_20_224k.mp2", "mp2", 2, 2, "-c:a mp2float"}));

// Two AC3 frames in one block give two sends; the block boundaries don't matter.
TEST(LibavDecoder, BlockBoundariesDoNotMatter) {
  SKIP_WITHOUT_CORPUS();
  auto data = ReadFile(CorpusPath("gen/ac3_20_192k.ac3"));
  data.resize(std::min<size_t>(data.size(), 768 * 20));
  DecodeResult whole = Decode("ac3", data, data.size());
  DecodeResult bytes = Decode("ac3", data, 7);
  ASSERT_TRUE(whole.ok && bytes.ok);
  EXPECT_EQ(whole.capture->bytes.size(), 1536u * 2 * 3 * 20);
  EXPECT_EQ(whole.capture->bytes, bytes.capture->bytes);
}

TEST(LibavDecoder, CorruptFrameEndsTheRun) {
  SKIP_WITHOUT_CORPUS();
  auto data = ReadFile(CorpusPath("gen/truehd_20_48k.thd"));
  ASSERT_GT(data.size(), 20000u);
  for (size_t i = 9000; i < 9400; i++) data[i] ^= 0x5A;  // damage inside an access unit
  TLog errors;
  auto decoder = TLibavDecoder::CreateFor("thd");
  decoder->SetUpStream(TCapture::Create());
  EXPECT_FALSE(PushFile(*decoder, data, 4096, "thd"));
  ASSERT_FALSE(errors.Texts(2).empty());
  EXPECT_EQ(errors.Texts(2).back(), "The libav decoder reported an error while decoding.");
}

// Zeros never decode: nothing is announced or sent, and the run is no failure.
TEST(LibavDecoder, StreamThatNeverDecodesAnnouncesNothing) {
  auto decoder = TLibavDecoder::CreateFor("ac3");
  auto capture = TCapture::Create();
  decoder->SetUpStream(capture);
  decoder->SetSilent(true);
  EXPECT_TRUE(PushFile(*decoder, std::vector<uint8_t>(5000, 0), 1000, "ac3"));
  EXPECT_TRUE(capture->audioInits.empty());
  EXPECT_TRUE(capture->bytes.empty());
}

// Behind a seam of joined files the decoder restarts at the next major sync with the lossless
// complaint muted; for a stream that really is continuous the output stays the same.
TEST(LibavDecoder, SeamOnTrueHdKeepsDecoding) {
  SKIP_WITHOUT_CORPUS();
  auto data = ReadFile(CorpusPath("gen/truehd_20_48k.thd"));
  auto whole = Decode("thd", data, 65536);
  auto decoder = TLibavDecoder::CreateFor("thd");
  auto capture = TCapture::Create();
  decoder->SetUpStream(capture);
  decoder->SetSilent(true);
  ASSERT_TRUE(decoder->InitAudio("thd", 2, 24, 48000, false, 0));
  size_t half = data.size() / 2;
  ASSERT_TRUE(decoder->Write(0, false, data.data(), uint32_t(half), -1, false));
  decoder->NotifySeam(true, 0);
  decoder->NotifySeam(false, 0);
  ASSERT_TRUE(decoder->Write(0, false, data.data() + half, uint32_t(data.size() - half), -1, false));
  ASSERT_TRUE(decoder->Finish());
  EXPECT_EQ(capture->seams.size(), 2u);  // handed on
  EXPECT_EQ(capture->bytes, whole.capture->bytes);
}

}  // namespace
}  // namespace sonvex::codecstest
