// H.264 header parsing.
#include "video/h264bitstream.h"

#include <numeric>

#include "framework/bitreader.h"

namespace sonvex {

namespace {

// Sample aspect ratios of aspect_ratio_idc 1 to 16.
constexpr uint32_t kSampleAspect[16][2] = {
    {1, 1},   {12, 11}, {10, 11}, {16, 11}, {40, 33}, {24, 11}, {20, 11}, {32, 11},
    {80, 33}, {18, 11}, {15, 11}, {64, 33}, {160, 99}, {4, 3},   {3, 2},   {2, 1},
};

void SkipScalingList(BitReader& bits, int size) {
  int last = 8, next = 8;
  for (int j = 0; j < size && !bits.Failed(); j++) {
    if (next != 0) next = (last + bits.ReadSe() + 256) % 256;
    last = next == 0 ? last : next;
  }
}

// hrd_parameters(): returns false on nonsense counts.
bool ReadHrd(BitReader& bits, TH264Sps& sps) {
  uint32_t count = bits.ReadUe();
  if (count > 31) return false;
  bits.Read(4);  // bit_rate_scale
  bits.Read(4);  // cpb_size_scale
  for (uint32_t i = 0; i <= count; i++) {
    bits.ReadUe();  // bit_rate_value_minus1
    bits.ReadUe();  // cpb_size_value_minus1
    bits.ReadBit();  // cbr_flag
  }
  bits.Read(5);                            // initial_cpb_removal_delay_length_minus1
  sps.cpbLength = bits.Read(5) + 1;        // cpb_removal_delay_length_minus1
  sps.dpbLength = bits.Read(5) + 1;        // dpb_output_delay_length_minus1
  bits.Read(5);                            // time_offset_length
  return true;
}

}  // namespace

std::string RemoveEmulationPrevention(const uint8_t* data, size_t size) {
  std::string out;
  out.reserve(size);
  int zeros = 0;
  for (size_t i = 0; i < size; i++) {
    uint8_t b = data[i];
    if (zeros >= 2 && b == 3) {
      zeros = 0;
      continue;
    }
    out.push_back(char(b));
    zeros = b == 0 ? zeros + 1 : 0;
  }
  return out;
}

TH264SpsResult ParseH264Sps(const uint8_t* rbsp, size_t size, TH264Sps& sps) {
  BitReader bits(rbsp, size);
  sps.profileIdc = bits.Read(8);  // profile_idc
  bits.Read(8);                   // constraint flags and reserved bits
  bits.Read(8);                   // level_idc
  bits.ReadUe();                  // seq_parameter_set_id
  sps.chromaFormat = 1;
  if (sps.profileIdc >= 100) {
    sps.chromaFormat = bits.ReadUe();  // chroma_format_idc
    if (sps.chromaFormat > 3) return TH264SpsResult::invalid;
    if (sps.chromaFormat == 3) bits.ReadBit();  // separate_colour_plane_flag
    bits.ReadUe();                              // bit_depth_luma_minus8
    bits.ReadUe();                              // bit_depth_chroma_minus8
    bits.ReadBit();                             // qpprime_y_zero_transform_bypass_flag
    if (bits.ReadFlag()) {                      // seq_scaling_matrix_present_flag
      int lists = sps.chromaFormat == 3 ? 12 : 8;
      for (int i = 0; i < lists; i++)
        if (bits.ReadFlag()) SkipScalingList(bits, i < 6 ? 16 : 64);
    }
  }
  uint32_t log2 = bits.ReadUe();  // log2_max_frame_num_minus4
  if (log2 > 12) return TH264SpsResult::invalid;
  sps.log2MaxFrameNum = log2 + 4;
  sps.pocType = bits.ReadUe();  // pic_order_cnt_type
  if (sps.pocType == 0) {
    uint32_t lsb = bits.ReadUe();  // log2_max_pic_order_cnt_lsb_minus4
    if (lsb > 12) return TH264SpsResult::invalid;
    sps.log2MaxPocLsb = lsb + 4;
  } else if (sps.pocType == 1) {
    bits.ReadBit();                  // delta_pic_order_always_zero_flag
    bits.ReadSe();                   // offset_for_non_ref_pic
    bits.ReadSe();                   // offset_for_top_to_bottom_field
    uint32_t cycle = bits.ReadUe();  // num_ref_frames_in_pic_order_cnt_cycle
    if (cycle > 255) return TH264SpsResult::invalid;
    for (uint32_t i = 0; i < cycle; i++) bits.ReadSe();  // offset_for_ref_frame
  } else if (sps.pocType > 2) {
    return TH264SpsResult::invalid;
  }
  bits.ReadUe();                                // max_num_ref_frames
  bits.ReadBit();                               // gaps_in_frame_num_value_allowed_flag
  uint32_t widthMbs = bits.ReadUe();            // pic_width_in_mbs_minus1
  uint32_t heightUnits = bits.ReadUe();         // pic_height_in_map_units_minus1
  if (widthMbs > 1023 || heightUnits > 1023) return TH264SpsResult::invalid;
  sps.width = (widthMbs + 1) * 16;
  sps.height = (heightUnits + 1) * 16;
  sps.frameMbsOnly = bits.ReadFlag();           // frame_mbs_only_flag
  sps.interlaced = !sps.frameMbsOnly;
  if (sps.interlaced) {
    sps.height *= 2;
    bits.ReadBit();                             // mb_adaptive_frame_field_flag
  }
  bits.ReadBit();                               // direct_8x8_inference_flag
  if (bits.ReadFlag()) {                        // frame_cropping_flag
    uint32_t left = bits.ReadUe(), right = bits.ReadUe();   // frame_crop_left/right_offset
    uint32_t top = bits.ReadUe(), bottom = bits.ReadUe();   // frame_crop_top/bottom_offset
    uint64_t cropX = uint64_t(left) + right;
    if (sps.chromaFormat == 1 || sps.chromaFormat == 2) cropX *= 2;
    uint64_t cropY = uint64_t(top) + bottom;
    if (sps.chromaFormat == 1) cropY *= 2;
    if (sps.interlaced) cropY *= 2;
    if (cropX >= sps.width || cropY >= sps.height) return TH264SpsResult::invalid;
    sps.width -= uint32_t(cropX);
    sps.height -= uint32_t(cropY);
  }
  if (sps.height == 1088) sps.height = 1080;
  sps.noTimingSei = true;
  if (bits.ReadFlag()) {                        // vui_parameters_present_flag
    if (bits.ReadFlag()) {                      // aspect_ratio_info_present_flag
      uint32_t idc = bits.Read(8);              // aspect_ratio_idc
      uint32_t sarX = 0, sarY = 0;
      if (idc >= 1 && idc <= 16) {
        sarX = kSampleAspect[idc - 1][0];
        sarY = kSampleAspect[idc - 1][1];
      } else if (idc == 255) {
        sarX = bits.Read(16);                   // sar_width
        sarY = bits.Read(16);                   // sar_height
      } else if (idc != 0) {
        return TH264SpsResult::aspectNotSupported;
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
    if (bits.ReadFlag()) bits.ReadBit();        // overscan_info_present, overscan_appropriate
    if (bits.ReadFlag()) {                      // video_signal_type_present_flag
      bits.Read(3);                             // video_format
      bits.ReadBit();                           // video_full_range_flag
      if (bits.ReadFlag()) bits.Read(24);       // colour primaries, transfer, matrix
    }
    if (bits.ReadFlag()) {                      // chroma_loc_info_present_flag
      bits.ReadUe();                            // chroma_sample_loc_type_top_field
      bits.ReadUe();                            // chroma_sample_loc_type_bottom_field
    }
    if (bits.ReadFlag()) {                      // timing_info_present_flag
      uint32_t units = bits.Read(32);           // num_units_in_tick
      uint32_t scale = bits.Read(32);           // time_scale
      bits.ReadBit();                           // fixed_frame_rate_flag
      if (units && scale) {
        sps.timing = true;
        sps.rateDen = units;
        sps.rateNum = scale;
        if (units != 1000 && units != 1001) {
          if (scale % units != 0 && uint64_t(scale) * 1001 % units == 0) {
            sps.rateNum = uint32_t(uint64_t(scale) * 1001 / units);
            sps.rateDen = 1001;
          } else {
            sps.rateNum = uint32_t(uint64_t(scale) * 1000 / units);
            sps.rateDen = 1000;
          }
        }
        if (!sps.interlaced && sps.rateNum == 60000) {
          bool nal = bits.ReadFlag();           // nal_hrd_parameters_present_flag
          if (nal && !ReadHrd(bits, sps)) return TH264SpsResult::invalid;
          bool vcl = bits.ReadFlag();           // vcl_hrd_parameters_present_flag
          if (vcl && !ReadHrd(bits, sps)) return TH264SpsResult::invalid;
          if (nal || vcl) bits.ReadBit();       // low_delay_hrd_flag
          sps.havePicStruct = bits.ReadFlag();  // pic_struct_present_flag
          sps.noTimingSei = !sps.havePicStruct;
        }
      }
    }
  }
  if (bits.Failed()) return TH264SpsResult::invalid;
  return TH264SpsResult::ok;
}

bool ParseH264PictureTiming(const uint8_t* rbsp, size_t size, const TH264Sps& sps,
                            bool& pulldown) {
  size_t at = 0;
  while (at + 2 <= size) {
    uint32_t type = 0, length = 0;
    while (at < size && rbsp[at] == 0xFF) type += rbsp[at++];  // last_payload_type_byte run
    if (at >= size) return false;
    type += rbsp[at++];
    while (at < size && rbsp[at] == 0xFF) length += rbsp[at++];  // payload size run
    if (at >= size) return false;
    length += rbsp[at++];
    if (type > 21) return false;
    if (length > size - at) return false;
    if (type == 1) {
      BitReader bits(rbsp + at, length);
      bits.Skip(sps.cpbLength);  // cpb_removal_delay
      bits.Skip(sps.dpbLength);  // dpb_output_delay
      uint32_t picStruct = sps.havePicStruct ? bits.Read(4) : 0;  // pic_struct
      pulldown = picStruct >= 1 && picStruct <= 6;
      return true;
    }
    at += length;
  }
  return false;
}

}  // namespace sonvex
