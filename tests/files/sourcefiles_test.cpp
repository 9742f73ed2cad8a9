// TSourceFiles: joined reading in 16384-byte blocks, the limit, empty files, Seek and Read, the
// announcements of the read loop, seams between joined files, and the probes on synthetic
// transport and program streams with their messages.
#include "files/sourcefiles.h"

#include <gtest/gtest.h>

#include <fstream>

#include "files/filetest_support.h"
#include "files/sourceprobe.h"
#include "support/capture.h"

namespace sonvex::filestest {
namespace {

// Records how many bytes had arrived when each seam was announced.
class TSeamCapture : public TCapture {
public:
  void NotifySeam(bool before, int64_t jump) override {
    TCapture::NotifySeam(before, jump);
    bytesAtSeam.push_back(bytes.size());
  }
  std::vector<size_t> bytesAtSeam;
};

struct TRun {
  std::shared_ptr<TSourceFiles> source;
  std::shared_ptr<TSeamCapture> capture = std::make_shared<TSeamCapture>();
  bool result = false;
};

TRun RunSource(const std::vector<std::string>& names, int64_t limit = 0) {
  TRun run;
  run.source = TSourceFiles::Create(names, 24000, 1001, limit);
  run.source->SetUpStream(run.capture);
  run.result = run.source->Write(0, false, nullptr, 0, 1234, false);
  return run;
}

TEST(SourceFiles, JoinedFilesReadAsTheirConcatenationInWholeBlocks) {
  TempDir dir;
  auto a = Pattern(2 * 16384 + 1000, 1), b = Pattern(30000, 2);
  WriteWhole(dir / "a.bin", a);
  WriteWhole(dir / "b.bin", b);
  TRun run = RunSource({dir / "a.bin", dir / "b.bin"});
  ASSERT_TRUE(run.result);
  std::vector<uint8_t> joined = a;
  joined.insert(joined.end(), b.begin(), b.end());
  EXPECT_TRUE(run.capture->bytes == joined);
  // The block that would cross the end of a is cut there; nothing is held back.
  EXPECT_EQ(run.capture->blocks, (std::vector<uint32_t>{16384, 16384, 1000, 16384, 13616}));
  EXPECT_EQ(run.capture->positions.front(), 1234);  // handed on as it came
  EXPECT_EQ(run.capture->finished, 1);
  // Neither container: bare streams begin, with the joined length.
  EXPECT_EQ(run.capture->audioInits.at(0).totalSize, int64_t(joined.size()));
  EXPECT_TRUE(run.capture->seams.empty());
}

// A limit cuts in mid-block; empty files in a join are no read failure.
TEST(SourceFiles, LimitAndEmptyFiles) {
  TempDir dir;
  WriteWhole(dir / "a.bin", Pattern(100000, 3));
  TRun run = RunSource({dir / "a.bin"}, 20000);
  ASSERT_TRUE(run.result);
  EXPECT_EQ(run.capture->blocks, (std::vector<uint32_t>{16384, 3616}));
  EXPECT_EQ(run.capture->finished, 1);

  WriteWhole(dir / "b.bin", Pattern(1000, 4));
  WriteWhole(dir / "empty.bin", {});
  run = RunSource({dir / "b.bin", dir / "empty.bin", dir / "b.bin", dir / "empty.bin"});
  ASSERT_TRUE(run.result);
  EXPECT_EQ(run.capture->blocks, (std::vector<uint32_t>{1000, 1000}));
  EXPECT_EQ(run.capture->finished, 1);
}

TEST(SourceFiles, FailuresHaveTheirMessages) {
  TempDir dir;
  TLogRecorder log;
  auto missing = TSourceFiles::Create({dir / "none.ts"}, 24000, 1001, 0);
  EXPECT_FALSE(missing->IsValid());
  EXPECT_TRUE(log.Has(2, "The source file \"" + dir / "none.ts" + "\" could not be opened."));
  EXPECT_FALSE(missing->Write(0, false, nullptr, 0, -1, false));

  // A refusing upstream stops the reading after the first block.
  WriteWhole(dir / "big.bin", Pattern(100000, 5));
  auto source = TSourceFiles::Create({dir / "big.bin"}, 24000, 1001, 0);
  auto capture = TCapture::Create();
  capture->acceptWrites = false;
  source->SetUpStream(capture);
  EXPECT_FALSE(source->Write(0, false, nullptr, 0, -1, false));
  EXPECT_EQ(capture->blocks.size(), 1u);
  EXPECT_EQ(capture->finished, 0);
}

TEST(SourceFiles, SeekAndReadWalkTheJoinedStream) {
  TempDir dir;
  auto a = Pattern(5000, 6), b = Pattern(7000, 7);
  WriteWhole(dir / "a.bin", a);
  WriteWhole(dir / "b.bin", b);
  auto source = TSourceFiles::Create({dir / "a.bin", dir / "b.bin"}, 24000, 1001, 0);
  EXPECT_EQ(source->TotalSize(), 12000);
  EXPECT_FALSE(source->Seek(12001));
  EXPECT_FALSE(source->Seek(-1));
  ASSERT_TRUE(source->Seek(4000));
  std::vector<uint8_t> buffer(4000);
  uint32_t size = 4000;
  // A read stops where it crosses into the next file...
  ASSERT_TRUE(source->Read(buffer.data(), size));
  ASSERT_EQ(size, 1000u);
  EXPECT_TRUE(std::equal(buffer.begin(), buffer.begin() + 1000, a.begin() + 4000));
  size = 4000;
  ASSERT_TRUE(source->Read(buffer.data(), size));
  ASSERT_EQ(size, 4000u);
  EXPECT_TRUE(std::equal(buffer.begin(), buffer.end(), b.begin()));
  // ... and is cut at the end of the stream.
  ASSERT_TRUE(source->Seek(11000));
  size = 4000;
  ASSERT_TRUE(source->Read(buffer.data(), size));
  EXPECT_EQ(size, 1000u);
  EXPECT_TRUE(std::equal(buffer.begin(), buffer.begin() + 1000, b.begin() + 6000));
}

TEST(SourceFiles, FilesOver4GiBAreOrdinaryInput) {
  TempDir dir;
  // A sparse file of 5 GiB with a mark beyond the 4 GiB line.
  const int64_t size = int64_t(5) << 30, mark = (int64_t(4) << 30) + 100;
  {
    std::ofstream out(dir / "big.bin", std::ios::binary);
    out.seekp(mark);
    out.write("MARK", 4);
  }
  fs::resize_file(dir / "big.bin", uintmax_t(size));
  WriteWhole(dir / "tail.bin", Pattern(10, 12));
  auto source = TSourceFiles::Create({dir / "big.bin", dir / "tail.bin"}, 24000, 1001, 0);
  ASSERT_TRUE(source->IsValid());
  EXPECT_EQ(source->TotalSize(), size + 10);
  ASSERT_TRUE(source->Seek(mark));
  uint8_t buffer[4];
  uint32_t got = 4;
  ASSERT_TRUE(source->Read(buffer, got));
  EXPECT_EQ(std::string(reinterpret_cast<char*>(buffer), got), "MARK");
  EXPECT_EQ(source->Position(), mark + 4);
  ASSERT_TRUE(source->Seek(size + 2));
  got = 4;
  ASSERT_TRUE(source->Read(buffer, got));
  ASSERT_EQ(got, 4u);
  EXPECT_EQ(buffer[0], Pattern(10, 12)[2]);
}

TEST(SourceProbe, PacketSizeDetection) {
  std::vector<uint8_t> plain, m2ts;
  for (int i = 0; i < 100; i++) {
    Append(plain, TsPacket(0x100, false, {}, 188));
    Append(m2ts, TsPacket(0x100, false, {}, 192));
  }
  EXPECT_EQ(DetectTsPacketSize(plain.data(), plain.size()), 188u);
  EXPECT_EQ(DetectTsPacketSize(m2ts.data(), m2ts.size()), 192u);
  std::vector<uint8_t> noise = Pattern(100000, 8);
  noise[0] = 'G';
  EXPECT_EQ(DetectTsPacketSize(noise.data(), noise.size()), 0u);
  EXPECT_EQ(DetectTsPacketSize(noise.data(), 12), 0u);
  // The first ten packets fit both spacings; the test doubles and finds 192.
  for (int i = 0; i < 10; i++) m2ts[size_t(i) * 188] = 'G';
  EXPECT_EQ(DetectTsPacketSize(m2ts.data(), m2ts.size()), 192u);
  // Nothing but "G": rejected once the count reaches 0x10000, unless the data runs out first.
  std::vector<uint8_t> allG(0xA00000, 'G');
  EXPECT_EQ(DetectTsPacketSize(allG.data(), allG.size()), 0u);
  EXPECT_EQ(DetectTsPacketSize(allG.data(), 100000), 188u);
}

constexpr uint16_t kPmtPid = 0x100, kVideoPid = 0x1011, kAudioPid = 0x1100;

// PAT, PMT (H.264 video and AC3 audio), then `frames` video PES with PTS from `firstPts` in steps
// of 3753 (24000/1001), each followed by an audio PES and a packet of payload.
std::vector<uint8_t> MakeTs(uint32_t packetSize, int64_t firstPts, int frames) {
  std::vector<uint8_t> ts;
  Append(ts, TsPacket(0, true, WithPointer(Section(0x00, 1, PatBody(1, kPmtPid))), packetSize));
  auto pmt = PmtBody(kVideoPid, {{0x1B, kVideoPid}, {0x81, kAudioPid, 6}});
  Append(ts, TsPacket(kPmtPid, true, WithPointer(Section(0x02, 1, pmt)), packetSize));
  for (int i = 0; i < frames; i++) {
    Append(ts, TsPacket(kVideoPid, true, PesHeader(0xE0, firstPts + i * 3753), packetSize));
    Append(ts, TsPacket(kAudioPid, true, PesHeader(0xBD, firstPts - 9000 + i * 3753), packetSize));
    Append(ts, TsPacket(kVideoPid, false, std::vector<uint8_t>(184, 0x11), packetSize));
  }
  return ts;
}

TEST(SourceProbe, JoinedTransportStreamsGetASeamWhereStampsJump) {
  TempDir dir;
  WriteWhole(dir / "a.ts", MakeTs(192, 900000, 20));
  WriteWhole(dir / "b.ts", MakeTs(192, 900000 + 20 * 3753, 20));  // continues a
  WriteWhole(dir / "c.ts", MakeTs(192, 5000000, 20));
  TRun joined = RunSource({dir / "a.ts", dir / "b.ts"});
  ASSERT_TRUE(joined.result);
  EXPECT_EQ(joined.capture->seams, (std::vector<std::pair<bool, int64_t>>{{true, 0}, {false, 0}}));
  EXPECT_EQ(joined.source->PlayTime(), 2 * 19 * 3753);
  EXPECT_EQ(joined.capture->containerInits, std::vector<std::string>{"m2ts"});

  TRun jump = RunSource({dir / "a.ts", dir / "c.ts"});
  ASSERT_TRUE(jump.result);
  int64_t expected = 5000000 - (900000 + 20 * 3753);
  EXPECT_EQ(jump.capture->seams,
            (std::vector<std::pair<bool, int64_t>>{{true, expected}, {false, expected}}));
  // Both come behind the last byte of a and ahead of the first of c.
  size_t sizeA = ReadWhole(dir / "a.ts").size();
  EXPECT_EQ(jump.capture->bytesAtSeam, (std::vector<size_t>{sizeA, sizeA}));
}

TEST(SourceProbe, DamagedTransportStreamsAreReported) {
  TempDir dir;
  struct TCase {
    const char* message;
    std::function<void(std::vector<uint8_t>&)> damage;
  };
  std::vector<TCase> cases = {
      {"This TS/M2TS file seems to be damaged (sync byte missing).",
       [](std::vector<uint8_t>& ts) { ts[188 * 20] = 0x48; }},
      {"This TS/M2TS file seems to be damaged (adaptation field too big).",
       [](std::vector<uint8_t>& ts) {
         ts[188 * 20 + 3] = 0x30;  // adaptation field and payload
         ts[188 * 20 + 4] = 190;   // adaptation_field_length past the packet's end
       }},
      {"This TS/M2TS file seems to be damaged (pointer_field too big).",
       [](std::vector<uint8_t>& ts) {
         auto pat = TsPacket(0, true, {200});
         std::copy(pat.begin(), pat.end(), ts.begin() + 188 * 20);
       }},
      {"This TS/M2TS file seems to be damaged (ES_info too big).",
       [](std::vector<uint8_t>& ts) {
         auto pmt = PmtBody(kVideoPid, {{0x1B, kVideoPid, 0}});
         pmt.back() = 40;  // ES_info_length runs past the section
         pmt.resize(pmt.size() + 10, 0);
         auto packet = TsPacket(kPmtPid, true, WithPointer(Section(0x02, 1, pmt)));
         std::copy(packet.begin(), packet.end(), ts.begin() + 188);
       }},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.message);
    auto ts = MakeTs(188, 900000, 30);
    c.damage(ts);
    WriteWhole(dir / "d.ts", ts);
    TLogRecorder log;
    auto source = TSourceFiles::Create({dir / "d.ts"}, 24000, 1001, 0);
    EXPECT_TRUE(log.Has(2, c.message));
    // The stage stays usable; the damaged file gives no time stamps.
    EXPECT_TRUE(source->IsValid());
    EXPECT_EQ(source->FirstStamps()[0], -1);
  }
}

TEST(SourceProbe, AChangedStreamTypeIsReported) {
  TempDir dir;
  auto ts = MakeTs(188, 900000, 10);
  // A second PMT calls the audio PID a video stream.
  auto pmt = PmtBody(kVideoPid, {{0x1B, kVideoPid}, {0x1B, kAudioPid}});
  Append(ts, TsPacket(kPmtPid, true, WithPointer(Section(0x02, 1, pmt))));
  WriteWhole(dir / "a.ts", ts);
  TLogRecorder log;
  auto source = TSourceFiles::Create({dir / "a.ts"}, 24000, 1001, 0);
  EXPECT_EQ(log.lines, (std::vector<std::pair<int, std::string>>{
                           {1, "The program channel mapping changes in the middle of the stream."}}));
  EXPECT_TRUE(source->IsTs());
  EXPECT_EQ(source->PlayTime(), 9 * 3753);
}

TEST(SourceProbe, BadPesStartEndsTheTransportStreamView) {
  TempDir dir;
  auto good = MakeTs(188, 900000, 10);
  auto bad = good;
  // The first video PES (third packet) starts behind the adaptation field.
  size_t pes = 188 * 2 + 5 + good[188 * 2 + 4];
  ASSERT_EQ(good[pes + 2], 0x01);
  bad[pes + 2] = 0x02;  // packet_start_code_prefix 00 00 02
  WriteWhole(dir / "good.ts", good);
  WriteWhole(dir / "bad.ts", bad);
  {
    TLogRecorder log;
    auto first = TSourceFiles::Create({dir / "bad.ts"}, 24000, 1001, 0);
    EXPECT_TRUE(log.Has(2, "This doesn't seem to be a valid PES packet."));
    EXPECT_FALSE(first->IsTs());
  }
  TLogRecorder log;
  auto later = TSourceFiles::Create({dir / "good.ts", dir / "bad.ts"}, 24000, 1001, 0);
  EXPECT_TRUE(log.Has(1, "This doesn't seem to be a valid PES packet."));
  EXPECT_TRUE(later->IsTs());
  EXPECT_EQ(later->PlayTime(), 0);
}

// Program stream: pack header, DSI, then a video and an audio PES per unit.
std::vector<uint8_t> MakeEvo(int64_t firstPts, int frames, bool withPts = true) {
  std::vector<uint8_t> ps;
  Append(ps, PackHeader());
  Append(ps, DsiPacket(1000, 91000));
  for (int i = 0; i < frames; i++) {
    Append(ps, PackHeader());
    if (withPts) {
      Append(ps, PsPes(0xE0, firstPts + i * 3753, 500));
      Append(ps, PsPes(0xBD, firstPts - 900 + i * 3753, 100));
    }
  }
  return ps;
}

TEST(SourceProbe, ProgramStreamPlayTimeFromVideoStampsOrTheDsi) {
  TempDir dir;
  WriteWhole(dir / "a.evo", MakeEvo(180000, 40));
  auto source = TSourceFiles::Create({dir / "a.evo"}, 24000, 1001, 0);
  EXPECT_TRUE(source->IsEvo());
  EXPECT_EQ(source->PlayTime(), 39 * 3753);
  EXPECT_EQ(source->FirstStamps()[0], 180000);
  EXPECT_EQ(source->LastStamps()[0], 180000 + 40 * 3753);

  // Without any PTS the DSI's start and end times give the play time.
  WriteWhole(dir / "b.evo", MakeEvo(0, 5, false));
  auto dsiOnly = TSourceFiles::Create({dir / "b.evo"}, 24000, 1001, 0);
  EXPECT_TRUE(dsiOnly->IsEvo());
  EXPECT_EQ(dsiOnly->PlayTime(), 90000);
  EXPECT_EQ(dsiOnly->FirstStamps()[0], -1);

  TRun run = RunSource({dir / "a.evo"});
  EXPECT_EQ(run.capture->containerInits, std::vector<std::string>{"evo"});
}

TEST(SourceProbe, LaterFilesThatArentProgramStreamsTakeThePlayTime) {
  TempDir dir;
  WriteWhole(dir / "a.evo", MakeEvo(180000, 10));
  auto other = MakeEvo(180000, 10);
  other[0] = 0x0B;  // not a start code
  WriteWhole(dir / "x.evo", other);
  TLogRecorder log;
  auto source = TSourceFiles::Create({dir / "a.evo", dir / "x.evo"}, 24000, 1001, 0);
  EXPECT_TRUE(log.Has(1, "The file \"" + dir / "x.evo" + "\" doesn't look like a valid EVO/VOB file."));
  EXPECT_TRUE(source->IsEvo());
  EXPECT_EQ(source->PlayTime(), 0);

  WriteWhole(dir / "tiny.evo", {0, 0, 1, 0xBA});
  TLogRecorder log2;
  auto tiny = TSourceFiles::Create({dir / "a.evo", dir / "tiny.evo"}, 24000, 1001, 0);
  EXPECT_TRUE(log2.Has(1, "The EVO/VOB file \"" + dir / "tiny.evo" +
                              "\" doesn't contain a valid DSI packet."));
}

}  // namespace
}  // namespace sonvex::filestest
