// TFormatDetector with stand-in candidates that recognise a magic byte sequence: the order of
// the walk, dropping, the container-wins rule, stopping the source when detection is over, the
// per-candidate byte budget, and "dtswav".
#include "files/formatdetector.h"

#include <gtest/gtest.h>

#include <cstring>

#include "files/detectorcandidates.h"
#include "files/filetest_support.h"
#include "files/sourcefiles.h"
#include "framework/smallstages.h"

namespace sonvex {
namespace {

using namespace test;
using namespace filestest;
using namespace std::string_literals;

// Takes a stream that begins with `magic`; refuses it (returns false) otherwise, or once it has
// seen `failAfter` bytes. Once recognised it fills its audio or container block.
class TFakeCandidate : public TUpStream {
public:
  enum Kind { kAudio, kContainer };
  TFakeCandidate(std::string magicBytes, Kind kindOf, std::string formatTag,
                 uint32_t budget = 0x100000)
      : magic(std::move(magicBytes)), kind(kindOf), format(std::move(formatTag)), blockSize(budget) {}

  uint32_t BlockSize() override { return blockSize; }
  bool InitAudio(const std::string&, uint32_t, uint32_t, uint32_t, bool, int64_t) override {
    return acceptInit;
  }
  bool InitContainer(const std::string& tag, int64_t, int64_t) override {
    containerTags.push_back(tag);
    return true;
  }
  bool Write(SenderId, bool, const uint8_t* data, uint32_t size, int64_t, bool) override {
    writes++;
    if (seen.size() < magic.size())
      seen.append(reinterpret_cast<const char*>(data), std::min<size_t>(size, magic.size()));
    bytes += size;
    if (failAfter && bytes >= failAfter) return false;
    if (seen.compare(0, magic.size(), magic) != 0) return false;
    if (kind == kAudio)
      SetAudioDetails(format, format, "", "", 0, 2, 0, 16, 48000, 192000, 0, 0, false);
    else
      SetContainerDetails(format, format, 0);
    return Send(false, data, size, -1, false);
  }
  bool Finish() override {
    finished++;
    return TUpStream::Finish();
  }

  std::string magic;
  Kind kind;
  std::string format;
  uint32_t blockSize;
  uint64_t failAfter = 0;
  bool acceptInit = true;
  std::string seen;
  uint64_t bytes = 0;
  int writes = 0;
  int finished = 0;
  std::vector<std::string> containerTags;
};

std::shared_ptr<TFakeCandidate> Fake(const std::string& magic, TFakeCandidate::Kind kind,
                                     const std::string& format, uint32_t budget = 0x100000) {
  return std::make_shared<TFakeCandidate>(magic, kind, format, budget);
}

// A file that begins with `magic`, run through a source with the detector behind it.
struct TDetection {
  std::shared_ptr<TSourceFiles> source;
  bool result = false;
};

TDetection Detect(const TScratchDir& dir, const std::string& magic, size_t size,
                  const std::shared_ptr<TFormatDetector>& detector) {
  auto bytes = Pattern(size, 11);
  std::memcpy(bytes.data(), magic.data(), magic.size());
  WriteWhole(dir / "source.bin", bytes);
  TDetection run;
  run.source = TSourceFiles::Create({dir / "source.bin"}, 24000, 1001, 0x12C00000);
  run.source->SetUpStream(detector);
  run.result = run.source->Write(0, false, nullptr, 0, -1, false);
  return run;
}

TEST(FormatDetector, FirstBareStreamInIndexOrderEndsDetectionAndStopsTheSource) {
  TScratchDir dir;
  auto evo = Fake("\x00\x00\x01\xBA"s, TFakeCandidate::kContainer, "evo", 314572800);
  auto ts = Fake("GGGG"s, TFakeCandidate::kContainer, "m2ts", 314572800);
  auto dts = Fake("\x7F\xFE\x80\x01"s, TFakeCandidate::kAudio, "dts");
  auto ac3 = Fake("\x0B\x77"s, TFakeCandidate::kAudio, "ac3");
  auto eac3 = Fake("\x0B\x77"s, TFakeCandidate::kAudio, "eac3");  // the same magic, a later slot
  auto detector = TFormatDetector::CreateWith({evo, ts, dts, ac3, nullptr, eac3}, nullptr);
  TDetection run = Detect(dir, "\x0B\x77", 1000000, detector);
  // Detection is over after the first block, and the source stopped reading.
  EXPECT_FALSE(run.result);
  EXPECT_EQ(run.source->Position(), 16384);
  EXPECT_EQ(detector->BytesSeen(), 16384u);
  EXPECT_EQ(ac3->writes, 1);
  EXPECT_EQ(eac3->writes, 0);  // the tie went to the earlier slot
  EXPECT_EQ(detector->AudioDetails()->Format(), "ac3");
  // The others refused the block and were dropped.
  EXPECT_EQ(detector->Candidate(0), nullptr);
  EXPECT_EQ(detector->Candidate(1), nullptr);
  EXPECT_EQ(detector->Candidate(2), nullptr);
  EXPECT_EQ(detector->Candidate(3), ac3);
  EXPECT_FALSE(detector->ContainerDetails()->IsValid());
  EXPECT_FALSE(detector->VideoDetails()->IsValid());
  // Candidates are silent and end in a file simulator; the source's "?" reached them.
  EXPECT_TRUE(ac3->IsSilent());
  EXPECT_NE(Query<IFileSimulator>(ac3->LastStage()), nullptr);
  EXPECT_EQ(ac3->containerTags, (std::vector<std::string>{"?", "?"}));
}

TEST(FormatDetector, ContainerWinsWhileAContainerParserIsAlive) {
  TScratchDir dir;
  // The EVO parser and a bare reader both take this stream.
  auto evo = Fake("\x00\x00\x01\xBA"s, TFakeCandidate::kContainer, "evo", 314572800);
  auto ts = Fake("GGGG"s, TFakeCandidate::kContainer, "m2ts", 314572800);
  auto mpeg2 = Fake("\x00\x00\x01"s, TFakeCandidate::kAudio, "mpeg2", 52428800);
  auto detector = TFormatDetector::CreateWith({evo, ts, nullptr, nullptr, mpeg2}, nullptr);
  TDetection run = Detect(dir, "\x00\x00\x01\xBA"s, 100000, detector);
  // The source was read to its end and finished.
  EXPECT_TRUE(run.result);
  EXPECT_EQ(run.source->Position(), 100000);
  EXPECT_EQ(evo->finished, 1);
  EXPECT_EQ(detector->ContainerDetails()->Format(), "evo");

  // Once the container parser gives up, the bare stream ends detection at that block.
  auto evo2 = Fake("\x00\x00\x01\xBA"s, TFakeCandidate::kContainer, "evo", 314572800);
  evo2->failAfter = 3 * 16384;
  auto mpeg2b = Fake("\x00\x00\x01"s, TFakeCandidate::kAudio, "mpeg2", 52428800);
  auto detector2 = TFormatDetector::CreateWith({evo2, nullptr, nullptr, mpeg2b}, nullptr);
  TDetection run2 = Detect(dir, "\x00\x00\x01\xBA"s, 1000000, detector2);
  EXPECT_FALSE(run2.result);
  EXPECT_EQ(run2.source->Position(), 3 * 16384);
  EXPECT_EQ(detector2->AudioDetails()->Format(), "mpeg2");
}

TEST(FormatDetector, CandidatesAreTriedForTheirBlockSizeOnly) {
  TScratchDir dir;
  // A candidate that takes anything and recognises nothing keeps the source reading to its end.
  auto blank = std::make_shared<TFileSimulator>();
  auto detector = TFormatDetector::CreateWith({nullptr, nullptr, nullptr, blank}, nullptr);
  TDetection run = Detect(dir, "", 200000, detector);
  EXPECT_TRUE(run.result);
  EXPECT_EQ(blank->Size(), 200000);

  // One that wants two blocks is left out once it has had them; with no candidate taking the
  // third block, reading ends.
  struct TBudget : TFileSimulator {
    uint32_t BlockSize() override { return 32768; }
  };
  auto budget = std::make_shared<TBudget>();
  auto detector2 = TFormatDetector::CreateWith({nullptr, nullptr, budget}, nullptr);
  TDetection run2 = Detect(dir, "", 200000, detector2);
  EXPECT_FALSE(run2.result);
  EXPECT_EQ(budget->Size(), 32768);
  EXPECT_EQ(run2.source->Position(), 3 * 16384);
}

TEST(FormatDetector, NothingFoundGivesTheDetectorsOwnEmptyBlocks) {
  auto refusing = Fake("\x0B\x77"s, TFakeCandidate::kAudio, "ac3");
  refusing->acceptInit = false;
  auto detector = TFormatDetector::CreateWith({nullptr, nullptr, nullptr, refusing}, nullptr);
  // An empty file: Write is never called; the refusing candidate is dropped at InitAudio.
  EXPECT_FALSE(detector->InitAudio("?", 1, 8, 48000, false, 0));
  EXPECT_EQ(detector->Candidate(3), nullptr);
  EXPECT_FALSE(detector->AudioDetails()->IsValid());
  EXPECT_FALSE(detector->ContainerDetails()->IsValid());
  EXPECT_FALSE(detector->SubtitleDetails()->IsValid());

  // The fixed list builds; a slot is filled exactly when its factory makes a reader.
  auto real = TFormatDetector::Create(false, false);
  for (const TCandidateSlot& slot : kCandidateSlots) {
    TCandidateContext context;
    EXPECT_EQ(real->Candidate(slot.index) != nullptr, slot.factory(context) != nullptr)
        << slot.name;
  }
}

TEST(FormatDetector, DtsInWavIsAnnouncedAsDtswav) {
  TScratchDir dir;
  // Slot 7: a WAV reader whose chain ends in a DTS reader.
  auto wav = Fake("RIFF"s, TFakeCandidate::kAudio, "wav");
  auto dts = Fake("RIFF"s, TFakeCandidate::kAudio, "dts");
  wav->SetUpStream(dts);
  std::vector<UpStreamRef> slots(8);
  slots[7] = wav;
  auto detector = TFormatDetector::CreateWith(slots, dts);
  TDetection run = Detect(dir, "RIFF", 50000, detector);
  EXPECT_FALSE(run.result);
  EXPECT_EQ(detector->AudioDetails()->Format(), "dtswav");
  EXPECT_EQ(detector->AudioDetails()->Name(), "DTSWAV");
  EXPECT_EQ(detector->AudioDetails()->SampleRate(), 48000u);
  EXPECT_TRUE(dts->IsSilent());
  EXPECT_NE(Query<IFileSimulator>(dts->UpStream()), nullptr);
}

}  // namespace
}  // namespace sonvex
