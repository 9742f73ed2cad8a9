// HEVC header parsing.
#include "video/h265bitstream.h"

#include <numeric>

#include "framework/bitreader.h"

namespace sonvex {

namespace {

// Sample aspect ratios of aspect_ratio_idc 1 to 16.
constexpr uint32_t kSampleAspect[16][2] = {
    {1, 1},   {12, 11}, {10, 11}, {16, 11}, {40, 33}, {24, 11}, {20, 11}, {32, 11},
    {80, 33}, {18, 11}, {15, 11}, {64, 33}, {160, 99}, {4, 3},   {3, 2},   {2, 1},
};

// profile_tier_level(1, maxSubLayersMinus1).
void ReadProfileTierLevel(BitReader& bits, uint32_t maxSubLayersMinus1, TH265Sps* sps) {
  bits.Read(2);                    // general_profile_space
  uint32_t tier = bits.Read(1);    // general_tier_flag
  uint32_t profile = bits.Read(5);  // general_profile_idc
  bits.Read(32);                   // general_profile_compatibility_flags
  bits.Skip(48);                   // source flags and constraint bits
  uint32_t level = bits.Read(8);   // general_level_idc
  if (sps) {
    sps->tier = tier;
    sps->profileIdc = profile;
    sps->levelIdc = level;
  }
  bool profilePresent[8] = {}, levelPresent[8] = {};
  for (uint32_t i = 0; i < maxSubLayersMinus1; i++) {
    profilePresent[i] = bits.ReadFlag();
    levelPresent[i] = bits.ReadFlag();
  }
  if (maxSubLayersMinus1 > 0)
    for (uint32_t i = maxSubLayersMinus1; i < 8; i++) bits.Read(2);  // reserved_zero_2bits
  for (uint32_t i = 0; i < maxSubLayersMinus1; i++) {
    if (profilePresent[i]) bits.Skip(88);
    if (levelPresent[i]) bits.Skip(8);
  }
}

void NormaliseRate(uint32_t units, uint32_t scale, uint32_t& rateNum, uint32_t& rateDen) {
  rateDen = units;
  rateNum = scale;
  if (units != 1000 && units != 1001) {
    if (scale % units != 0 && uint64_t(scale) * 1001 % units == 0) {
      rateNum = uint32_t(uint64_t(scale) * 1001 / units);
      rateDen = 1001;
    } else {
      rateNum = uint32_t(uint64_t(scale) * 1000 / units);
      rateDen = 1000;
    }
  }
}

void SkipScalingListData(BitReader& bits) {
  for (uint32_t sizeId = 0; sizeId < 4; sizeId++)
    for (uint32_t matrixId = 0; matrixId < 6; matrixId += sizeId == 3 ? 3 : 1) {
      if (!bits.ReadFlag()) {  // scaling_list_pred_mode_flag
        bits.ReadUe();         // scaling_list_pred_matrix_id_delta
        continue;
      }
      uint32_t count = 1u << (4 + (sizeId << 1));
      if (count > 64) count = 64;
      if (sizeId > 1) bits.ReadSe();  // scaling_list_dc_coef_minus8
      for (uint32_t i = 0; i < count && !bits.Failed(); i++) bits.ReadSe();
    }
}

// st_ref_pic_set(index) of the SPS; `deltaPocs` holds NumDeltaPocs of the sets before.
bool SkipShortTermRefPicSet(BitReader& bits, uint32_t index, uint32_t* deltaPocs) {
  if (index != 0 && bits.ReadFlag()) {  // inter_ref_pic_set_prediction_flag
    bits.ReadBit();                     // delta_rps_sign
    bits.ReadUe();                      // abs_delta_rps_minus1
    uint32_t count = 0;
    for (uint32_t j = 0; j <= deltaPocs[index - 1]; j++) {
      bool used = bits.ReadFlag();      // used_by_curr_pic_flag
      bool use = used || bits.ReadFlag();  // use_delta_flag
      if (use) count++;
    }
    deltaPocs[index] = count;
    return count <= 32;
  }
  uint32_t negative = bits.ReadUe(), positive = bits.ReadUe();
  if (negative > 16 || positive > 16) return false;
  for (uint32_t i = 0; i < negative + positive; i++) {
    bits.ReadUe();   // delta_poc_minus1
    bits.ReadBit();  // used_by_curr_pic_flag
  }
  deltaPocs[index] = negative + positive;
  return true;
}

bool ReadVui(BitReader& bits, TH265Sps& sps) {
  if (bits.ReadFlag()) {              // aspect_ratio_info_present_flag
    uint32_t idc = bits.Read(8);      // aspect_ratio_idc
    uint32_t sarX = 0, sarY = 0;
    if (idc >= 1 && idc <= 16) {
      sarX = kSampleAspect[idc - 1][0];
      sarY = kSampleAspect[idc - 1][1];
    } else if (idc == 255) {
      sarX = bits.Read(16);           // sar_width
      sarY = bits.Read(16);           // sar_height
    }
    if (sarX && sarY) {
      uint64_t x = uint64_t(sarX) * sps.width, y = uint64_t(sarY) * sps.height;
      uint64_t g = std::gcd(x, y);
      if (g > 1) {
        x /= g;
        y /= g;
      }
      sps.aspectX = uint32_t(x);
      sps.aspectY = uint32_t(y);
    }
  }
  if (bits.ReadFlag()) bits.ReadBit();  // overscan_info_present, overscan_appropriate
  if (bits.ReadFlag()) {                // video_signal_type_present_flag
    bits.Read(3);                       // video_format
    bits.ReadBit();                     // video_full_range_flag
    if (bits.ReadFlag()) {              // colour_description_present_flag
      sps.primaries = bits.Read(8);
      sps.transfer = bits.Read(8);
      sps.matrix = bits.Read(8);
    }
  }
  if (bits.ReadFlag()) {                // chroma_loc_info_present_flag
    bits.ReadUe();
    bits.ReadUe();
  }
  bits.ReadBit();                       // neutral_chroma_indication_flag
  sps.interlaced = bits.ReadFlag();     // field_seq_flag
  bits.ReadBit();                       // frame_field_info_present_flag
  if (bits.ReadFlag())                  // default_display_window_flag
    for (int i = 0; i < 4; i++) bits.ReadUe();
  if (bits.ReadFlag()) {                // vui_timing_info_present_flag
    uint32_t units = bits.Read(32);     // vui_num_units_in_tick
    uint32_t scale = bits.Read(32);     // vui_time_scale
    if (units && scale && !bits.Failed()) {
      sps.timing = true;
      NormaliseRate(units, scale, sps.rateNum, sps.rateDen);
    }
  }
  return !bits.Failed();
}

}  // namespace

bool ParseH265VpsTiming(const uint8_t* rbsp, size_t size, uint32_t& rateNum, uint32_t& rateDen) {
  BitReader bits(rbsp, size);
  bits.Read(4);                            // vps_video_parameter_set_id
  bits.Read(2);                            // base layer flags
  bits.Read(6);                            // vps_max_layers_minus1
  uint32_t subLayers = bits.Read(3);       // vps_max_sub_layers_minus1
  bits.Read(1);                            // vps_temporal_id_nesting_flag
  bits.Read(16);                           // vps_reserved_0xffff_16bits
  ReadProfileTierLevel(bits, subLayers, nullptr);
  bool ordering = bits.ReadFlag();         // vps_sub_layer_ordering_info_present_flag
  for (uint32_t i = ordering ? 0 : subLayers; i <= subLayers; i++)
    for (int j = 0; j < 3; j++) bits.ReadUe();
  uint32_t maxLayerId = bits.Read(6);      // vps_max_layer_id
  uint32_t layerSets = bits.ReadUe();      // vps_num_layer_sets_minus1
  if (layerSets > 1023) return false;
  for (uint32_t i = 1; i <= layerSets && !bits.Failed(); i++) bits.Skip(maxLayerId + 1);
  if (!bits.ReadFlag()) return false;      // vps_timing_info_present_flag
  uint32_t units = bits.Read(32), scale = bits.Read(32);
  if (bits.Failed() || !units || !scale) return false;
  NormaliseRate(units, scale, rateNum, rateDen);
  return true;
}

bool ParseH265Sps(const uint8_t* rbsp, size_t size, TH265Sps& sps) {
  BitReader bits(rbsp, size);
  bits.Read(4);                            // sps_video_parameter_set_id
  uint32_t subLayers = bits.Read(3);       // sps_max_sub_layers_minus1
  if (subLayers > 6) return false;
  bits.Read(1);                            // sps_temporal_id_nesting_flag
  ReadProfileTierLevel(bits, subLayers, &sps);
  if (bits.ReadUe() > 15) return false;    // sps_seq_parameter_set_id
  sps.chromaFormat = bits.ReadUe();        // chroma_format_idc
  if (sps.chromaFormat > 3) return false;
  if (sps.chromaFormat == 3) bits.ReadBit();  // separate_colour_plane_flag
  sps.width = bits.ReadUe();               // pic_width_in_luma_samples
  sps.height = bits.ReadUe();              // pic_height_in_luma_samples
  if (sps.width == 0 || sps.height == 0 || sps.width > 16888 || sps.height > 16888) return false;
  if (bits.ReadFlag()) {                   // conformance_window_flag
    uint32_t unitX = sps.chromaFormat == 1 || sps.chromaFormat == 2 ? 2 : 1;
    uint32_t unitY = sps.chromaFormat == 1 ? 2 : 1;
    uint64_t left = bits.ReadUe(), right = bits.ReadUe(), top = bits.ReadUe(),
             bottom = bits.ReadUe();
    uint64_t cropX = (left + right) * unitX, cropY = (top + bottom) * unitY;
    if (cropX >= sps.width || cropY >= sps.height) return false;
    sps.width -= uint32_t(cropX);
    sps.height -= uint32_t(cropY);
  }
  uint32_t depth = bits.ReadUe();          // bit_depth_luma_minus8
  bits.ReadUe();                           // bit_depth_chroma_minus8
  if (depth > 8) return false;
  sps.bitDepth = depth + 8;
  uint32_t pocBits = bits.ReadUe() + 4;    // log2_max_pic_order_cnt_lsb_minus4
  if (pocBits > 16) return false;
  bool ordering = bits.ReadFlag();         // sps_sub_layer_ordering_info_present_flag
  for (uint32_t i = ordering ? 0 : subLayers; i <= subLayers; i++)
    for (int j = 0; j < 3; j++) bits.ReadUe();
  for (int i = 0; i < 6; i++) bits.ReadUe();  // coding and transform block sizes and depths
  if (bits.ReadFlag() && bits.ReadFlag())  // scaling_list_enabled, sps_scaling_list_data_present
    SkipScalingListData(bits);
  bits.ReadBit();                          // amp_enabled_flag
  bits.ReadBit();                          // sample_adaptive_offset_enabled_flag
  if (bits.ReadFlag()) {                   // pcm_enabled_flag
    bits.Read(8);                          // pcm sample bit depths
    bits.ReadUe();
    bits.ReadUe();
    bits.ReadBit();                        // pcm_loop_filter_disabled_flag
  }
  uint32_t sets = bits.ReadUe();           // num_short_term_ref_pic_sets
  if (sets > 64) return false;
  uint32_t deltaPocs[65] = {};
  for (uint32_t i = 0; i < sets && !bits.Failed(); i++)
    if (!SkipShortTermRefPicSet(bits, i, deltaPocs)) return false;
  if (bits.ReadFlag()) {                   // long_term_ref_pics_present_flag
    uint32_t count = bits.ReadUe();        // num_long_term_ref_pics_sps
    if (count > 32) return false;
    for (uint32_t i = 0; i < count; i++) bits.Skip(pocBits + 1);
  }
  bits.ReadBit();                          // sps_temporal_mvp_enabled_flag
  bits.ReadBit();                          // strong_intra_smoothing_enabled_flag
  if (bits.ReadFlag() && !ReadVui(bits, sps)) return false;  // vui_parameters_present_flag
  return !bits.Failed();
}

void ParseH265HdrSei(const uint8_t* rbsp, size_t size, TH265HdrSei& hdr) {
  size_t at = 0;
  while (at + 2 <= size) {
    uint32_t type = 0, length = 0;
    while (at < size && rbsp[at] == 0xFF) type += rbsp[at++];
    if (at >= size) return;
    type += rbsp[at++];
    while (at < size && rbsp[at] == 0xFF) length += rbsp[at++];
    if (at >= size) return;
    length += rbsp[at++];
    if (length > size - at) return;
    if (type == 137 && length >= 24) hdr.masteringDisplay = true;
    if (type == 144 && length >= 4) {
      hdr.contentLight = true;
      hdr.maxCll = uint32_t(rbsp[at]) << 8 | rbsp[at + 1];
      hdr.maxFall = uint32_t(rbsp[at + 2]) << 8 | rbsp[at + 3];
    }
    at += length;
    if (at < size && rbsp[at] == 0x80 && at + 1 == size) return;  // rbsp trailing bits
  }
}

}  // namespace sonvex
