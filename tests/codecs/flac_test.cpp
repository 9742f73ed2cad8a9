// TFlacEncoder and TFlacDecoder: WAV -> FLAC -> PCM is lossless, libFLAC's own tester and ffmpeg
// accept what we write, corpus FLAC decodes as ffmpeg decodes it, and damage aborts by its words.
#include <gtest/gtest.h>

#include "codecs/flacdecoder.h"
#include "codecs/flacencoder.h"
#include "codecs/oracle.h"
#include "codecs/wavreader.h"

namespace sonvex::codecstest {
namespace {

// Reader (or decoder) `head` -> [encoder ->] memory file; the bytes that reach the end.
std::vector<uint8_t> Through(const UpStreamRef& head, const UpStreamRef& encoder,
                             const std::vector<uint8_t>& file) {
  auto memory = TMemoryFile::Create();
  head->SetUpStream(encoder ? encoder : UpStreamRef(memory));
  if (encoder) encoder->SetUpStream(memory);
  head->SetSilent(true);
  return PushFile(*head, file, 65536) ? memory->bytes : std::vector<uint8_t>{};
}

std::shared_ptr<TCapture> DecodeFlac(const std::vector<uint8_t>& flac, size_t piece, bool& ok,
                                     bool silent = true) {
  auto decoder = TFlacDecoder::Create();
  auto capture = TCapture::Create();
  decoder->SetUpStream(capture);
  if (silent) decoder->SetSilent(true);
  ok = PushFile(*decoder, flac, piece);
  return capture;
}

TEST(Flac, WavToFlacAndBackIsLossless) {
  SKIP_WITHOUT_CORPUS();
  TempDir dir;
  for (const char* name : {"gen/wav_51_24.wav", "gen/wav_20_16.wav"}) {
    auto wav = ReadFile(CorpusPath(name));
    auto flac = Through(TWavReader::Create(), TFlacEncoder::Create(8, nullptr), wav);
    ASSERT_GT(flac.size(), 1000u) << name;
    EXPECT_LT(flac.size(), wav.size());
    bool ok = false;
    auto capture = DecodeFlac(flac, 5000, ok);
    ASSERT_TRUE(ok) << name;
    EXPECT_EQ(capture->bytes, Through(TWavReader::Create(), nullptr, wav)) << name;
    EXPECT_EQ(capture->audioInits.at(0).totalSize, 288000);
    if (HaveTool("flac")) {
      WriteFile(dir / "roundtrip.flac", flac);
      EXPECT_EQ(std::system(("flac -t -s '" + dir / "roundtrip.flac" + "'").c_str()), 0) << name;
    }
  }
}

TEST(Flac, CorpusFlacDecodesAsFfmpegDoes) {
  SKIP_WITHOUT_CORPUS();
  SKIP_WITHOUT_TOOL("ffmpeg");
  for (auto [name, format, bytes] : {std::tuple{"gen/flac_51_24.flac", "s24le", 3u},
                                     std::tuple{"gen/flac_20_16.flac", "s16le", 2u}}) {
    bool ok = false;
    auto capture = DecodeFlac(ReadFile(CorpusPath(name)), 777, ok);
    ASSERT_TRUE(ok) << name;
    auto reference = FfmpegDecode(CorpusPath(name), format);
    EXPECT_TRUE(SamplesMatch(capture->bytes, reference, bytes, 0, capture->audioInits[0].channels));
  }
}

// The decoder gathers what it is written and hands about 1 MiB at a time to libFLAC's thread:
// pieces of any size, across and within those hand-overs, decode to the same samples.
TEST(FlacDecoderThreads, PiecesOfAnySizeDecodeAsFfmpegDoes) {
  SKIP_WITHOUT_CORPUS();
  SKIP_WITHOUT_TOOL("ffmpeg");
  const auto flac = ReadFile(CorpusPath("gen/flac_51_24.flac"));
  ASSERT_GT(flac.size(), size_t(2) << 20) << "the stream must span several hand-overs";
  const auto reference = FfmpegDecode(CorpusPath("gen/flac_51_24.flac"), "s24le");
  for (size_t piece : {size_t(7), size_t(16384), size_t(1) << 20, (size_t(1) << 20) + 1,
                       flac.size()}) {
    bool ok = false;
    auto capture = DecodeFlac(flac, piece, ok);
    ASSERT_TRUE(ok) << piece;
    EXPECT_EQ(capture->finished, 1);
    EXPECT_TRUE(SamplesMatch(capture->bytes, reference, 3, 0, 6)) << piece;
  }
}

TEST(Flac, MetadataOfTheSourceIsCarriedOver) {
  SKIP_WITHOUT_CORPUS();
  SKIP_WITHOUT_TOOL("metaflac");
  TempDir dir;
  std::string tagged = dir / "tagged.flac";
  fs::copy_file(CorpusPath("gen/flac_20_16.flac"), tagged);
  fs::permissions(tagged, fs::perms::owner_write, fs::perm_options::add);
  ASSERT_EQ(std::system(("metaflac --set-tag=TITLE=sonvex '" + tagged + "'").c_str()), 0);
  auto decoder = TFlacDecoder::Create();
  WriteFile(dir / "copied.flac", Through(decoder, TFlacEncoder::Create(8, decoder), ReadFile(tagged)));
  auto tags = RunCommand("metaflac --show-tag=TITLE '" + dir / "copied.flac" + "'");
  EXPECT_EQ(std::string(tags.begin(), tags.end()), "TITLE=sonvex\n");
}

TEST(Flac, CorruptFrameAbortsWithCrcMessageAndCutStreamEndsCleanly) {
  SKIP_WITHOUT_CORPUS();
  auto flac = ReadFile(CorpusPath("gen/flac_20_16.flac"));
  ASSERT_GT(flac.size(), 60000u);
  auto damaged = flac;
  damaged[flac.size() / 2] ^= 0x10;
  TLog errors;
  bool ok = true;
  DecodeFlac(damaged, 4096, ok, false);
  EXPECT_FALSE(ok);
  ASSERT_FALSE(errors.Texts(2).empty());
  EXPECT_TRUE(errors.Texts(2)[0] == "The frame's data did not match the CRC in the footer." ||
              errors.Texts(2)[0] == "An error in the stream caused the FLAC decoder to lose synchronization." ||
              errors.Texts(2)[0] == "The FLAC decoder encountered a corrupted frame header.")
      << errors.Texts(2)[0];

  flac.resize(flac.size() * 2 / 3);
  auto capture = DecodeFlac(flac, 4096, ok);
  EXPECT_TRUE(ok);
  EXPECT_GT(capture->bytes.size(), 0u);
  EXPECT_EQ(capture->finished, 1);
}

// 8-bit PCM in its offset form, and a streaming destination: without a seekable end libFLAC can't
// go back to STREAMINFO, so a stream announced with no length keeps total samples 0; the header
// blocks go out marked.
TEST(Flac, EightBitAndUnknownLengthOnAStreamingDestination) {
  for (uint32_t bits : {8u, 16u}) {
    std::vector<uint8_t> pcm(2 * bits / 8 * 4096);
    for (size_t i = 0; i < pcm.size(); i++) pcm[i] = bits == 8 ? uint8_t(0x80 + int(i % 50) - 25) : uint8_t(i * 3);
    auto encoder = TFlacEncoder::Create();
    auto capture = TCapture::Create();
    encoder->SetUpStream(capture);
    encoder->SetSilent(true);
    ASSERT_TRUE(encoder->InitAudio("pcm", 2, bits, 44100, false, 0));
    ASSERT_FALSE(capture->headers.empty());
    EXPECT_TRUE(capture->headers.front());  // "fLaC" and STREAMINFO during init
    ASSERT_TRUE(encoder->Write(0, false, pcm.data(), uint32_t(pcm.size()), -1, false));
    ASSERT_TRUE(encoder->Finish());
    EXPECT_FALSE(capture->headers.back());
    bool ok = false;
    auto decoded = DecodeFlac(capture->bytes, 333, ok);
    ASSERT_TRUE(ok);
    EXPECT_EQ(decoded->audioInits.at(0).totalSize, 0);
    EXPECT_EQ(decoded->audioInits.at(0).sampleRate, 44100u);
    EXPECT_EQ(decoded->bytes, pcm) << bits;
  }
}

}  // namespace
}  // namespace sonvex::codecstest
