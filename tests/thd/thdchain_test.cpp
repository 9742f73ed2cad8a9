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

namespace sonvex::thdtest {
namespace {

// The stage kinds the chain puts behind its head, by short names.
std::vector<std::string> Built(const std::string& tag, const std::string& dest,
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
  EXPECT_TRUE(BuildAudioInput(head, details, action, audio)) << tag << " to " << dest;
  EXPECT_FALSE(audio.decoded) << tag << " to " << dest;
  std::vector<std::string> kinds;
  for (UpStreamRef stage = head->GetUpStream(0); stage; stage = stage->GetUpStream(0)) {
    if (Query<TThdReader>(stage)) kinds.push_back("reader");
    else if (Query<TThdAc3Extractor>(stage)) kinds.push_back("ac3 extractor");
    else if (Query<TThdAc3Remover>(stage)) kinds.push_back("ac3 remover");
    else if (Query<TThdDialnormRemover>(stage)) kinds.push_back("thd dialnorm");
    else if (Query<TAc3DialnormRemover>(stage)) kinds.push_back("ac3 dialnorm");
    else if (Query<TAc3Delayer>(stage)) kinds.push_back("ac3 delayer");
    else if (Query<TAc3GapRealizer>(stage)) kinds.push_back("ac3 gaps");
    else if (Query<TMp2Reader>(stage)) kinds.push_back("mp2 reader");
    else if (Query<TMp2GapRealizer>(stage)) kinds.push_back("mp2 gaps");
    else if (Query<TMp2Delayer>(stage)) kinds.push_back("mp2 delayer");
    else kinds.push_back("other");
  }
  return kinds;
}
using Kinds = std::vector<std::string>;

TEST(ThdChain, StageListsOfUntouchedStreams) {
  // The AC-3 part of a TrueHD/AC3 track stays undecoded; gaps go last for a container track.
  EXPECT_EQ(Built("thd/ac3", "out.ac3"), (Kinds{"reader", "ac3 extractor", "ac3 dialnorm", "ac3 delayer"}));
  EXPECT_EQ(Built("thd/ac3", "out.ac3",
                  [](TAction&, TAudioBuild& b) {
                    b.gapList = std::string(16, '\0');
                    b.isContainer = true;
                  }),
            (Kinds{"reader", "ac3 extractor", "ac3 dialnorm", "ac3 delayer", "ac3 gaps"}));
  EXPECT_EQ(Built("thd/ac3", "out.ac3", [](TAction& a, TAudioBuild&) { a.keepDialnorm = true; }),
            (Kinds{"reader", "ac3 extractor", "ac3 delayer"}));
  for (const char* dest : {"out.thd", "out.TrueHD"})
    EXPECT_EQ(Built("thd/ac3", dest), (Kinds{"reader", "ac3 remover", "thd dialnorm"}));
  EXPECT_EQ(Built("thd", "out.thd", [](TAction& a, TAudioBuild&) { a.keepDialnorm = true; }),
            (Kinds{"reader"}));
  EXPECT_EQ(Built("mlp", "out.mlp"), (Kinds{"reader", "thd dialnorm"}));
  EXPECT_EQ(Built("thd/ac3", "%check%.thd"), (Kinds{"reader"}));  // a check reads alone
  EXPECT_EQ(Built("mp2", "out.mp2", [](TAction&, TAudioBuild& b) { b.gapList = std::string(16, '\0'); }),
            (Kinds{"mp2 reader", "mp2 gaps", "mp2 delayer"}));
}

}  // namespace
}  // namespace sonvex::thdtest
