// Field-coded MPEG-2 end to end: two field pictures make one frame, and the frame count sonvex
// reports is ffprobe's. The stream is made from an intra-only ffmpeg encode of half-height
// frames: each frame picture becomes a field picture (picture_structure 1 and 2 in turn), the
// sequence gets twice the height and half the rate, and the headers between the two fields of a
// frame go.
#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "support/e2e.h"

namespace sonvex::test {
namespace {

std::string FieldCoded(const std::string& frames) {
  std::vector<size_t> starts;
  for (size_t at = frames.find(std::string("\0\0\1", 3)); at != std::string::npos;
       at = frames.find(std::string("\0\0\1", 3), at + 3))
    starts.push_back(at);
  std::string out;
  int picture = 0;  // the number of the picture the next headers belong to
  for (size_t i = 0; i < starts.size(); i++) {
    size_t end = i + 1 < starts.size() ? starts[i + 1] : frames.size();
    std::string unit = frames.substr(starts[i], end - starts[i]);
    if (unit.size() < 5) {
      out += unit;
      continue;
    }
    unit.resize(std::max<size_t>(unit.size(), 9));  // room for the fields below; only short
                                                    // units (a GOP header) grow, and they go
    uint8_t code = uint8_t(unit[3]), extension = uint8_t(unit[4]) >> 4;
    auto byte = [&](size_t at) -> uint8_t& { return reinterpret_cast<uint8_t&>(unit[at]); };
    bool header = code == 0xB3 || code == 0xB8 || (code == 0xB5 && (extension == 1 || extension == 2));
    if (header && picture % 2 == 1) continue;  // nothing stands between two fields
    if (code == 0xB3) {
      byte(5) = uint8_t((byte(5) & 0xF0) | (576 >> 8));  // vertical_size 576
      byte(6) = uint8_t(576 & 0xFF);
      byte(7) = uint8_t((byte(7) & 0xF0) | 3);  // 25 frames a second
    } else if (code == 0xB5 && extension == 1) {
      byte(5) &= uint8_t(~0x08);  // progressive_sequence 0
    } else if (code == 0x00) {
      int reference = picture / 2;  // both fields of a frame share the temporal reference
      byte(4) = uint8_t(reference >> 2);
      byte(5) = uint8_t(((reference & 3) << 6) | (byte(5) & 0x3F));
      picture++;
    } else if (code == 0xB5 && extension == 8) {
      byte(6) = uint8_t((byte(6) & 0xFC) | (picture % 2 == 1 ? 1 : 2));  // top, then bottom field
      byte(7) &= uint8_t(~0xC3);  // top_field_first, frame_pred_frame_dct, rff, chroma_420_type
      byte(8) &= uint8_t(~0x80);  // progressive_frame
    }
    out += unit.substr(0, end - starts[i]);
  }
  return out;
}

TEST(Mpeg2Fields, AFieldPairCountsAsOneFrame) {
  SKIP_WITHOUT_TOOL("ffmpeg");
  SKIP_WITHOUT_TOOL("ffprobe");
  TempDir dir;
  RunShell("ffmpeg -v error -f lavfi -i testsrc=size=720x288:rate=50 -frames:v 40 -c:v mpeg2video "
           "-g 1 -bf 0 -q:v 4 -f mpeg2video half.m2v",
           dir.path());
  std::string frames = ReadFile(dir.path() / "half.m2v");
  ASSERT_FALSE(frames.empty());
  { std::ofstream(dir / "fields.m2v", std::ios::binary) << FieldCoded(frames); }
  RunResult probe = RunShell("ffprobe -v error -count_frames -select_streams v:0 -show_entries "
                             "stream=nb_read_frames -of csv=p=0 fields.m2v",
                             dir.path());
  ASSERT_EQ(probe.out.substr(0, probe.out.find(',')), "20") << probe.out << probe.err;
  RunResult run = RunSonvex({"fields.m2v", "out.m2v"}, dir.path());
  ASSERT_EQ(run.exitCode, 0) << run.out;
  EXPECT_TRUE(run.HasLine("Video track 1 contains 20 frames.")) << run.out;
}

}  // namespace
}  // namespace sonvex::test
