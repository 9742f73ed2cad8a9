// The H.264 and MPEG-2 readers on the reference corpus: the listing line agrees with ffprobe's
// size, field order and frame rate, the frame count with ffprobe's decoded frame count, and the
// stream comes out byte for byte as it went in (as ffmpeg -c copy extracts it), apart from a
// sequence end. The pulldown options act on the film stream; cut and garbage streams are
// refused with the readers' words. Skipped when the corpus is absent.
#include <gtest/gtest.h>

#include <unistd.h>

#include <filesystem>

#include "support/battery.h"
#include "video/h264reader.h"
#include "video/mpeg2reader.h"
#include "video/videotestutil.h"

namespace sonvex::test {}
namespace sonvex::videotest {
using namespace ::sonvex::test;
namespace {

struct CorpusCase {
  const char* file;
  bool h264;
  bool extract;       // a container: the video is extracted with ffmpeg -c copy
  bool pulldown;      // made with 3:2 pulldown flags
  bool countFrames;   // ffprobe's decoded frame count is a fair oracle
};

constexpr CorpusCase kCases[] = {
    {"gen/h264_1080p24.h264", true, false, false, true},
    {"gen/mpeg2_480p24_pulldown.m2v", false, false, true, true},
    {"gen/mpeg2_576i25.m2v", false, false, false, true},
    {"public/video/tcela-6.m2v", false, false, false, true},
    {"gen/ts_h264_eac3_ac3_aac.ts", true, true, false, true},
    {"gen/bd_gap_long_200ms.m2ts", true, true, false, true},
    {"public/m2ts/Test_H264.m2ts", true, true, false, true},
    // Field coded, cut behind its first I field: a delimiter stands before every field, and
    // ffprobe can't decode the fields ahead of the first I field.
    {"public/ts/h264_intra_first_mp2x2.ts", true, true, false, false},
    {"public/ts/xdcam8mp2.ts", false, true, false, true},
    {"public/vob/coolitnow_lpcm.vob", false, true, false, true},
    {"public/vob/dvd_single_frame.vob", false, true, false, true},
};

std::string TempName(const std::string& stem) {
  return (std::filesystem::temp_directory_path() /
          ("sonvex_video_" + std::to_string(getpid()) + "_" + stem))
      .string();
}

// The elementary stream of a case: the file itself, or what ffmpeg -c copy extracts.
std::string ElementaryStream(const CorpusCase& c) {
  if (!c.extract) return CorpusPath(c.file);
  std::string out = TempName(std::filesystem::path(c.file).filename().string() + ".es");
  RunCommand(std::string("ffmpeg -nostdin -v error -y -i '") + CorpusPath(c.file) +
             "' -map 0:v:0 -c copy -f " + (c.h264 ? "h264" : "mpeg2video") + " '" + out + "'");
  return out;
}

// "24000/1001" -> {24000, 1001}
std::pair<uint64_t, uint64_t> Rate(const std::string& text) {
  auto slash = text.find('/');
  if (slash == std::string::npos) return {0, 1};
  return {std::stoull(text.substr(0, slash)), std::stoull(text.substr(slash + 1))};
}

// The listing line that ffprobe's facts call for: resolution shorthand for the three disc
// sizes, "i" with the field rate or "p" with the frame rate, " /1.001" for NTSC rates, the
// display aspect, and the pulldown note (a 3:2 film shows 4 frames for every 5 of the 29.97 Hz
// that ffprobe reports on average).
std::string ExpectedLine(std::map<std::string, std::string> facts, bool h264, bool pulldown) {
  std::string width = facts["width"], height = facts["height"];
  bool interlaced = facts["field_order"] != "progressive";
  auto [num, den] = Rate(pulldown ? facts["avg_frame_rate"] : facts["r_frame_rate"]);
  if (pulldown) num *= 4, den *= 5;
  if (interlaced) num *= 2;
  bool ntsc = den % 1001 == 0;
  std::string rate = std::to_string(ntsc ? num * 1001 / den / 1000 : num / den);
  std::string scan = interlaced ? "i" : "p";
  std::string line = h264 ? "h264/AVC, " : "MPEG2, ";
  if ((width == "1920" && height == "1080") || (width == "720" && (height == "480" || height == "576")))
    line += height + scan + rate;
  else
    line += width + "x" + height + " " + rate + scan;
  if (ntsc) line += " /1.001";
  line += " (" + facts["display_aspect_ratio"] + ")";
  if (pulldown) line += " with pulldown flags";
  return line;
}

// The stream without a sequence end unit at its very end: the readers never send that unit.
std::vector<uint8_t> WithoutSequenceEnd(std::vector<uint8_t> stream, bool h264) {
  size_t n = stream.size();
  if (n >= 4 && stream[n - 4] == 0 && stream[n - 3] == 0 && stream[n - 2] == 1 &&
      (h264 ? (stream[n - 1] == 0x0A || stream[n - 1] == 0x0B) : stream[n - 1] == 0xB7)) {
    stream.resize(n - 4);
    if (h264 && !stream.empty() && stream.back() == 0) stream.pop_back();
  }
  return stream;
}

std::string Md5(const std::vector<uint8_t>& bytes) {
  std::string name = TempName("md5");
  std::ofstream(name, std::ios::binary).write(reinterpret_cast<const char*>(bytes.data()),
                                              long(bytes.size()));
  std::string out = RunCommand("md5sum '" + name + "'");
  std::filesystem::remove(name);
  return out.substr(0, 32);
}

// md5 of ffmpeg's -c copy extraction of the first video stream, from the demux table.
std::string DemuxReferenceMd5(const std::string& container) {
  std::ifstream table(CorpusPath("gen/DEMUX_REFERENCE.tsv"));
  std::string line;
  while (std::getline(table, line)) {
    std::istringstream fields(line);
    std::string name, stream, id, codec, format, bytes, packets, md5;
    fields >> name >> stream >> id >> codec >> format >> bytes >> packets >> md5;
    if (name == container && stream == "0") return md5;
  }
  return "";
}

// ffprobe's decoded frame count of the first video stream, from the stream table.
std::string ManifestFrames(const std::string& file) {
  std::ifstream table(CorpusPath("gen/MANIFEST_STREAMS.tsv"));
  std::string line;
  while (std::getline(table, line)) {
    std::vector<std::string> fields;
    std::istringstream cells(line);
    std::string cell;
    while (std::getline(cells, cell, '\t')) fields.push_back(cell);
    if (fields.size() >= 21 && fields[0] == file && fields[3] == "video") return fields[20];
  }
  return "";
}

UpStreamRef Detector(bool h264) {
  return h264 ? UpStreamRef(Th264Reader::Create()) : UpStreamRef(TMpeg2Reader::Create());
}

TEST(VideoCorpus, ListingFrameCountAndBytesAgreeWithFfmpeg) {
  if (!CorpusPresent()) GTEST_SKIP() << "no corpus";
  for (const CorpusCase& c : kCases) {
    SCOPED_TRACE(c.file);
    std::string path = ElementaryStream(c);
    std::vector<uint8_t> stream = ReadBytes(path);
    ASSERT_FALSE(stream.empty());
    bool generated = std::string(c.file).rfind("gen/", 0) == 0;
    std::map<std::string, std::string> facts = ProbeVideo(path, c.countFrames && !generated);
    if (generated) facts["nb_read_frames"] = ManifestFrames(c.file + 4);
    ASSERT_FALSE(facts["nb_read_frames"].empty());
    UpStreamRef reader = Detector(c.h264);
    ReaderRun run = PushStream(reader, stream);
    ASSERT_TRUE(run.ok);
    EXPECT_TRUE(run.lines.empty());
    EXPECT_EQ(reader->VideoDetails()->Description(), ExpectedLine(facts, c.h264, c.pulldown));
    EXPECT_EQ(reader->VideoDetails()->Width(), std::stoul(facts["width"]));
    EXPECT_EQ(reader->VideoDetails()->Height(), std::stoul(facts["height"]));
    if (c.countFrames)
      EXPECT_EQ(std::to_string(reader->VideoDetails()->FrameCount()), facts["nb_read_frames"]);
    EXPECT_TRUE(run.capture->bytes == WithoutSequenceEnd(stream, c.h264))
        << "the stream didn't come out as it went in";
    std::string reference = DemuxReferenceMd5(std::filesystem::path(c.file).filename().string());
    if (!reference.empty()) EXPECT_EQ(Md5(run.capture->bytes), reference);
    if (c.extract) std::filesystem::remove(path);
  }
}

TEST(VideoCorpus, PulldownOptionsActOnTheFilmStream) {
  if (!CorpusPresent()) GTEST_SKIP() << "no corpus";
  std::vector<uint8_t> film = ReadBytes(CorpusPath("gen/mpeg2_480p24_pulldown.m2v"));
  // -stripPulldown: every repeat_first_field is cleared and the first sequence header says
  // 23.976 Hz (later ones go on as they came); ffmpeg still decodes every frame of it.
  auto strip = TMpeg2Reader::Create(false, false, false, false, true, "", "", 1, true, true);
  ReaderRun run = PushStream(strip, film);
  ASSERT_TRUE(run.ok);
  EXPECT_EQ(run.lines, std::vector<std::string>{"0 Removing MPEG2 pulldown..."});
  const std::vector<uint8_t>& out = run.capture->bytes;
  ASSERT_EQ(out.size(), WithoutSequenceEnd(film, false).size());
  std::vector<int> rateCodes;
  int repeated = 0, changed = 0;
  for (size_t i = 0; i + 8 < out.size(); i++) {
    if (out[i] != 0 || out[i + 1] != 0 || out[i + 2] != 1) continue;
    if (out[i + 3] == 0xB3) rateCodes.push_back(out[i + 7] & 0x0F);
    if (out[i + 3] == 0xB5 && out[i + 4] >> 4 == 8) {
      repeated += (out[i + 7] & 0x02) != 0;
      changed += out[i + 7] != film[i + 7];
    }
  }
  ASSERT_EQ(rateCodes.size(), 10u);
  EXPECT_EQ(rateCodes[0], 1);
  EXPECT_EQ(rateCodes[9], 4);
  EXPECT_EQ(repeated, 0);
  EXPECT_GT(changed, 0);
  std::string stripped = TempName("stripped.m2v");
  std::ofstream(stripped, std::ios::binary)
      .write(reinterpret_cast<const char*>(out.data()), long(out.size()));
  std::map<std::string, std::string> facts = ProbeVideo(stripped, true);
  std::filesystem::remove(stripped);
  EXPECT_EQ(facts["field_order"], "progressive");
  EXPECT_EQ(facts["nb_read_frames"], "144");
  EXPECT_EQ(strip->FieldCount(), 288);

  // -keepPulldown: the stream stays as it came, announced at 29.97 Hz without pulldown.
  auto keep = TMpeg2Reader::Create(false, true, false, false, true, "", "", 1, false, true);
  run = PushStream(keep, film);
  ASSERT_TRUE(run.ok);
  EXPECT_TRUE(run.lines.empty());
  EXPECT_TRUE(run.capture->bytes == WithoutSequenceEnd(film, false));
  EXPECT_EQ(keep->VideoDetails()->Description(), "MPEG2, 480p30 /1.001 (16:9)");
  EXPECT_EQ(keep->FieldCount(), 360);  // five fields for every four frames
}

TEST(VideoCorpus, CutAndGarbageStreamsAreRefused) {
  if (!CorpusPresent()) GTEST_SKIP() << "no corpus";
  std::vector<uint8_t> h264 = ReadBytes(CorpusPath("gen/h264_1080p24.h264"));
  std::vector<uint8_t> mpeg2 = ReadBytes(CorpusPath("gen/mpeg2_576i25.m2v"));
  ASSERT_GT(h264.size(), 1000u);
  ASSERT_GT(mpeg2.size(), 1000u);
  auto refused = [](bool isH264, const std::vector<uint8_t>& bytes) {
    ReaderRun run = PushStream(Detector(isH264), bytes);
    EXPECT_FALSE(run.ok);
    return run.lines;
  };
  const std::vector<std::string> badH264{"2 This doesn't seem to be a valid h264/AVC stream."};
  const std::vector<std::string> badMpeg2{"2 This doesn't seem to be a valid MPEG2 stream."};
  // Cut ahead of the parameter sets; or behind the first bytes.
  EXPECT_EQ(refused(true, std::vector<uint8_t>(h264.begin(), h264.begin() + 790)), badH264);
  EXPECT_EQ(refused(true, std::vector<uint8_t>(h264.begin() + 3, h264.end())), badH264);
  EXPECT_EQ(refused(false, std::vector<uint8_t>(mpeg2.begin(), mpeg2.begin() + 40)), badMpeg2);
  EXPECT_EQ(refused(false, std::vector<uint8_t>(mpeg2.begin() + 2, mpeg2.end())), badMpeg2);
  EXPECT_EQ(refused(true, RandomBytes(300000, 7)), badH264);
  EXPECT_EQ(refused(false, RandomBytes(300000, 7)), badMpeg2);
  // Each reader refuses the other's stream.
  EXPECT_EQ(refused(true, mpeg2), badH264);
  EXPECT_EQ(refused(false, h264), badMpeg2);
}

}  // namespace
}  // namespace sonvex::videotest
