// The stage core: linking, the Notify walk, the fan-out, delays, silence and buffers.
#include "framework/upstream.h"

#include <gtest/gtest.h>

#include <numeric>

#include "framework/console.h"
#include "framework/smallstages.h"
#include "support/capture.h"

namespace sonvex {
namespace {

using test::TCapture;

std::vector<uint8_t> Counting(size_t n) {
  std::vector<uint8_t> bytes(n);
  std::iota(bytes.begin(), bytes.end(), 0);
  return bytes;
}

TEST(Fanout, EveryBranchGetsIdenticalBytesAndTheResultsCombine) {
  auto head = TPassThrough::Create();
  std::vector<std::shared_ptr<TCapture>> ends;
  std::vector<UpStreamRef> list;
  for (int i = 0; i < 3; i++) {
    ends.push_back(TCapture::Create());
    list.push_back(ends.back());
  }
  head->SetUpStreams(list);
  auto data = Counting(1 << 16);
  for (size_t at = 0; at < data.size(); at += 1000) {
    uint32_t n = uint32_t(std::min<size_t>(1000, data.size() - at));
    ASSERT_TRUE(head->Write(0, true, data.data() + at, n, int64_t(at), false));
  }
  ASSERT_TRUE(head->HandOverBatches());
  for (auto& end : ends) {
    EXPECT_EQ(end->bytes, data);
    // With several upstreams, isHeader reaches each as false.
    EXPECT_FALSE(end->headers.front());
  }
  // Each upstream saw its own sender id: the head's address plus its index.
  EXPECT_EQ(ends[2]->senders.front(), head->SenderIdFor(2));

  // A block is gathered when Send returns; a failure shows at the hand-over and stays.
  ends[1]->acceptWrites = false;
  EXPECT_TRUE(head->Write(0, false, data.data(), 10, -1, false));
  EXPECT_FALSE(head->HandOverBatches());
  EXPECT_FALSE(head->Write(0, false, data.data(), 10, -1, false));
}

TEST(Fanout, OneUpstreamKeepsHeaderFlagAndNoUpstreamFails) {
  auto head = TPassThrough::Create();
  uint8_t byte = 1;
  EXPECT_FALSE(head->Write(0, false, &byte, 1, -1, false));
  auto end = TCapture::Create();
  head->SetUpStream(end);
  EXPECT_TRUE(head->Write(0, true, &byte, 1, -1, false));
  EXPECT_TRUE(end->headers.front());
  // A flush without data is allowed with one upstream.
  EXPECT_TRUE(head->Write(0, false, nullptr, 0, -1, true));
}

TEST(Linking, NilEntriesDropAndStateIsReplayedToNewUpstreams) {
  auto head = TPassThrough::Create();
  head->SetDelay(1, 40);
  head->SetLogPrefix("a02");
  auto a = TCapture::Create(), b = TCapture::Create();
  head->SetUpStreams({a, nullptr, b});
  ASSERT_EQ(head->UpStreamCount(), 2);
  EXPECT_EQ(head->GetUpStream(1), b);
  EXPECT_EQ(head->UpStream(), nullptr);
  // The id registered with b comes from its place in the list given.
  EXPECT_EQ(b->DownStreams(), std::vector<SenderId>{head->SenderIdFor(2)});
  EXPECT_EQ(a->delaysSeen, (std::vector<std::pair<int32_t, int32_t>>{{0, 0}, {1, 40}}));
  EXPECT_EQ(b->LogPrefix(), "a02");

  head->SetUpStreams({});
  EXPECT_TRUE(a->DownStreams().empty());
  EXPECT_EQ(head->UpStreamCount(), 0);
}

TEST(Linking, AppendGoesToTheChainEndAndRefusesAFailedEnd) {
  auto head = TPassThrough::Create();
  auto middle = TPassThrough::Create();
  auto end = TCapture::Create();
  ASSERT_TRUE(head->AppendUpStream(middle));
  ASSERT_TRUE(head->AppendUpStream(end));
  EXPECT_EQ(head->LastStage(), end);
  EXPECT_EQ(middle->UpStream(), end);

  // A failed chain end takes nothing more.
  auto broken = TCapture::Create();
  broken->SetSilent(true);
  broken->Fail("The capture failed.");
  auto head2 = TPassThrough::Create();
  head2->SetUpStream(broken);
  ASSERT_EQ(head2->LastStage(), broken);
  EXPECT_FALSE(head2->AppendUpStream(TCapture::Create()));
  EXPECT_EQ(broken->UpStreamCount(), 0);
}

TEST(Linking, OptionalIsNotInheritedAndFinishWalksWithIt) {
  auto head = TPassThrough::Create();
  head->SetOptional(true);
  auto end = TCapture::Create();
  head->SetUpStream(end);
  EXPECT_FALSE(end->IsOptional());

  // A failing optional upstream does not fail the walk; a failing plain one does.
  auto a = TCapture::Create(), b = TCapture::Create();
  auto fan = TPassThrough::Create();
  fan->SetUpStreams({a, b});
  b->SetSilent(true);
  b->Fail("x");
  EXPECT_FALSE(fan->Finish());
  b->SetOptional(true);
  EXPECT_TRUE(fan->Finish());
  EXPECT_FALSE(TPassThrough::Create()->Finish()) << "no upstream means false";
}

TEST(Log, SilenceAndPrefix) {
  std::vector<std::string> lines;
  SetLogHook([&](int, const std::string& text) { lines.push_back(text); });
  auto stage = TPassThrough::Create();
  stage->SetLogPrefix("v01");
  stage->Log(0, "hello");
  stage->SetSilent(false);
  stage->Log(1, "quiet");
  stage->Log(2, "insisting", true);
  stage->SetOptional(true);
  stage->Log(2, "optional and silent", true);
  SetLogHook(nullptr);
  EXPECT_EQ(lines, (std::vector<std::string>{"[v01] hello", "[v01] insisting"}));
}

TEST(Delays, KeepsDelayStopsTheBroadcastAndSumsAreByIndex) {
  struct TKeeper : TPassThrough {
    TKeeper() { keepsDelay = true; }
  };
  auto keeper = std::make_shared<TKeeper>();
  auto end = TCapture::Create();
  keeper->SetUpStream(end);
  keeper->SetDelay(0, -30);
  keeper->SetDelay(1, 130);
  keeper->SetDelay(1, 100);
  EXPECT_EQ(keeper->DelaySum(), 70);
  EXPECT_TRUE(end->delaysSeen.empty());
}

TEST(Buffers, GrowthRemovalAndMissingBuffers) {
  auto stage = TPassThrough::Create();
  ASSERT_TRUE(stage->ReserveBuffer(3, 0));
  EXPECT_EQ(stage->BufferCapacity(3), 65536u);
  EXPECT_EQ(stage->BufferData(2), nullptr);
  EXPECT_EQ(stage->BufferFill(7), 0u);
  auto data = Counting(100);
  ASSERT_TRUE(stage->StoreData(0, data.data(), 100));
  ASSERT_TRUE(stage->StoreData(0, data.data(), 100));
  EXPECT_EQ(stage->BufferFill(0), 200u);
  stage->RemoveData(0, 150);
  ASSERT_EQ(stage->BufferFill(0), 50u);
  EXPECT_EQ(stage->BufferData(0)[0], 50);
  stage->RemoveData(0, 1000);
  EXPECT_EQ(stage->BufferFill(0), 0u);
  stage->FreeBuffer(0);
  EXPECT_EQ(stage->BufferCapacity(0), 0u);
}

TEST(FileSimulator, KeepsTheHighestPositionReached) {
  auto sim = TFileSimulator::Create();
  uint8_t block[100] = {};
  sim->Write(0, false, block, 100, -1, false);
  sim->Seek(10);
  sim->Write(0, false, block, 20, -1, false);
  EXPECT_EQ(sim->Position(), 30);
  EXPECT_EQ(sim->Size(), 100);
}

}  // namespace
}  // namespace sonvex
