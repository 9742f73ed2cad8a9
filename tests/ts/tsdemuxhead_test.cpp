// BuildTsDemuxHead: the stages of a TS track's branch head, run on the corpus' LPCM and AC3.
#include "ts/tsdemuxhead.h"

#include <gtest/gtest.h>

#include "pcm/timestampfixer.h"
#include "support/capture.h"
#include "ts/pesparser.h"
#include "ts/tscorpus.h"
#include "ts/tsdemuxer.h"
#include "ts/tspcmreader.h"

namespace sonvex::tstest {
namespace {

std::vector<UpStreamRef> Stages(UpStreamRef stage) {
  std::vector<UpStreamRef> out;
  for (; stage; stage = stage->GetUpStream(0)) out.push_back(stage);
  return out;
}

TEST(TsDemuxHead, StagesByTrackKind) {
  TTsHeadRequest pcm{0x1100, 2, false, false, "pcm", false, "/tmp/x.gaps", ""};
  auto stages = Stages(BuildTsDemuxHead(pcm));
  ASSERT_EQ(stages.size(), 4u);
  EXPECT_TRUE(Query<TTsDemuxer>(stages[0]));
  EXPECT_TRUE(Query<TPesParser>(stages[1]));
  EXPECT_TRUE(Query<TTsPcmReader>(stages[2]));
  EXPECT_TRUE(Query<TTimestampFixer>(stages[3]));

  TTsHeadRequest ac3{0x1100, 2, false, false, "ac3", false, "", ""};
  stages = Stages(BuildTsDemuxHead(ac3));
  ASSERT_EQ(stages.size(), 3u);
  EXPECT_TRUE(Query<TTimestampFixer>(stages[2]));

  ac3.check = true;
  EXPECT_EQ(Stages(BuildTsDemuxHead(ac3)).size(), 2u);
  TTsHeadRequest video{0x1011, 1, false, true, "", false, "", ""};
  EXPECT_EQ(Stages(BuildTsDemuxHead(video)).size(), 2u);
}

TEST(TsDemuxHead, LpcmBranchCarriesBigEndianPcmWithoutStamps) {
  SKIP_WITHOUT_CORPUS();
  auto data = ReadWholeFile(CorpusDir() + "/gen/bd_lpcm_variants.m2ts");
  TTsHeadRequest request{0x1101, 2, false, false, "pcm", false, "", ""};
  auto head = BuildTsDemuxHead(request);
  auto capture = TCapture::Create();
  ASSERT_TRUE(head->AppendUpStream(capture));
  ASSERT_TRUE(PushFile(*head, data));
  ASSERT_EQ(capture->audioInits.size(), 1u);
  EXPECT_EQ(capture->audioInits[0].channels, 6u);
  EXPECT_EQ(capture->audioInits[0].bits, 24u);
  EXPECT_EQ(capture->bytes.size(), 96120u * 6 * 3);
  for (int64_t position : capture->positions) EXPECT_EQ(position, -1);
}

}  // namespace
}  // namespace sonvex::tstest
