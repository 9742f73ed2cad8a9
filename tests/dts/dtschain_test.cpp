// The DTS rows of the audio chain: which stages stand behind the reader for an untouched stream.
#include <gtest/gtest.h>

#include <functional>

#include "dts/dtsbitdepthpatcher.h"
#include "dts/dtscoreextractor.h"
#include "dts/dtsdelayer.h"
#include "dts/dtsdialnormremover.h"
#include "dts/dtsgaprealizer.h"
#include "dts/dtsreader.h"
#include "dts/dtsrepairer.h"
#include "framework/smallstages.h"
#include "run/audiochain.h"

namespace sonvex {
namespace {

// The stage kinds behind `head`, by short names.
std::vector<std::string> Kinds(const UpStreamRef& head) {
  std::vector<std::string> kinds;
  for (UpStreamRef stage = head->GetUpStream(0); stage; stage = stage->GetUpStream(0)) {
    if (Query<TDtsReader>(stage)) kinds.push_back("reader");
    else if (Query<TDtsCoreExtractor>(stage)) kinds.push_back("core");
    else if (Query<TDtsDialnormRemover>(stage)) kinds.push_back("dialnorm");
    else if (Query<TDtsRepairer>(stage)) kinds.push_back("repairer");
    else if (Query<TDtsBitdepthPatcher>(stage)) kinds.push_back("patcher");
    else if (Query<TDtsGapRealizer>(stage)) kinds.push_back("gaps");
    else if (Query<TDtsDelayer>(stage)) kinds.push_back("delayer");
    else kinds.push_back("other");
  }
  return kinds;
}

std::vector<std::string> Build(const std::string& tag, const std::string& dest,
                               const std::function<void(TAction&, TAudioBuild&)>& set) {
  auto details = std::make_shared<TAudioBlock>();
  details->audioValid = true;
  details->format = tag;
  details->channels = 6;
  details->sampleRate = 48000;
  details->bitrate = tag == "dts" ? 1536000 : 0;
  TAction action;
  action.dest = dest;
  TAudioBuild build;
  set(action, build);
  UpStreamRef head = TPassThrough::Create();
  EXPECT_TRUE(BuildAudioInput(head, details, action, build));
  EXPECT_FALSE(build.decoded);
  return Kinds(head);
}

using Kinds_ = std::vector<std::string>;

TEST(DtsChain, StageListsOfUntouchedStreams) {
  auto none = [](TAction&, TAudioBuild&) {};
  EXPECT_EQ(Build("dts", "out.dts", none),
            (Kinds_{"reader", "dialnorm", "repairer", "patcher", "delayer"}));
  EXPECT_EQ(Build("dts", "out.dts",
                  [](TAction& a, TAudioBuild&) {
                    a.keepDialnorm = a.dontRepairDts = a.dontPatchDts = true;
                  }),
            (Kinds_{"reader", "delayer"}));
  // Master Audio keeps its extension unless the core is asked for; only the core is patched.
  EXPECT_EQ(Build("dtsma", "out.dtsma", none), (Kinds_{"reader", "dialnorm", "repairer", "delayer"}));
  EXPECT_EQ(Build("dtsma", "out.dts", [](TAction& a, TAudioBuild&) { a.core = true; }),
            (Kinds_{"reader", "core", "dialnorm", "repairer", "patcher", "delayer"}));
  // Gap data: ahead of the delayer for a bare stream, behind it for a container track.
  auto gaps = [](bool container) {
    return [container](TAction& a, TAudioBuild& b) {
      a.keepDialnorm = a.dontRepairDts = a.dontPatchDts = true;
      b.gapList = std::string(16, '\0');
      b.isContainer = container;
    };
  };
  EXPECT_EQ(Build("dts", "out.dts", gaps(false)), (Kinds_{"reader", "gaps", "delayer"}));
  EXPECT_EQ(Build("dts", "out.dts", gaps(true)), (Kinds_{"reader", "delayer", "gaps"}));
}

}  // namespace
}  // namespace sonvex
