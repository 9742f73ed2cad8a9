// VC-1 into Matroska on a synthetic Advanced Profile stream (no VC-1 encoder exists among the
// tools): the sonvex binary writes a file that ffprobe and mkvinfo open, with as many frames as
// ffprobe finds in the source, every frame's payload as ffmpeg -c copy takes it from the source
// (sequence header and entry point in front of the frame they stand before), key frames at the
// sequence headers, and the frame rate in the header. Also TVc1Muxer's packing on its own.
#include <gtest/gtest.h>

#include "support/capture.h"
#include "support/e2e.h"
#include "video/vc1muxer.h"
#include "video/videobitwriter.h"

namespace sonvex::videotest {
namespace {

std::vector<uint8_t> Unit(uint8_t code, const std::vector<uint8_t>& payload) {
  std::vector<uint8_t> unit = {0, 0, 1, code};
  unit.insert(unit.end(), payload.begin(), payload.end());
  return unit;
}

// 1920x1080 progressive at 24000/1001, square samples.
std::vector<uint8_t> SequenceHeader() {
  BitWriter w;
  w.Put(2, 3);             // PROFILE: advanced
  w.Put(3, 3);             // LEVEL
  w.Put(2, 1);             // COLORDIFF_FORMAT: 4:2:0
  w.Put(3, 7);             // FRMRTQ_POSTPROC
  w.Put(5, 31);            // BITRTQ_POSTPROC
  w.PutBit(0);             // POSTPROCFLAG
  w.Put(12, (1920 - 2) / 2);  // MAX_CODED_WIDTH
  w.Put(12, (1080 - 2) / 2);  // MAX_CODED_HEIGHT
  w.PutBit(0);             // PULLDOWN
  w.PutBit(0);             // INTERLACE
  w.PutBit(0);             // TFCNTRFLAG
  w.PutBit(0);             // FINTERPFLAG
  w.PutBit(1);             // reserved
  w.PutBit(0);             // PSF
  w.PutBit(1);             // DISPLAY_EXT
  w.Put(14, 1920 - 1);     // DISP_HORIZ_SIZE
  w.Put(14, 1080 - 1);     // DISP_VERT_SIZE
  w.PutBit(1);             // ASPECT_RATIO_FLAG
  w.Put(4, 1);             // ASPECT_RATIO: square samples
  w.PutBit(1);             // FRAMERATE_FLAG
  w.PutBit(0);             // FRAMERATEIND
  w.Put(8, 1);             // FRAMERATENR: 24
  w.Put(4, 2);             // FRAMERATEDR: /1.001
  w.PutBit(0);             // COLOR_FORMAT_FLAG
  w.PutBit(0);             // HRD_PARAM_FLAG
  w.Trailing();
  return Unit(0x0F, w.bytes);
}

std::vector<uint8_t> EntryPoint() { return Unit(0x0E, {0x48, 0x0A, 0x8A, 0x80}); }

std::vector<uint8_t> Frame(int index) {
  std::vector<uint8_t> payload(60 + index % 7, uint8_t(0x40 + index % 32));
  payload[0] = index % 8 == 0 ? 0x68 : 0x20;  // I or P picture type
  return Unit(0x0D, payload);
}

// Groups of 8 frames, each group behind a sequence header and an entry point.
std::vector<uint8_t> Stream(int groups) {
  std::vector<uint8_t> stream;
  for (int i = 0; i < groups * 8; i++) {
    if (i % 8 == 0) {
      auto header = SequenceHeader(), entry = EntryPoint();
      stream.insert(stream.end(), header.begin(), header.end());
      stream.insert(stream.end(), entry.begin(), entry.end());
    }
    auto frame = Frame(i);
    stream.insert(stream.end(), frame.begin(), frame.end());
  }
  return stream;
}

TEST(Vc1Muxer, FramesCarryTheHeadersAheadOfThem) {
  auto muxer = TVc1Muxer::Create();
  auto capture = TCapture::Create();
  muxer->SetUpStream(capture);
  ASSERT_TRUE(muxer->InitVideo("vc1", false, false, 1920, 1080, 16, 9, 24000, 1001, ""));
  auto header = SequenceHeader(), entry = EntryPoint(), f0 = Frame(0), f1 = Frame(1);
  auto user = Unit(0x1F, {1, 2, 3});
  for (const auto& unit : {header, entry, user, f0, f1})
    ASSERT_TRUE(muxer->Write(0, false, unit.data(), uint32_t(unit.size()), 417083, false));
  std::vector<uint8_t> first = header;
  first.insert(first.end(), entry.begin(), entry.end());
  first.insert(first.end(), f0.begin(), f0.end());
  ASSERT_EQ(capture->blocks, (std::vector<uint32_t>{uint32_t(first.size()), uint32_t(f1.size())}));
  EXPECT_TRUE(std::equal(first.begin(), first.end(), capture->bytes.begin()));
  EXPECT_FALSE(muxer->Write(0, false, f0.data(), 3, 0, false));
}

TEST(Vc1Muxer, SyntheticStreamIntoMatroska) {
  SKIP_WITHOUT_TOOL("ffprobe");
  SKIP_WITHOUT_TOOL("mkvinfo");
  TempDir dir;
  std::string source = dir / "src.vc1", mkv = dir / "out.mkv";
  auto stream = Stream(4);
  std::ofstream(source, std::ios::binary)
      .write(reinterpret_cast<const char*>(stream.data()), std::streamsize(stream.size()));
  RunResult run = RunSonvex({source, mkv}, dir.path());
  ASSERT_EQ(run.exitCode, 0) << run.out << run.err;
  EXPECT_TRUE(run.HasLine("Added fps value to MKV header."));
  std::string info = RunShell("mkvinfo " + ShellQuote(mkv) + " 2>&1", dir.path()).out;
  EXPECT_EQ(info.find("Error"), std::string::npos) << info;
  EXPECT_NE(info.find("Language: und"), std::string::npos) << info;
  EXPECT_NE(info.find("Default duration: 00:00:00.041708333"), std::string::npos) << info;
  auto packets = [&](const std::string& file, const std::string& format) {
    return RunShell("sh -c " + ShellQuote("ffmpeg -nostdin -v error " + format + "-i " +
                                          ShellQuote(file) +
                                          " -map 0:v -c copy -copyinkf -f framemd5 - | grep -v '^#' | "
                                          "awk -F, '{print $5,$6}'"),
                    dir.path())
        .out;
  };
  std::string ours = packets(mkv, ""), theirs = packets(source, "-f vc1 ");
  EXPECT_EQ(std::count(ours.begin(), ours.end(), '\n'), 32);
  EXPECT_EQ(ours, theirs);
  // The frames can't be decoded, so the key flags are read from the blocks by mkvinfo.
  std::string blocks = RunShell("mkvinfo -s " + ShellQuote(mkv), dir.path()).out;
  std::vector<bool> keys;
  std::istringstream lines(blocks);
  for (std::string line; std::getline(lines, line);)
    if (line.find(" frame, track 1,") != std::string::npos) keys.push_back(line[0] == 'I');
  ASSERT_EQ(keys.size(), 32u);
  for (size_t i = 0; i < keys.size(); i++) EXPECT_EQ(keys[i], i % 8 == 0) << "frame " << i;
}

}  // namespace
}  // namespace sonvex::videotest
