// The stage lists that the audio chain builds for TrueHD, MLP, TrueHD/AC3 and MP2 sources.
#include <functional>

#include "ac3/ac3delayer.h"
#include "ac3/ac3dialnormremover.h"
#include "ac3/ac3gaprealizer.h"
#include "framework/smallstages.h"
#include "mp2/mp2edits.h"
#include "mp2/mp2reader.h"
#include "run/audiochain.h"
#include "thd/thdedits.h"
#include "thd/thdreader.h"
#include "thd/thdtestutil.h"

namespace sonvex::test {
namespace {

std::vector<UpStreamRef> Behind(const UpStreamRef& head) {
  std::vector<UpStreamRef> stages;
  for (UpStreamRef stage = head->GetUpStream(0); stage; stage = stage->GetUpStream(0))
    stages.push_back(stage);
  return stages;
}

template <class T>
bool Is(const UpStreamRef& stage) {
  return std::dynamic_pointer_cast<T>(stage) != nullptr;
}

struct TBuilt {
  bool ok;
  bool decoded;
  std::vector<UpStreamRef> stages;
};

TBuilt Build(const std::string& tag, const std::string& dest,
             const std::function<void(TAction&, TAudioBuild&)>& set = nullptr) {
  auto details = std::make_shared<TAudioBlock>();
  details->audioValid = true;
  details->format = tag;
  details->channels = 8;
  details->sampleRate = 48000;
  details->bitrate = tag == "mp2" ? 224000 : 0;
  TAction action;
  action.dest = dest;
  TAudioBuild audio;
  if (set) set(action, audio);
  UpStreamRef head = TPassThrough::Create();
  TLogLines quiet;
  bool ok = BuildAudioInput(head, details, action, audio);
  return {ok, audio.decoded, Behind(head)};
}

TEST(ThdChain, TrueHdAc3ToAc3KeepsTheAc3PartUndecoded) {
  auto built = Build("thd/ac3", "out.ac3");
  ASSERT_TRUE(built.ok);
  EXPECT_FALSE(built.decoded);
  ASSERT_EQ(built.stages.size(), 4u);
  EXPECT_TRUE(Is<TThdReader>(built.stages[0]));
  EXPECT_TRUE(Is<TThdAc3Extractor>(built.stages[1]));
  EXPECT_TRUE(Is<TAc3DialnormRemover>(built.stages[2]));
  EXPECT_TRUE(Is<TAc3Delayer>(built.stages[3]));

  auto gaps = Build("thd/ac3", "out.ac3", [](TAction&, TAudioBuild& b) {
    b.gapList = std::string(16, '\0');
    b.isContainer = true;
  });
  ASSERT_EQ(gaps.stages.size(), 5u);
  EXPECT_TRUE(Is<TAc3GapRealizer>(gaps.stages[4]));
}

TEST(ThdChain, TrueHdDestinations) {
  for (const char* dest : {"out.thd", "out.TrueHD"}) {
    auto built = Build("thd/ac3", dest);
    ASSERT_TRUE(built.ok) << dest;
    EXPECT_FALSE(built.decoded);
    ASSERT_EQ(built.stages.size(), 3u);
    EXPECT_TRUE(Is<TThdAc3Remover>(built.stages[1]));
    EXPECT_TRUE(Is<TThdDialnormRemover>(built.stages[2]));
  }
  auto kept = Build("thd", "out.thd", [](TAction& a, TAudioBuild&) { a.keepDialnorm = true; });
  ASSERT_EQ(kept.stages.size(), 1u);
  EXPECT_TRUE(Is<TThdReader>(kept.stages[0]));

  auto mlp = Build("mlp", "out.mlp");
  ASSERT_TRUE(mlp.ok);
  EXPECT_FALSE(mlp.decoded);
  ASSERT_EQ(mlp.stages.size(), 2u);
  EXPECT_TRUE(Is<TThdDialnormRemover>(mlp.stages[1]));

  // A check reads a TrueHD/AC3 track with the reader alone.
  auto check = Build("thd/ac3", "%check%.thd");
  ASSERT_TRUE(check.ok);
  ASSERT_EQ(check.stages.size(), 1u);
  EXPECT_TRUE(Is<TThdReader>(check.stages[0]));
}

TEST(ThdChain, Mp2UntouchedGetsGapsAndDelay) {
  auto built = Build("mp2", "out.mp2", [](TAction&, TAudioBuild& b) {
    b.gapList = std::string(16, '\0');
  });
  ASSERT_TRUE(built.ok);
  EXPECT_FALSE(built.decoded);
  ASSERT_EQ(built.stages.size(), 3u);
  EXPECT_TRUE(Is<TMp2Reader>(built.stages[0]));
  EXPECT_TRUE(Is<TMp2GapRealizer>(built.stages[1]));
  EXPECT_TRUE(Is<TMp2Delayer>(built.stages[2]));
}

}  // namespace
}  // namespace sonvex::test
