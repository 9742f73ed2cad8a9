// The audio chain rules that can refuse or change a request: destination checks, the downmix
// rule, the kept-compressed test, the decoder choice, and the stage lists of the AC3 family.
#include "run/audiochain.h"

#include <gtest/gtest.h>

#include "ac3/ac3delayer.h"
#include "ac3/ac3dialnormremover.h"
#include "ac3/ac3gaprealizer.h"
#include "ac3/ac3reader.h"
#include "ac3/eac3coreextractor.h"
#include "../ac3/ac3testutil.h"
#include "framework/smallstages.h"
#include "support/capture.h"

namespace sonvex::ac3test {
namespace {

TAudioBlock Details(const std::string& tag, uint32_t channels, uint32_t bitrate = 448000,
                    uint32_t rate = 48000) {
  TAudioBlock block;
  block.audioValid = true;
  block.format = tag;
  block.channels = channels;
  block.bitrate = bitrate;
  block.sampleRate = rate;
  return block;
}

TEST(AudioChain, DestinationChecks) {
  auto logger = TCapture::Create();
  struct Case {
    const char* ext;
    const char* tag;
    bool ok;
  };
  const Case cases[] = {
      {".ac3", "dts", true},     {".WAV", "thd", true},     {".flac", "eac3", true},
      {".eac3", "eac3", true},   {".ec3", "ac3", false},    {".dd+", "eac3", true},
      {".mp2", "mp2", true},     {".mp2", "ac3", false},    {".thd", "thd/ac3", true},
      {".truehd", "mlp", false}, {".mlp", "mlp", true},     {".dtshd", "dtsma", true},
      {".dtshd", "dtshr", true}, {".dtshd", "dts", false},  {".dtsma", "dtshr", false},
      {".dtshr", "dtshr", true}, {".mkv", "ac3", false},    {".xyz", "ac3", false},
  };
  for (const Case& c : cases) {
    LogRecorder log;
    EXPECT_EQ(CheckAudioDestination(*logger, c.ext, c.tag), c.ok) << c.ext << " " << c.tag;
    EXPECT_EQ(log.Has(2, "This audio conversion is not supported."), !c.ok);
  }
  LogRecorder log;
  EXPECT_TRUE(CheckVideoDestination(*logger, ".mkv", "vc1"));
  EXPECT_TRUE(CheckVideoDestination(*logger, ".mpeg2", "mpeg2"));
  EXPECT_TRUE(CheckVideoDestination(*logger, ".h264", "h264"));
  EXPECT_FALSE(CheckVideoDestination(*logger, ".h264", "vc1"));
  EXPECT_TRUE(log.Has(2, "This video conversion is not supported."));
}

TEST(AudioChain, DownmixRule) {
  struct Case {
    uint32_t channels;
    bool downmix, down6, down2;
    bool wantDown6, wantDown2;
  };
  const Case cases[] = {
      {8, true, false, false, true, false},   // -downmix on 7.1: to 5.1
      {6, true, false, false, false, true},   // -downmix on 5.1: to stereo
      {2, true, false, false, false, false},  // nothing to mix
      {2, false, false, true, false, false},  // -down2 on stereo: no effect
      {8, false, false, true, true, true},    // -down2 on 7.1 goes through down6 first
      {6, false, true, false, false, false},  // -down6 needs more than 6 channels
      {7, false, true, false, true, false},
      {5, false, false, true, false, false},  // -down2 needs at least 6
  };
  for (const Case& c : cases) {
    TAction action;
    action.downmix = c.downmix;
    action.down6 = c.down6;
    action.down2 = c.down2;
    ApplyDownmixRule(action, c.channels);
    EXPECT_FALSE(action.downmix);
    EXPECT_EQ(action.down6, c.wantDown6) << c.channels;
    EXPECT_EQ(action.down2, c.wantDown2) << c.channels;
  }
}

TEST(AudioChain, KeptCompressed) {
  auto ac3 = Details("ac3", 6);
  auto test = [](const TAudioBlock& details, const std::function<void(TAction&)>& set) {
    TAction action;
    action.dest = "out.ac3";
    set(action);
    return KeepsCompressed(details, action);
  };
  EXPECT_TRUE(test(ac3, [](TAction&) {}));
  EXPECT_TRUE(test(ac3, [](TAction& a) { a.dest = "/x/OUT.AC3"; }));
  EXPECT_TRUE(test(ac3, [](TAction& a) { a.dest = "%check%.ac3"; }));
  EXPECT_TRUE(test(ac3, [](TAction& a) { a.bitrate = 448; }));
  EXPECT_FALSE(test(ac3, [](TAction& a) { a.bitrate = 640; }));
  EXPECT_TRUE(test(ac3, [](TAction& a) { a.resampleTo = 48000; }));
  EXPECT_FALSE(test(ac3, [](TAction& a) { a.resampleTo = 44100; }));
  EXPECT_FALSE(test(ac3, [](TAction& a) { a.slowdown = true; }));
  EXPECT_FALSE(test(ac3, [](TAction& a) { a.speedup = true; }));
  EXPECT_FALSE(test(ac3, [](TAction& a) { a.remap = "0,1,2,3,4,5"; }));
  EXPECT_FALSE(test(ac3, [](TAction& a) { a.down2 = true; }));
  EXPECT_FALSE(test(ac3, [](TAction& a) { a.dest = "out.wav"; }));
  auto eac3 = Details("eac3", 6);
  EXPECT_TRUE(test(eac3, [](TAction& a) { a.dest = "out.ec3"; }));
  EXPECT_FALSE(test(eac3, [](TAction& a) { a.dest = "out.ac3"; }));
  EXPECT_TRUE(test(Details("dtsma", 6), [](TAction& a) { a.dest = "out.dts"; }));
  EXPECT_TRUE(test(Details("mlp", 2), [](TAction& a) { a.dest = "out.thd"; }));
  EXPECT_FALSE(test(Details("thd", 2), [](TAction& a) { a.dest = "out.mlp"; }));
  EXPECT_FALSE(test(Details("pcm", 2), [](TAction& a) { a.dest = "out.ac3"; }));
}

TEST(AudioChain, DecoderChoice) {
  auto logger = TCapture::Create();
  struct Case {
    const char* tag;
    void (*set)(TAction&);
    bool ok;
    const char* message;  // level 2 when refused
  };
  const Case cases[] = {
      {"ac3", [](TAction&) {}, true, nullptr},
      {"eac3", [](TAction&) {}, true, nullptr},
      {"dts", [](TAction&) {}, true, nullptr},
      {"thd", [](TAction&) {}, true, nullptr},
      {"ac3", [](TAction& a) { a.useLibav = true; }, true, nullptr},
      {"ac3", [](TAction& a) { a.useNero = true; }, false,
       "I'd like to use the Nero decoder, but it doesn't seem to work."},
      {"dts", [](TAction& a) { a.useNero = true; }, false,
       "I'd like to use the Nero decoder, but it doesn't seem to work."},
      {"ac3", [](TAction& a) { a.useSonic = true; }, false,
       "I'd like to use the Sonic decoder, but it doesn't seem to work."},
      {"dts", [](TAction& a) { a.useArcSoft = true; }, false,
       "I'd like to use the ArcSoft decoder, but it doesn't seem to work."},
      {"ac3", [](TAction& a) { a.useArcSoft = true; }, false,
       "I'd like to use the ArcSoft decoder, but it doesn't seem to work."},
  };
  for (const Case& c : cases) {
    LogRecorder log;
    TAction action;
    c.set(action);
    EXPECT_EQ(ChooseDecoder(*logger, c.tag, action), c.ok) << c.tag;
    if (c.ok) {
      EXPECT_TRUE(action.useLibav) << c.tag;
      EXPECT_TRUE(log.lines.empty()) << c.tag << ": " << log.lines[0].second;
    } else {
      ASSERT_EQ(log.lines.size(), 1u);
      EXPECT_EQ(log.lines[0], std::make_pair(2, std::string(c.message)));
    }
  }
}

// The stages behind `head`, in order.
std::vector<UpStreamRef> StagesBehind(const UpStreamRef& head) {
  std::vector<UpStreamRef> stages;
  for (UpStreamRef stage = head->GetUpStream(0); stage; stage = stage->GetUpStream(0))
    stages.push_back(stage);
  return stages;
}
template <class T>
bool Is(const UpStreamRef& stage) {
  return std::dynamic_pointer_cast<T>(stage) != nullptr;
}

TEST(AudioChain, Ac3StageListsForUntouchedStreams) {
  auto details = std::make_shared<TAudioBlock>(Details("ac3", 6));
  auto build = [&](const std::function<void(TAction&, TAudioBuild&)>& set) {
    TAction action;
    action.dest = "out.ac3";
    TAudioBuild audio;
    set(action, audio);
    UpStreamRef head = TPassThrough::Create();
    EXPECT_TRUE(BuildAudioInput(head, details, action, audio));
    EXPECT_FALSE(audio.decoded);
    return StagesBehind(head);
  };
  auto plain = build([](TAction&, TAudioBuild&) {});
  ASSERT_EQ(plain.size(), 3u);
  EXPECT_TRUE(Is<TAc3Reader>(plain[0]));
  EXPECT_TRUE(Is<TAc3DialnormRemover>(plain[1]));
  EXPECT_TRUE(Is<TAc3Delayer>(plain[2]));

  auto kept = build([](TAction& a, TAudioBuild&) { a.keepDialnorm = true; });
  ASSERT_EQ(kept.size(), 2u);
  EXPECT_TRUE(Is<TAc3Delayer>(kept[1]));

  // Bare stream: the gap times are those of the stream itself, so the realizer goes first.
  auto bare = build([](TAction&, TAudioBuild& b) { b.gapList = std::string(16, '\0'); });
  ASSERT_EQ(bare.size(), 4u);
  EXPECT_TRUE(Is<TAc3GapRealizer>(bare[2]));
  EXPECT_TRUE(Is<TAc3Delayer>(bare[3]));

  auto container = build([](TAction&, TAudioBuild& b) {
    b.gapList = std::string(16, '\0');
    b.isContainer = true;
  });
  ASSERT_EQ(container.size(), 4u);
  EXPECT_TRUE(Is<TAc3Delayer>(container[2]));
  EXPECT_TRUE(Is<TAc3GapRealizer>(container[3]));

  auto check = build([](TAction& a, TAudioBuild& b) {
    a.dest = "%CHECK%.ac3";
    b.gapList = std::string(16, '\0');
  });
  ASSERT_EQ(check.size(), 3u);
  EXPECT_TRUE(Is<TAc3GapRealizer>(check[2]));

  auto eac3 = std::make_shared<TAudioBlock>(Details("eac3", 8, 1536000));
  TAction action;
  action.dest = "out.eac3";
  action.core = true;
  TAudioBuild audio;
  UpStreamRef head = TPassThrough::Create();
  ASSERT_TRUE(BuildAudioInput(head, eac3, action, audio));
  auto stages = StagesBehind(head);
  ASSERT_EQ(stages.size(), 4u);
  EXPECT_TRUE(Is<TEac3CoreExtractor>(stages[1]));
  EXPECT_TRUE(Is<TAc3DialnormRemover>(stages[2]));
}

TEST(AudioChain, RefusedBuilds) {
  {
    LogRecorder log;
    auto details = std::make_shared<TAudioBlock>(Details("aac", 2));
    TAction action;
    action.dest = "out.wav";
    TAudioBuild audio;
    UpStreamRef head = TPassThrough::Create();
    EXPECT_FALSE(BuildAudioInput(head, details, action, audio));
    EXPECT_TRUE(log.Has(2, "Internal error - unknown audio input format!"));
  }
  {
    LogRecorder log;
    auto details = std::make_shared<TAudioBlock>(Details("ac3", 6));
    TAction action;
    action.dest = "out.wav";
    action.useNero = true;
    TAudioBuild audio;
    UpStreamRef head = TPassThrough::Create();
    EXPECT_FALSE(BuildAudioInput(head, details, action, audio));
    EXPECT_TRUE(audio.decoded);
    EXPECT_TRUE(log.Has(2, "I'd like to use the Nero decoder, but it doesn't seem to work."));
    EXPECT_EQ(head->UpStreamCount(), 0);
  }
}

// Big-endian PCM of 6 or 8 channels is Blu-ray LPCM: its channels are put into WAV order (the
// "bluray" map), unless the user gave a map of his own. The chain is built up to a ".raw" file
// caught by a capture and fed one frame whose samples name their stored channel.
TEST(AudioChain, BlurayPcmLeavesInWavOrder) {
  struct Case {
    uint32_t channels;
    bool bigEndian;
    bool container;
    const char* userRemap;
    std::vector<uint8_t> order;  // stored channel of each output channel
    bool message;                // "This is probably a Blu-ray PCM track..."
  };
  const Case cases[] = {
      // Stored L R C Ls Rs LFE: LFE goes to place 3.
      {6, true, true, "", {0, 1, 2, 5, 3, 4}, false},
      // Stored L R C Ls Rs Lb Rb LFE.
      {8, true, true, "", {0, 1, 2, 7, 4, 5, 3, 6}, false},
      {6, true, false, "", {0, 1, 2, 5, 3, 4}, true},  // a bare big-endian file says so
      {6, false, false, "", {0, 1, 2, 3, 4, 5}, false},  // little-endian PCM is WAV already
      {2, true, true, "", {0, 1}, false},
      {6, true, true, "5,4,3,2,1,0", {5, 4, 3, 2, 1, 0}, false},  // the user's map wins
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(testing::Message() << c.channels << " channels, big-endian " << c.bigEndian);
    auto details = std::make_shared<TAudioBlock>(Details(c.container ? "m2ts/pcm" : "pcm",
                                                         c.channels, 0));
    details->bits = 16;
    details->bigEndian = c.bigEndian;
    TAction action;
    action.dest = "out.raw";
    action.remap = c.userRemap;
    TAudioBuild audio;
    audio.isContainer = c.container;
    auto capture = TCapture::Create();
    audio.makeDestination = [&](const std::string&) -> UpStreamRef { return capture; };
    UpStreamRef head = TPassThrough::Create();
    LogRecorder log;
    ASSERT_TRUE(BuildAudioChain(head, details, action, audio));
    EXPECT_EQ(log.Has(0, "This is probably a Blu-ray PCM track. Will remap channels accordingly."),
              c.message);
    // One frame: stored channel k holds the 16-bit value 0x0100 * (k + 1) + k.
    std::vector<uint8_t> frame;
    for (uint32_t k = 0; k < c.channels; k++) {
      uint8_t high = uint8_t(k + 1), low = uint8_t(k);
      frame.push_back(c.bigEndian ? high : low);
      frame.push_back(c.bigEndian ? low : high);
    }
    ASSERT_TRUE(head->InitAudio("pcm", c.channels, 16, 48000, c.bigEndian, 1));
    ASSERT_TRUE(head->Write(0, false, frame.data(), uint32_t(frame.size()), -1, false));
    ASSERT_TRUE(head->Finish());
    // The chain ends little-endian, in the order asked for.
    std::vector<uint8_t> want;
    for (uint8_t k : c.order) {
      want.push_back(k);
      want.push_back(uint8_t(k + 1));
    }
    EXPECT_EQ(capture->bytes, want);
  }
}

// The chain as built, run on a corpus stream: untouched AC3 comes out bit for bit, and a damaged
// frame in the middle stops it with the two messages.
TEST(AudioChain, BuiltChainCopiesAndStopsOnDamage) {
  SKIP_WITHOUT_AC3_CORPUS();
  auto stream = ReadBytes(CorpusDir() + "/gen/ac3_51_448k.ac3");
  auto run = [&](const std::vector<uint8_t>& data, bool& ok) {
    auto details = std::make_shared<TAudioBlock>(Details("ac3", 6));
    TAction action;
    action.dest = "y.ac3";
    TAudioBuild audio;
    UpStreamRef head = TPassThrough::Create();
    EXPECT_TRUE(BuildAudioInput(head, details, action, audio));
    auto capture = TCapture::Create();
    head->AppendUpStream(capture);
    ok = head->InitAudio("?", 1, 8, 48000, false, int64_t(data.size()));
    for (size_t at = 0; ok && at < data.size(); at += 16384)
      ok = head->Write(0, false, data.data() + at,
                       uint32_t(std::min<size_t>(16384, data.size() - at)), -1, false);
    ok = ok && head->Finish();
    return capture->bytes;
  };
  bool ok = false;
  EXPECT_EQ(run(stream, ok), stream);
  EXPECT_TRUE(ok);
  auto damaged = stream;
  damaged[1792 * 50 + 500] ^= 0x20;
  LogRecorder log;
  auto out = run(damaged, ok);
  EXPECT_FALSE(ok);
  EXPECT_EQ(out.size(), 1792u * 50);
  EXPECT_TRUE(log.Has(2, "This track is not clean. Processing aborted."));
  EXPECT_TRUE(log.Has(2, "Please clean the track with delaycut and then retry sonvex."));
}

}  // namespace
}  // namespace sonvex::ac3test
