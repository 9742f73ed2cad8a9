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

// -down2 of 16-bit 5.1: each contribution is widened to 24 bits by its factor, so the sums are
// exact; the WAV header says 2 channels, 24 bits, and -mixlfe brings in the LFE at 91/256.
TEST(AudioOutput, Down2GraphMixesByTheMatrix) {
  const int16_t in[6] = {1000, -2000, 300, 4000, -500, 700};  // L R C LFE SL SR
  for (bool mixLfe : {false, true}) {
    Harness h("x.wav");
    h.action.down2 = true;
    h.action.mixLfe = mixLfe;
    TAudioBlock details = *Details("pcm", 6, 16);
    ASSERT_TRUE(BuildAudioOutput(h.head, details, h.action, "", h.build));
    EXPECT_EQ(details.channels, 2u);
    EXPECT_EQ(details.bits, 24u);
    h.head->SetSilent(true);
    std::vector<uint8_t> frames;
    for (int f = 0; f < 100; f++)
      for (int16_t s : in) frames.insert(frames.end(), {uint8_t(s), uint8_t(uint16_t(s) >> 8)});
    ASSERT_TRUE(h.head->InitAudio("pcm", 6, 16, 48000, false, 100));
    ASSERT_TRUE(h.head->Write(0, false, frames.data(), uint32_t(frames.size()), -1, false));
    ASSERT_TRUE(h.head->Finish());
    const std::vector<uint8_t>& wav = h.files["x.wav"]->bytes;
    ASSERT_GT(wav.size(), 44u);
    EXPECT_EQ(wav[22], 2);   // channels
    EXPECT_EQ(wav[34], 24);  // bits
    auto pcm = Payload(wav);
    ASSERT_EQ(pcm.size(), 100u * 6);
    auto read = [&](size_t i) {
      return int32_t(uint32_t(pcm[3 * i]) << 8 | uint32_t(pcm[3 * i + 1]) << 16 |
                     uint32_t(pcm[3 * i + 2]) << 24) >> 8;
    };
    const int lfe = mixLfe ? 91 * in[3] : 0;
    EXPECT_EQ(read(0), 128 * in[0] + 91 * in[2] + lfe + 111 * in[4] + 64 * in[5]);
    EXPECT_EQ(read(1), 128 * in[1] + 91 * in[2] + lfe - 64 * in[4] - 111 * in[5]);
    EXPECT_EQ(read(198), read(0));
  }
}

// The ".ac3" and ".dts" ends: the encoder and the file, or a refusal while the chain is built
// (nothing made, the reason as the last line).
struct EncoderEnd {
  const char* dest;
  uint32_t channels, sampleRate;
  int32_t bitrate;
  const char* refusal;  // nullptr: built, and one frame of `frameBytes` comes out
  uint32_t frameBytes;
};

TEST(AudioOutput, EncoderEnds) {
  const EncoderEnd cases[] = {
      {"x.ac3", 6, 48000, 640, nullptr, 2560},
      {"x.ac3", 2, 48000, 0, nullptr, 768},  // libavcodec's choice for stereo: 192 kbit/s
      {"x.dts", 2, 48000, 768, nullptr, 1024},
      {"x.dts", 6, 44100, 0, nullptr, 2232},  // 1536 kbit/s by default
      {"x.ac3", 6, 48000, 500, "This bitrate isn't supported by the AC3 encoder.", 0},
      {"x.dts", 6, 48000, 640, "This bitrate isn't supported by the DTS encoder.", 0},
      {"x.dts", 4, 48000, 768, "The DTS encoder didn't accept this channel configuration.", 0},
      {"x.dts", 6, 96000, 768, "The DTS encoder didn't accept this sample rate.", 0},
  };
  for (const EncoderEnd& c : cases) {
    Harness h(c.dest);
    h.action.bitrate = c.bitrate;
    TAudioBlock details = *Details("pcm", c.channels, 16);
    details.sampleRate = c.sampleRate;
    bool built = BuildAudioOutput(h.head, details, h.action, "", h.build);
    if (c.refusal) {
      EXPECT_FALSE(built) << c.refusal;
      EXPECT_TRUE(h.files.empty());
      ASSERT_FALSE(h.lines.empty());
      EXPECT_EQ(h.lines.back(), std::make_pair(2, std::string(c.refusal)));
      continue;
    }
    ASSERT_TRUE(built) << c.dest;
    h.head->SetSilent(true);
    std::vector<uint8_t> pcm(size_t(c.channels) * 2 * 512);
    ASSERT_TRUE(h.head->InitAudio("pcm", c.channels, 16, c.sampleRate, false, 0));
    ASSERT_TRUE(h.head->Write(0, false, pcm.data(), uint32_t(pcm.size()), -1, false));
    ASSERT_TRUE(h.head->Finish());
    ASSERT_EQ(h.files.count(c.dest), 1u);
    EXPECT_EQ(h.files[c.dest]->bytes.size(), c.frameBytes) << c.dest;
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
