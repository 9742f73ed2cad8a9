// TFlacEncoder and TFlacDecoder: WAV -> FLAC -> PCM is lossless, libFLAC's own tester and ffmpeg
// accept what we write, corpus FLAC decodes as ffmpeg decodes it, and damage aborts by its words.
#include <gtest/gtest.h>

#include "codecs/flacdecoder.h"
#include "codecs/flacencoder.h"
#include "codecs/oracle.h"
#include "codecs/seekcapture.h"
#include "codecs/wavreader.h"
#include "framework/console.h"

namespace sonvex::test {}
namespace sonvex::codecstest {
using namespace ::sonvex::test;
namespace {

std::vector<uint8_t> EncodeWav(const std::vector<uint8_t>& wav, std::shared_ptr<IFlacDecoder> source = nullptr) {
  auto reader = TWavReader::Create();
  auto encoder = TFlacEncoder::Create(8, source);
  auto memory = TMemoryFile::Create();
  reader->SetUpStream(encoder);
  encoder->SetUpStream(memory);
  reader->SetSilent(true);
  if (!PushFile(*reader, wav, 65536)) return {};
  return memory->bytes;
}

std::shared_ptr<TCapture> DecodeFlac(const std::vector<uint8_t>& flac, size_t piece, bool& ok) {
  auto decoder = TFlacDecoder::Create();
  auto capture = TCapture::Create();
  decoder->SetUpStream(capture);
  decoder->SetSilent(true);
  ok = PushFile(*decoder, flac, piece);
  return capture;
}

std::vector<uint8_t> WavPayload(const std::vector<uint8_t>& wav) {
  auto reader = TWavReader::Create();
  auto capture = TCapture::Create();
  reader->SetUpStream(capture);
  reader->SetSilent(true);
  PushFile(*reader, wav, 65536);
  return capture->bytes;
}

TEST(Flac, WavToFlacAndBackIsLossless) {
  if (!HaveCorpus()) GTEST_SKIP();
  for (const char* name : {"gen/wav_51_24.wav", "gen/wav_20_16.wav"}) {
    auto wav = ReadFile(CorpusPath(name));
    auto flac = EncodeWav(wav);
    ASSERT_GT(flac.size(), 1000u) << name;
    EXPECT_LT(flac.size(), wav.size());
    bool ok = false;
    auto capture = DecodeFlac(flac, 5000, ok);
    ASSERT_TRUE(ok) << name;
    EXPECT_EQ(capture->bytes, WavPayload(wav)) << name;
    ASSERT_EQ(capture->audioInits.size(), 1u);
    EXPECT_EQ(capture->audioInits[0].totalSize, 288000);
    if (HaveTool("flac")) {
      std::string file = TempName("roundtrip.flac");
      WriteFile(file, flac);
      EXPECT_EQ(std::system(("flac -t -s '" + file + "'").c_str()), 0) << name;
    }
  }
}

TEST(Flac, CorpusFlacDecodesAsFfmpegDoes) {
  if (!HaveCorpus() || !HaveTool("ffmpeg")) GTEST_SKIP();
  for (auto [name, format, bytes] : {std::tuple{"gen/flac_51_24.flac", "s24le", 3u},
                                     std::tuple{"gen/flac_20_16.flac", "s16le", 2u}}) {
    bool ok = false;
    auto capture = DecodeFlac(ReadFile(CorpusPath(name)), 777, ok);
    ASSERT_TRUE(ok) << name;
    auto reference = FfmpegDecode(CorpusPath(name), format);
    EXPECT_TRUE(SamplesMatch(capture->bytes, reference, bytes, 0, capture->audioInits[0].channels));
  }
}

TEST(Flac, MetadataOfTheSourceIsCarriedOver) {
  if (!HaveCorpus() || !HaveTool("metaflac")) GTEST_SKIP();
  std::string tagged = TempName("tagged.flac");
  std::filesystem::copy_file(CorpusPath("gen/flac_20_16.flac"), tagged,
                             std::filesystem::copy_options::overwrite_existing);
  std::filesystem::permissions(tagged, std::filesystem::perms::owner_write,
                               std::filesystem::perm_options::add);
  ASSERT_EQ(std::system(("metaflac --set-tag=TITLE=sonvex '" + tagged + "'").c_str()), 0);
  auto decoder = TFlacDecoder::Create();
  auto encoder = TFlacEncoder::Create(8, decoder);
  auto memory = TMemoryFile::Create();
  decoder->SetUpStream(encoder);
  encoder->SetUpStream(memory);
  decoder->SetSilent(true);
  ASSERT_TRUE(PushFile(*decoder, ReadFile(tagged), 65536));
  std::string out = TempName("copied.flac");
  WriteFile(out, memory->bytes);
  auto tags = RunCommand("metaflac --show-tag=TITLE '" + out + "'");
  EXPECT_EQ(std::string(tags.begin(), tags.end()), "TITLE=sonvex\n");
}

TEST(Flac, CorruptFrameAbortsWithCrcMessage) {
  if (!HaveCorpus()) GTEST_SKIP();
  auto flac = ReadFile(CorpusPath("gen/flac_20_16.flac"));
  ASSERT_GT(flac.size(), 60000u);
  flac[flac.size() / 2] ^= 0x10;
  std::vector<std::string> errors;
  SetLogHook([&](int level, const std::string& text) {
    if (level == 2) errors.push_back(text);
  });
  auto decoder = TFlacDecoder::Create();
  auto capture = TCapture::Create();
  decoder->SetUpStream(capture);
  bool ok = PushFile(*decoder, flac, 4096);
  SetLogHook(nullptr);
  EXPECT_FALSE(ok);
  ASSERT_FALSE(errors.empty());
  EXPECT_TRUE(errors[0] == "The frame's data did not match the CRC in the footer." ||
              errors[0] == "An error in the stream caused the FLAC decoder to lose synchronization." ||
              errors[0] == "The FLAC decoder encountered a corrupted frame header.")
      << errors[0];
}

TEST(Flac, EncoderRefusesNineChannels) {
  std::vector<std::string> errors;
  SetLogHook([&](int, const std::string& text) { errors.push_back(text); });
  auto encoder = TFlacEncoder::Create();
  encoder->SetUpStream(TMemoryFile::Create());
  EXPECT_FALSE(encoder->InitAudio("pcm", 9, 16, 48000, false, 0));
  SetLogHook(nullptr);
  ASSERT_EQ(errors.size(), 1u);
  EXPECT_EQ(errors[0], "The FLAC encoder received a non-supported data format.");
}

TEST(Flac, EightBitOffsetFormRoundTrips) {
  std::vector<uint8_t> pcm(4800 * 2);
  for (size_t i = 0; i < pcm.size(); i++) pcm[i] = uint8_t(0x80 + int(i % 50) - 25);
  auto encoder = TFlacEncoder::Create();
  auto memory = TMemoryFile::Create();
  encoder->SetUpStream(memory);
  encoder->SetSilent(true);
  ASSERT_TRUE(encoder->InitAudio("pcm", 2, 8, 48000, false, 4800));
  ASSERT_TRUE(encoder->Write(0, false, pcm.data(), uint32_t(pcm.size()), -1, false));
  ASSERT_TRUE(encoder->Finish());
  bool ok = false;
  auto capture = DecodeFlac(memory->bytes, 100, ok);
  ASSERT_TRUE(ok);
  EXPECT_EQ(capture->bytes, pcm);
}

TEST(Flac, TruncatedStreamEndsWithoutError) {
  if (!HaveCorpus()) GTEST_SKIP();
  auto flac = ReadFile(CorpusPath("gen/flac_20_16.flac"));
  flac.resize(flac.size() * 2 / 3);
  bool ok = false;
  auto capture = DecodeFlac(flac, 4096, ok);
  EXPECT_TRUE(ok);
  EXPECT_GT(capture->bytes.size(), 0u);
  EXPECT_EQ(capture->finished, 1);
}

}  // namespace
}  // namespace sonvex::codecstest

namespace sonvex::test {}
namespace sonvex::codecstest {
using namespace ::sonvex::test;
namespace {

// Without a seekable destination libFLAC can't go back to STREAMINFO: a stream announced with no
// length keeps total samples 0, and the decoder announces 0. The header blocks go out marked.
TEST(Flac, UnknownLengthOnAStreamingDestination) {
  std::vector<uint8_t> pcm(2 * 2 * 4096);
  for (size_t i = 0; i < pcm.size(); i++) pcm[i] = uint8_t(i * 3);
  auto encoder = TFlacEncoder::Create();
  auto capture = TCapture::Create();
  encoder->SetUpStream(capture);
  encoder->SetSilent(true);
  ASSERT_TRUE(encoder->InitAudio("pcm", 2, 16, 44100, false, 0));
  ASSERT_FALSE(capture->headers.empty());
  EXPECT_TRUE(capture->headers.front());  // "fLaC" and STREAMINFO during init
  size_t headerBlocks = capture->headers.size();
  ASSERT_TRUE(encoder->Write(0, false, pcm.data(), uint32_t(pcm.size()), -1, false));
  ASSERT_TRUE(encoder->Finish());
  ASSERT_GT(capture->headers.size(), headerBlocks);
  EXPECT_FALSE(capture->headers.back());
  bool ok = false;
  auto decoded = DecodeFlac(capture->bytes, 333, ok);
  ASSERT_TRUE(ok);
  EXPECT_EQ(decoded->audioInits.at(0).totalSize, 0);
  EXPECT_EQ(decoded->audioInits.at(0).sampleRate, 44100u);
  EXPECT_EQ(decoded->bytes, pcm);
}

}  // namespace
}  // namespace sonvex::codecstest
