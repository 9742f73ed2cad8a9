// Which reader a video action gets, and what the action's options make of the film stream.
#include "video/videoreaders.h"

#include <gtest/gtest.h>

#include "video/mpeg2reader.h"
#include "video/vc1pulldownremover.h"
#include "video/videotestutil.h"

namespace sonvex::test {}
namespace sonvex::videotest {
using namespace ::sonvex::test;
namespace {

TEST(VideoReaders, CodecsGetTheirReaders) {
  TAction action;
  EXPECT_EQ(BuildVideoReader("dts", action, 1, false, false, false, "", "").head, nullptr);
  EXPECT_EQ(CreateFrameCounter("ac3"), nullptr);
  action.stripPulldown = true;
  TVideoReaderChain vc1 = BuildVideoReader("vc1", action, 1, false, false, false, "", "");
  ASSERT_NE(vc1.head, nullptr);
  EXPECT_NE(std::dynamic_pointer_cast<TVc1PulldownRemover>(vc1.last), nullptr);
  EXPECT_EQ(vc1.head->UpStream(), vc1.last);
  TVideoReaderChain mkv = BuildVideoReader("vc1", action, 1, false, false, true, "", "");
  EXPECT_EQ(mkv.head, mkv.last);
}

// Film content in a bare stream: what each kind of destination makes of it.
TEST(VideoReaders, PulldownOptionsOfTheAction) {
  if (!CorpusPresent()) GTEST_SKIP() << "no corpus";
  std::vector<uint8_t> film = ReadBytes(CorpusPath("gen/mpeg2_480p24_pulldown.m2v"));
  auto run = [&](const TAction& action, bool toMkv) {
    TVideoReaderChain chain = BuildVideoReader("mpeg2", action, 1, true, false, toMkv, "", "");
    ReaderRun result = PushStream(chain.head, film);
    EXPECT_TRUE(result.ok);
    return result.lines;
  };
  const std::vector<std::string> removing{"0 Removing MPEG2 pulldown..."};
  TAction plain;
  EXPECT_TRUE(run(plain, false).empty());
  EXPECT_EQ(run(plain, true), removing);
  TAction strip;
  strip.stripPulldown = true;
  EXPECT_EQ(run(strip, false), removing);
  TAction keep;
  keep.keepPulldown = true;
  EXPECT_TRUE(run(keep, true).empty());
}

}  // namespace
}  // namespace sonvex::videotest
