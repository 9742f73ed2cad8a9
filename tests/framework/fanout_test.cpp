// The batched fan-out: behind two or more upstreams every one of them must receive exactly the
// calls that a single upstream receives (block boundaries, positions, flush flags, and the
// announcements, delays and seams between the blocks), and failures must reach the sender.
#include <gtest/gtest.h>

#include <algorithm>
#include <mutex>
#include <numeric>
#include <string>
#include <vector>

#include "framework/smallstages.h"
#include "framework/upstream.h"

namespace sonvex {
namespace {

// Writes down every call it gets as a line of text; fails at its write number `failAt`.
class TRecorder : public TUpStream {
public:
  static std::shared_ptr<TRecorder> Create() { return std::make_shared<TRecorder>(); }

  bool Write(SenderId, bool isHeader, const uint8_t* data, uint32_t size, int64_t position,
             bool flush) override {
    std::lock_guard<std::recursive_mutex> guard(mutex);
    writes++;
    if (!valid) return false;
    if (writes == failAt) return Fail("The recorder failed.");
    uint64_t sum = 0;
    for (uint32_t i = 0; i < size; i++) sum = sum * 31 + data[i];
    Add("write " + std::to_string(size) + " " + std::to_string(position) + " " +
        std::to_string(flush) + " " + std::to_string(isHeader) + " " + std::to_string(sum));
    return true;
  }
  bool InitAudio(const std::string& format, uint32_t channels, uint32_t bits, uint32_t rate, bool,
                 int64_t) override {
    Add("audio " + format + " " + std::to_string(channels) + " " + std::to_string(bits) + " " +
        std::to_string(rate));
    return valid;
  }
  bool SetDelay(int32_t index, int32_t ms) override {
    Add("delay " + std::to_string(index) + " " + std::to_string(ms));
    return TUpStream::SetDelay(index, ms);
  }
  void NotifySeam(bool before, int64_t jump) override {
    Add("seam " + std::to_string(before) + " " + std::to_string(jump));
  }
  bool Finish() override {
    if (!valid) return false;
    Add("finish");
    return true;
  }
  void Add(const std::string& line) {
    std::lock_guard<std::recursive_mutex> guard(mutex);
    calls.push_back(line);
  }

  std::recursive_mutex mutex;
  std::vector<std::string> calls;
  int writes = 0;
  int failAt = 0;
};

// One step of what a sender does: a block of `size` bytes (0 with flush: a flush without data),
// or one of the calls that must reach the upstreams in order with the blocks.
struct Step {
  enum Kind { Block, Seam, Delay, Audio } kind;
  uint32_t size = 0;
  bool flush = false;
};

// Runs the steps through a pass-through with `branches` recorders behind it and finishes.
std::vector<std::shared_ptr<TRecorder>> RunSteps(const std::vector<Step>& steps, int branches) {
  auto head = TPassThrough::Create();
  std::vector<std::shared_ptr<TRecorder>> ends;
  std::vector<UpStreamRef> list;
  for (int i = 0; i < branches; i++) {
    ends.push_back(TRecorder::Create());
    list.push_back(ends.back());
  }
  head->SetUpStreams(list);
  std::vector<uint8_t> bytes(3 << 20);
  std::iota(bytes.begin(), bytes.end(), 0);
  int64_t position = 0;
  for (const Step& step : steps) {
    switch (step.kind) {
      case Step::Block:
        EXPECT_TRUE(head->Write(0, false, step.size ? bytes.data() + position % 1000 : nullptr,
                                step.size, position, step.flush));
        position += step.size + 1;
        break;
      case Step::Seam:
        head->NotifySeam(true, position);
        head->NotifySeam(false, position);
        break;
      case Step::Delay: head->SetDelay(1, int32_t(position % 1000)); break;
      case Step::Audio: EXPECT_TRUE(head->InitAudio("pcm", 2, 24, 96000, false, position)); break;
    }
  }
  EXPECT_TRUE(head->Finish());
  return ends;
}

std::vector<Step> Blocks(int count, uint32_t size) {
  return std::vector<Step>(size_t(count), Step{Step::Block, size});
}
std::vector<Step> operator+(std::vector<Step> a, const std::vector<Step>& b) {
  a.insert(a.end(), b.begin(), b.end());
  return a;
}

TEST(Fanout, EveryBranchSeesTheCallsOfASingleUpstream) {
  const Step seam{Step::Seam}, delay{Step::Delay}, audio{Step::Audio};
  const Step flush{Step::Block, 0, true}, flushed{Step::Block, 700, true};
  struct Case {
    const char* name;
    std::vector<Step> steps;
  };
  const std::vector<Case> cases = {
      {"a few source blocks", Blocks(5, 16384)},
      {"source blocks across several batches", Blocks(200, 16384)},
      {"one block short of a full batch, then one more", Blocks(63, 16384) + Blocks(1, 16383) +
                                                            Blocks(1, 2)},
      {"tiny frames: the block count ends batches", Blocks(9000, 3)},
      {"a block bigger than a batch", Blocks(2, 100) + Blocks(1, (1 << 20) + 17) + Blocks(2, 5)},
      {"flush without data between blocks", Blocks(3, 1000) + std::vector{flush} + Blocks(3, 10)},
      {"a flushing block, then more", Blocks(90, 16384) + std::vector{flushed} + Blocks(9, 16384)},
      {"seams, delays and announcements between blocks",
       std::vector{audio} + Blocks(70, 16384) + std::vector{seam, delay} + Blocks(3, 100) +
           std::vector{audio, delay} + Blocks(5000, 4) + std::vector{seam}},
      {"announcements and delays without blocks", std::vector{audio, delay, seam}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    auto reference = RunSteps(c.steps, 1).front()->calls;
    ASSERT_EQ(reference.back(), "finish");
    for (const auto& end : RunSteps(c.steps, 3)) EXPECT_EQ(end->calls, reference);
  }
}

// A branch that fails in the middle of a batch stops the sender at the next hand-over: later
// Sends return false, the others were fed at most one batch beyond the failure, and Finish fails.
TEST(Fanout, AFailingBranchStopsTheSenderWithinOneBatch) {
  auto head = TPassThrough::Create();
  auto good = TRecorder::Create(), bad = TRecorder::Create();
  bad->SetSilent(true);
  bad->failAt = 10;
  head->SetUpStreams({good, bad});
  std::vector<uint8_t> block(1000, 7);
  int accepted = 0;
  while (accepted < 100000 && head->Write(0, false, block.data(), 1000, -1, false)) accepted++;
  EXPECT_GE(accepted, 9);
  EXPECT_LE(accepted, 9 + 2 * 1049) << "two batches of 1000-byte blocks at the most";
  EXPECT_FALSE(head->Write(0, false, block.data(), 1000, -1, false));
  EXPECT_FALSE(head->Finish());
  EXPECT_FALSE(bad->IsValid());
  EXPECT_EQ(bad->calls.size(), 9u);
  EXPECT_LE(good->calls.size(), size_t(accepted));
  EXPECT_EQ(std::count(good->calls.begin(), good->calls.end(), "finish"), 0);
}

// An optional branch that fails costs only itself: the sender and the other branch go on.
TEST(Fanout, AFailingOptionalBranchCostsOnlyItself) {
  auto head = TPassThrough::Create();
  auto good = TRecorder::Create(), side = TRecorder::Create();
  side->SetSilent(true);
  side->failAt = 1500;
  head->SetUpStreams({side, good});
  side->SetOptional(true);
  std::vector<uint8_t> block(1000, 7);
  for (int i = 0; i < 5000; i++) ASSERT_TRUE(head->Write(0, false, block.data(), 1000, i, false));
  EXPECT_TRUE(head->Finish());
  EXPECT_EQ(good->calls.size(), 5001u);
  EXPECT_EQ(good->calls.back(), "finish");
  EXPECT_EQ(side->calls.size(), 1499u) << "no write after its failure succeeds, no finish";
}

TEST(Fanout, HeaderFlagReachesEachAsFalseAndSenderIdsFollowTheIndex) {
  struct TIds : TRecorder {
    bool Write(SenderId sender, bool isHeader, const uint8_t* data, uint32_t size,
               int64_t position, bool flush) override {
      Add("from " + std::to_string(sender));
      return TRecorder::Write(sender, isHeader, data, size, position, flush);
    }
  };
  auto head = TPassThrough::Create();
  auto a = std::make_shared<TIds>(), b = std::make_shared<TIds>();
  head->SetUpStreams({a, b});
  uint8_t byte = 9;
  ASSERT_TRUE(head->Write(0, true, &byte, 1, 5, false));
  ASSERT_TRUE(head->HandOverBatches());
  EXPECT_EQ(a->calls, (std::vector<std::string>{"from " + std::to_string(head->SenderIdFor(0)),
                                                "write 1 5 0 0 9"}));
  EXPECT_EQ(b->calls.front(), "from " + std::to_string(head->SenderIdFor(1)));
}

}  // namespace
}  // namespace sonvex
