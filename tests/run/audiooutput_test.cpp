// The output half: decoder choice, the decoder chain, twin outputs and their 16-bit decision,
// the file writers by extension, and refusals of what this build can't make.
#include <gtest/gtest.h>

#include <map>

#include "codecs/flacdecoder.h"
#include "codecs/oracle.h"
#include "codecs/seekcapture.h"
#include "codecs/wavreader.h"
#include "framework/console.h"
#include "framework/smallstages.h"
#include "pcm/stripto16bit.h"
#include "run/audiochain.h"

namespace sonvex::test {}
namespace sonvex::runtest {
using namespace ::sonvex::test;
using namespace ::sonvex::codecstest;
namespace {

struct Harness {
  TOptions options;
  TAction action;
  TAudioBuild build;
  std::map<std::string, std::shared_ptr<TMemoryFile>> files;
  std::vector<std::pair<int, std::string>> lines;
  UpStreamRef head = TPassThrough::Create();

  explicit Harness(const std::string& dest) {
    action.dest = dest;
    build.options = &options;
    build.makeDestination = [this](const std::string& name) {
      auto file = TMemoryFile::Create();
      files[name] = file;
      return file;
    };
    SetLogHook([this](int level, const std::string& text) { lines.push_back({level, text}); });
  }
  ~Harness() { SetLogHook(nullptr); }
};

std::shared_ptr<TAudioBlock> Details(const std::string& tag, uint32_t channels, uint32_t bits) {
  auto block = std::make_shared<TAudioBlock>();
  block->format = tag;
  block->channels = channels;
  block->bits = bits;
  block->sampleRate = 48000;
  block->channelMask = DefaultChannelMask(channels);
  return block;
}

std::vector<uint8_t> Payload(const std::vector<uint8_t>& wav) {
  auto reader = TWavReader::Create();
  auto capture = TCapture::Create();
  reader->SetUpStream(capture);
  reader->SetSilent(true);
  PushFile(*reader, wav, 1 << 20);
  return capture->bytes;
}

// TrueHD 5.1 to FLAC: twin outputs; the 24-bit twin holds ffmpeg's decode, the stripper finds
// 24-bit content.
TEST(AudioOutput, TwinOutputsDecideTheBitDepth) {
  if (!HaveCorpus()) GTEST_SKIP();
  Harness h("movie.wav");
  auto details = Details("thd", 6, 24);
  ASSERT_TRUE(AppendDecoder(h.head, details, h.action, h.build));
  h.build.decoded = true;
  ASSERT_TRUE(BuildDecodedOutputs(h.head, details, h.action, h.build));
  ASSERT_EQ(h.build.stripStages.size(), 1u);
  ASSERT_TRUE(h.files.count("movie.24bit.wav") && h.files.count("movie.16bit.wav"));
  h.head->SetSilent(true);
  ASSERT_TRUE(PushFile(*h.head, ReadFile(CorpusPath("gen/truehd_51_48k.thd")), 65536, "thd"));
  auto strip = Query<IStripTo16bit>(h.build.stripStages[0]);
  EXPECT_FALSE(strip->Is16bit());
  EXPECT_EQ(Payload(h.files["movie.24bit.wav"]->bytes),
            Payload(ReadFile(CorpusPath("gen/wav_51_24.wav"))));
  // The 16-bit twin stopped at the first sample with a low byte: it holds a sliver of the audio.
  EXPECT_LT(h.files["movie.16bit.wav"]->bytes.size() * 20,
            h.files["movie.24bit.wav"]->bytes.size());
}

// A 16-bit source carried in 24 bits: the stripper proves it, and its twin equals the source.
TEST(AudioOutput, SixteenBitContentIsFound) {
  if (!HaveCorpus()) GTEST_SKIP();
  Harness h("x.flac");
  auto details = Details("pcm", 2, 24);
  h.build.decoded = true;
  ASSERT_TRUE(BuildDecodedOutputs(h.head, details, h.action, h.build));
  h.head->SetSilent(true);
  auto pcm16 = Payload(ReadFile(CorpusPath("gen/wav_20_16.wav")));
  std::vector<uint8_t> pcm24;
  for (size_t i = 0; i + 1 < pcm16.size(); i += 2) pcm24.insert(pcm24.end(), {0, pcm16[i], pcm16[i + 1]});
  ASSERT_TRUE(h.head->InitAudio("pcm", 2, 24, 48000, false, int64_t(pcm24.size() / 6)));
  ASSERT_TRUE(h.head->Write(0, false, pcm24.data(), uint32_t(pcm24.size()), -1, false));
  ASSERT_TRUE(h.head->Finish());
  EXPECT_TRUE(Query<IStripTo16bit>(h.build.stripStages.at(0))->Is16bit());
  EXPECT_EQ(h.files["x.16bit.flac"]->formats.at(0), "flac");
  auto decoder = TFlacDecoder::Create();
  auto decoded = TCapture::Create();
  decoder->SetUpStream(decoded);
  decoder->SetSilent(true);
  ASSERT_TRUE(PushFile(*decoder, h.files["x.16bit.flac"]->bytes, 65536));
  EXPECT_EQ(decoded->audioInits.at(0).bits, 16u);
  EXPECT_EQ(decoded->bytes, pcm16);
}

TEST(AudioOutput, StdoutAndLossyGetOneOutput) {
  Harness h("stdout.wav");
  ASSERT_TRUE(BuildDecodedOutputs(h.head, Details("thd", 2, 24), h.action, h.build));
  EXPECT_TRUE(h.build.stripStages.empty());
  EXPECT_EQ(h.files.size(), 1u);
  EXPECT_TRUE(h.files.count("stdout.wav"));
}

TEST(AudioOutput, WavsWritesOneMonoFilePerChannel) {
  Harness h("movie.wavs");
  auto details = Details("pcm", 6, 16);
  h.build.decoded = true;
  ASSERT_TRUE(BuildDecodedOutputs(h.head, details, h.action, h.build));
  EXPECT_EQ(h.action.fileCount, 6);
  for (const char* name : {"L", "R", "C", "LFE", "SL", "SR"})
    EXPECT_TRUE(h.files.count(std::string("movie.") + name + ".wav")) << name;
  h.head->SetSilent(true);
  std::vector<uint8_t> frames(6 * 2 * 10);
  for (size_t i = 0; i < frames.size(); i += 2) frames[i] = uint8_t(i / 2 % 6);  // channel number
  ASSERT_TRUE(h.head->InitAudio("pcm", 6, 16, 48000, false, 10));
  ASSERT_TRUE(h.head->Write(0, false, frames.data(), uint32_t(frames.size()), -1, false));
  ASSERT_TRUE(h.head->Finish());
  auto lfe = Payload(h.files["movie.LFE.wav"]->bytes);
  ASSERT_EQ(lfe.size(), 20u);
  EXPECT_EQ(lfe[0], 3);
  EXPECT_EQ(lfe[18], 3);
}

TEST(AudioOutput, StagesNotInThisBuildFailLoudly) {
  for (auto set : {+[](TAction& a) { a.down2 = true; }, +[](TAction& a) { a.speedup = true; },
                   +[](TAction& a) { a.dest = "x.ac3"; }}) {
    Harness h("x.wav");
    set(h.action);
    TAudioBlock details = *Details("pcm", 6, 24);
    EXPECT_FALSE(BuildAudioOutput(h.head, details, h.action, "", h.build));
    ASSERT_FALSE(h.lines.empty());
    EXPECT_EQ(h.lines.back(), std::make_pair(2, std::string("Internal error - unknown audio output format!")));
  }
}

TEST(AudioOutput, Down16ReducesWithDither) {
  Harness h("x.wav");
  h.action.reduceTo = 16;
  TAudioBlock details = *Details("pcm", 2, 24);
  ASSERT_TRUE(BuildAudioOutput(h.head, details, h.action, "", h.build));
  EXPECT_EQ(details.bits, 16u);
  h.head->SetSilent(true);
  std::vector<uint8_t> pcm(6 * 1000, 0);
  ASSERT_TRUE(h.head->InitAudio("pcm", 2, 24, 48000, false, 1000));
  ASSERT_TRUE(h.head->Write(0, false, pcm.data(), uint32_t(pcm.size()), -1, false));
  ASSERT_TRUE(h.head->Finish());
  auto& file = h.files["x.wav"]->bytes;
  ASSERT_EQ(file.size(), 44u + 4000);
  EXPECT_EQ(file[34], 16);  // bits per sample
}

}  // namespace
}  // namespace sonvex::runtest
