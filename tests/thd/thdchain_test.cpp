// The stage lists that the audio chain builds for untouched TrueHD, MLP, TrueHD/AC3, MP2 and DTS
// sources, as a table.
#include <functional>

#include "ac3/ac3delayer.h"
#include "ac3/ac3dialnormremover.h"
#include "ac3/ac3gaprealizer.h"
#include "dts/dtsbitdepthpatcher.h"
#include "dts/dtscoreextractor.h"
#include "dts/dtsdelayer.h"
#include "dts/dtsdialnormremover.h"
#include "dts/dtsgaprealizer.h"
#include "dts/dtsreader.h"
#include "dts/dtsrepairer.h"
#include "framework/smallstages.h"
#include "mp2/mp2edits.h"
#include "mp2/mp2reader.h"
#include "run/audiochain.h"
#include "thd/thdedits.h"
#include "thd/thdreader.h"
#include "thd/thdtestutil.h"

namespace sonvex::thdtest {
namespace {

using Kinds = std::vector<std::string>;
using Setter = std::function<void(TAction&, TAudioBuild&)>;

// The stage kinds the chain puts behind its head, by short names.
Kinds Built(const std::string& tag, const std::string& dest, const Setter& set) {
  auto details = std::make_shared<TAudioBlock>();
  details->audioValid = true;
  details->format = tag;
  details->channels = 8;
  details->sampleRate = 48000;
  details->bitrate = tag == "mp2" ? 224000 : tag == "dts" ? 1536000 : 0;
  TAction action;
  action.dest = dest;
  TAudioBuild audio;
  if (set) set(action, audio);
  UpStreamRef head = TPassThrough::Create();
  TLog quiet;
  EXPECT_TRUE(BuildAudioInput(head, details, action, audio)) << tag << " to " << dest;
  EXPECT_FALSE(audio.decoded) << tag << " to " << dest;
  Kinds kinds;
  for (UpStreamRef stage = head->GetUpStream(0); stage; stage = stage->GetUpStream(0)) {
    const std::pair<bool, const char*> names[] = {
        {Query<TThdReader>(stage) || Query<TDtsReader>(stage), "reader"},
        {bool(Query<TThdAc3Extractor>(stage)), "ac3 extractor"},
        {bool(Query<TThdAc3Remover>(stage)), "ac3 remover"},
        {bool(Query<TThdDialnormRemover>(stage)), "thd dialnorm"},
        {bool(Query<TAc3DialnormRemover>(stage)), "ac3 dialnorm"},
        {bool(Query<TAc3Delayer>(stage)), "ac3 delayer"},
        {bool(Query<TAc3GapRealizer>(stage)), "ac3 gaps"},
        {bool(Query<TMp2Reader>(stage)), "mp2 reader"},
        {bool(Query<TMp2GapRealizer>(stage)), "mp2 gaps"},
        {bool(Query<TMp2Delayer>(stage)), "mp2 delayer"},
        {bool(Query<TDtsCoreExtractor>(stage)), "core"},
        {bool(Query<TDtsDialnormRemover>(stage)), "dialnorm"},
        {bool(Query<TDtsRepairer>(stage)), "repairer"},
        {bool(Query<TDtsBitdepthPatcher>(stage)), "patcher"},
        {bool(Query<TDtsGapRealizer>(stage)), "gaps"},
        {bool(Query<TDtsDelayer>(stage)), "delayer"}};
    const char* name = "other";
    for (auto [is, text] : names)
      if (is) {
        name = text;
        break;
      }
    kinds.push_back(name);
  }
  return kinds;
}

TEST(AudioChainRows, StageListsOfUntouchedStreams) {
  auto gaps = [](bool container) -> Setter {
    return [container](TAction&, TAudioBuild& b) {
      b.gapList = std::string(16, '\0');
      b.isContainer = container;
    };
  };
  auto keep = [](TAction& a, TAudioBuild&) { a.keepDialnorm = true; };
  auto plainDts = [](bool container) -> Setter {
    return [container](TAction& a, TAudioBuild& b) {
      a.keepDialnorm = a.dontRepairDts = a.dontPatchDts = true;
      b.gapList = std::string(16, '\0');
      b.isContainer = container;
    };
  };
  const std::tuple<const char*, const char*, Setter, Kinds> rows[] = {
      // The AC-3 part of a TrueHD/AC3 track stays undecoded; gaps go last for a container track.
      {"thd/ac3", "out.ac3", nullptr, {"reader", "ac3 extractor", "ac3 dialnorm", "ac3 delayer"}},
      {"thd/ac3", "out.ac3", gaps(true),
       {"reader", "ac3 extractor", "ac3 dialnorm", "ac3 delayer", "ac3 gaps"}},
      // -keepDialnorm keeps the dialnorm of the AC3 part too.
      {"thd/ac3", "out.ac3", keep, {"reader", "ac3 extractor", "ac3 delayer"}},
      {"thd/ac3", "out.thd", nullptr, {"reader", "ac3 remover", "thd dialnorm"}},
      {"thd/ac3", "out.TrueHD", nullptr, {"reader", "ac3 remover", "thd dialnorm"}},
      {"thd", "out.thd", keep, {"reader"}},
      {"mlp", "out.mlp", nullptr, {"reader", "thd dialnorm"}},
      {"thd/ac3", "%check%.thd", nullptr, {"reader"}},  // a check reads alone
      {"mp2", "out.mp2", gaps(false), {"mp2 reader", "mp2 gaps", "mp2 delayer"}},
      {"dts", "out.dts", nullptr, {"reader", "dialnorm", "repairer", "patcher", "delayer"}},
      {"dts", "out.dts", [](TAction& a, TAudioBuild&) { a.keepDialnorm = a.dontRepairDts = a.dontPatchDts = true; },
       {"reader", "delayer"}},
      // Master Audio keeps its extension unless the core is asked for; only the core is patched.
      {"dtsma", "out.dtsma", nullptr, {"reader", "dialnorm", "repairer", "delayer"}},
      {"dtsma", "out.dts", [](TAction& a, TAudioBuild&) { a.core = true; },
       {"reader", "core", "dialnorm", "repairer", "patcher", "delayer"}},
      // Gap data: ahead of the delayer for a bare stream, behind it for a container track.
      {"dts", "out.dts", plainDts(false), {"reader", "gaps", "delayer"}},
      {"dts", "out.dts", plainDts(true), {"reader", "delayer", "gaps"}},
  };
  for (const auto& [tag, dest, set, kinds] : rows)
    EXPECT_EQ(Built(tag, dest, set), kinds) << tag << " to " << dest;
}

}  // namespace
}  // namespace sonvex::thdtest
