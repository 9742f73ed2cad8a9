// HEVC header parsing on synthetic headers: the SPS (size after the conformance window, bit
// depth, chroma format, sample aspect, colour description, VUI timing, field coding) and the HDR
// SEI messages, as tables of cases.
#include "video/h265bitstream.h"

#include <gtest/gtest.h>

#include "videobitwriter.h"

namespace sonvex::videotest {
namespace {

struct SpsCase {
  const char* name;
  // What the SPS says.
  uint32_t chroma, codedWidth, codedHeight;
  uint32_t cropLeft, cropRight, cropTop, cropBottom;  // conformance window, in chroma units
  uint32_t depthMinus8;
  bool vui;
  uint32_t aspectIdc, sarX, sarY;            // 0: no aspect_ratio_info
  int primaries, transfer, matrix;           // -1: no colour description
  bool fieldSeq;
  uint32_t unitsInTick, timeScale;           // 0: no VUI timing
  // What the parser makes of it.
  bool ok;
  uint32_t width, height, bits, aspectX, aspectY, rateNum, rateDen;
};

std::vector<uint8_t> BuildSps(const SpsCase& c) {
  BitWriter w;
  w.Put(4, 0);   // sps_video_parameter_set_id
  w.Put(3, 0);   // sps_max_sub_layers_minus1
  w.Put(1, 1);   // sps_temporal_id_nesting_flag
  w.Put(2, 0);   // general_profile_space
  w.Put(1, 0);   // general_tier_flag
  w.Put(5, 2);   // general_profile_idc: Main 10
  w.Put(32, 0x20000000);  // general_profile_compatibility_flags
  w.Put(48, 0);  // source flags, constraint flags
  w.Put(8, 153);  // general_level_idc: 5.1
  w.Ue(0);       // sps_seq_parameter_set_id
  w.Ue(c.chroma);
  if (c.chroma == 3) w.Put(1, 0);  // separate_colour_plane_flag
  w.Ue(c.codedWidth);
  w.Ue(c.codedHeight);
  bool window = c.cropLeft || c.cropRight || c.cropTop || c.cropBottom;
  w.Put(1, window);
  if (window) {
    w.Ue(c.cropLeft);
    w.Ue(c.cropRight);
    w.Ue(c.cropTop);
    w.Ue(c.cropBottom);
  }
  w.Ue(c.depthMinus8);  // bit_depth_luma_minus8
  w.Ue(c.depthMinus8);  // bit_depth_chroma_minus8
  w.Ue(4);              // log2_max_pic_order_cnt_lsb_minus4
  w.Put(1, 1);          // sps_sub_layer_ordering_info_present_flag
  w.Ue(4);
  w.Ue(2);
  w.Ue(0);
  for (uint32_t v : {0u, 3u, 0u, 3u, 2u, 2u}) w.Ue(v);  // block sizes and depths
  w.Put(1, 0);  // scaling_list_enabled_flag
  w.Put(1, 1);  // amp_enabled_flag
  w.Put(1, 1);  // sample_adaptive_offset_enabled_flag
  w.Put(1, 0);  // pcm_enabled_flag
  w.Ue(1);      // num_short_term_ref_pic_sets
  w.Ue(1);      // num_negative_pics
  w.Ue(0);      // num_positive_pics
  w.Ue(0);      // delta_poc_s0_minus1
  w.Put(1, 1);  // used_by_curr_pic_s0_flag
  w.Put(1, 0);  // long_term_ref_pics_present_flag
  w.Put(1, 1);  // sps_temporal_mvp_enabled_flag
  w.Put(1, 1);  // strong_intra_smoothing_enabled_flag
  w.Put(1, c.vui);
  if (c.vui) {
    w.Put(1, c.aspectIdc != 0);
    if (c.aspectIdc) {
      w.Put(8, c.aspectIdc);
      if (c.aspectIdc == 255) {
        w.Put(16, c.sarX);
        w.Put(16, c.sarY);
      }
    }
    w.Put(1, 0);  // overscan_info_present_flag
    w.Put(1, c.primaries >= 0);  // video_signal_type_present_flag
    if (c.primaries >= 0) {
      w.Put(3, 5);  // video_format
      w.Put(1, 0);  // video_full_range_flag
      w.Put(1, 1);  // colour_description_present_flag
      w.Put(8, uint32_t(c.primaries));
      w.Put(8, uint32_t(c.transfer));
      w.Put(8, uint32_t(c.matrix));
    }
    w.Put(1, 0);  // chroma_loc_info_present_flag
    w.Put(1, 0);  // neutral_chroma_indication_flag
    w.Put(1, c.fieldSeq);
    w.Put(1, 0);  // frame_field_info_present_flag
    w.Put(1, 0);  // default_display_window_flag
    w.Put(1, c.unitsInTick != 0);
    if (c.unitsInTick) {
      w.Put(32, c.unitsInTick);
      w.Put(32, c.timeScale);
      w.Put(1, 0);  // vui_poc_proportional_to_timing_flag
      w.Put(1, 0);  // vui_hrd_parameters_present_flag
    }
    w.Put(1, 0);  // bitstream_restriction_flag
  }
  w.Put(1, 0);  // sps_extension_present_flag
  w.Trailing();
  return w.bytes;
}

const SpsCase kSpsCases[] = {
    {"Hd1088CroppedTo1080", 1, 1920, 1088, 0, 0, 0, 4, 0, false, 0, 0, 0, -1, -1, -1, false, 0, 0,
     true, 1920, 1080, 8, 0, 0, 0, 0},
    {"UhdHdr10Film", 1, 3840, 2160, 0, 0, 0, 0, 2, true, 1, 0, 0, 9, 16, 9, false, 1001, 24000,
     true, 3840, 2160, 10, 16, 9, 24000, 1001},
    {"TimingNormalisedToThousand", 1, 1280, 720, 0, 0, 0, 0, 0, true, 0, 0, 0, -1, -1, -1, false, 1,
     50, true, 1280, 720, 8, 0, 0, 50000, 1000},
    {"TimingInFieldUnitsOfNtsc", 1, 1920, 1080, 0, 0, 0, 0, 0, true, 0, 0, 0, -1, -1, -1, false,
     1001, 60000, true, 1920, 1080, 8, 0, 0, 60000, 1001},
    {"FourTwoTwoCropsTwoColumnsPerUnit", 2, 1936, 1080, 2, 2, 0, 0, 2, false, 0, 0, 0, -1, -1, -1,
     false, 0, 0, true, 1928, 1080, 10, 0, 0, 0, 0},
    {"FourFourFourCropsOneSamplePerUnit", 3, 1924, 1084, 2, 2, 2, 2, 0, false, 0, 0, 0, -1, -1, -1,
     false, 0, 0, true, 1920, 1080, 8, 0, 0, 0, 0},
    {"AnamorphicSampleAspect", 1, 1440, 1080, 0, 0, 0, 0, 0, true, 255, 4, 3, -1, -1, -1, false, 0,
     0, true, 1440, 1080, 8, 16, 9, 0, 0},
    {"CropPastThePicture", 1, 64, 64, 20, 20, 0, 0, 0, false, 0, 0, 0, -1, -1, -1, false, 0, 0,
     false, 0, 0, 0, 0, 0, 0, 0},
    {"DepthBeyondSixteenBits", 1, 64, 64, 0, 0, 0, 0, 9, false, 0, 0, 0, -1, -1, -1, false, 0, 0,
     false, 0, 0, 0, 0, 0, 0, 0},
};

class H265SpsTable : public ::testing::TestWithParam<SpsCase> {};

TEST_P(H265SpsTable, ReadsWhatTheHeaderSays) {
  const SpsCase& c = GetParam();
  std::vector<uint8_t> rbsp = BuildSps(c);
  TH265Sps sps;
  ASSERT_EQ(ParseH265Sps(rbsp.data(), rbsp.size(), sps), c.ok);
  if (!c.ok) return;
  EXPECT_EQ(sps.width, c.width);
  EXPECT_EQ(sps.height, c.height);
  EXPECT_EQ(sps.bitDepth, c.bits);
  EXPECT_EQ(sps.chromaFormat, c.chroma);
  EXPECT_EQ(sps.profileIdc, 2u);
  EXPECT_EQ(sps.levelIdc, 153u);
  EXPECT_EQ(sps.aspectX, c.aspectX);
  EXPECT_EQ(sps.aspectY, c.aspectY);
  EXPECT_EQ(sps.interlaced, c.fieldSeq);
  EXPECT_EQ(sps.timing, c.unitsInTick != 0);
  EXPECT_EQ(sps.rateNum, c.rateNum);
  EXPECT_EQ(sps.rateDen, c.rateDen);
  EXPECT_EQ(sps.transfer, c.transfer < 0 ? 2u : uint32_t(c.transfer));
  EXPECT_EQ(sps.primaries, c.primaries < 0 ? 2u : uint32_t(c.primaries));
}

INSTANTIATE_TEST_SUITE_P(Hevc, H265SpsTable, ::testing::ValuesIn(kSpsCases),
                         [](const auto& info) { return std::string(info.param.name); });

// A cut SPS fails cleanly (and, under the sanitizers, reads nothing past its end): the VUI
// timing, the last field read, ends in the last byte but one.
TEST(H265Sps, TruncatedHeadersFail) {
  std::vector<uint8_t> rbsp = BuildSps(kSpsCases[1]);
  for (size_t n = 0; n + 1 < rbsp.size(); n++) {
    std::vector<uint8_t> cut(rbsp.begin(), rbsp.begin() + long(n));
    TH265Sps sps;
    EXPECT_FALSE(ParseH265Sps(cut.data(), cut.size(), sps)) << n;
  }
}

struct SeiCase {
  const char* name;
  std::vector<uint8_t> payload;
  bool mastering, light;
  uint32_t maxCll, maxFall;
};

std::vector<uint8_t> Message(uint32_t type, uint32_t length) {
  std::vector<uint8_t> m;
  for (; type >= 255; type -= 255) m.push_back(0xFF);
  m.push_back(uint8_t(type));
  for (; length >= 255; length -= 255) m.push_back(0xFF);
  m.push_back(uint8_t(length));
  return m;
}

std::vector<uint8_t> Cat(std::initializer_list<std::vector<uint8_t>> parts) {
  std::vector<uint8_t> all;
  for (const auto& p : parts) all.insert(all.end(), p.begin(), p.end());
  return all;
}

const std::vector<uint8_t> kMastering = Cat({Message(137, 24), std::vector<uint8_t>(24, 0x11)});
const std::vector<uint8_t> kLight = Cat({Message(144, 4), {0x03, 0xE8, 0x01, 0x90}});

const SeiCase kSeiCases[] = {
    {"MasteringDisplayAndLightLevel", Cat({kMastering, kLight, {0x80}}), true, true, 1000, 400},
    {"LightLevelBehindAnotherMessage", Cat({Message(5, 20), std::vector<uint8_t>(20, 0), kLight}),
     false, true, 1000, 400},
    {"TypeCodedWithFfBytes", Cat({Message(300, 2), {1, 2}, kLight}), false, true, 1000, 400},
    {"MasteringDisplayTooShort", Cat({Message(137, 10), std::vector<uint8_t>(10, 0)}), false, false,
     0, 0},
    {"MessageLongerThanThePayload", Cat({Message(144, 40), {0x03, 0xE8, 0x01, 0x90}}), false, false,
     0, 0},
};

class H265SeiTable : public ::testing::TestWithParam<SeiCase> {};

TEST_P(H265SeiTable, NotesTheHdrMessages) {
  const SeiCase& c = GetParam();
  TH265HdrSei hdr;
  ParseH265HdrSei(c.payload.data(), c.payload.size(), hdr);
  EXPECT_EQ(hdr.masteringDisplay, c.mastering);
  EXPECT_EQ(hdr.contentLight, c.light);
  EXPECT_EQ(hdr.maxCll, c.maxCll);
  EXPECT_EQ(hdr.maxFall, c.maxFall);
}

INSTANTIATE_TEST_SUITE_P(Hevc, H265SeiTable, ::testing::ValuesIn(kSeiCases),
                         [](const auto& info) { return std::string(info.param.name); });

}  // namespace
}  // namespace sonvex::videotest
