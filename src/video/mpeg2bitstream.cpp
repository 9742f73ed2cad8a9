// MPEG-2 video header parsing.
#include "video/mpeg2bitstream.h"

#include "framework/bitreader.h"

namespace sonvex {

bool ParseMpeg2SequenceHeader(const uint8_t* unit, size_t size, TMpeg2SequenceHeader& header) {
  if (size < 12) return false;
  BitReader bits(unit + 4, size - 4);
  header.width = bits.Read(12);          // horizontal_size_value
  header.height = bits.Read(12);         // vertical_size_value
  header.aspectCode = bits.Read(4);      // aspect_ratio_information
  header.frameRateCode = bits.Read(4);   // frame_rate_code
  return !bits.Failed();
}

uint32_t Mpeg2ExtensionId(const uint8_t* unit, size_t size) {
  if (size < 5) return 0;
  BitReader bits(unit + 4, size - 4);
  return bits.Read(4);  // extension_start_code_identifier
}

bool ParseMpeg2SequenceExtension(const uint8_t* unit, size_t size, bool& progressiveSequence) {
  if (size < 6) return false;
  BitReader bits(unit + 4, size - 4);
  bits.Read(4);                             // extension_start_code_identifier
  bits.Read(8);                             // profile_and_level_indication
  progressiveSequence = bits.ReadFlag();    // progressive_sequence
  return !bits.Failed();
}

bool ParseMpeg2PictureCoding(const uint8_t* unit, size_t size, TMpeg2PictureCoding& coding) {
  if (size < 9) return false;
  BitReader bits(unit + 4, size - 4);
  bits.Read(4);                               // extension_start_code_identifier
  bits.Read(16);                              // f_code[0][0] .. f_code[1][1]
  bits.Read(2);                               // intra_dc_precision
  coding.pictureStructure = bits.Read(2);     // picture_structure
  coding.topFieldFirst = bits.ReadFlag();     // top_field_first
  bits.Read(5);  // frame_pred_frame_dct, concealment_motion_vectors, q_scale_type,
                 // intra_vlc_format, alternate_scan
  coding.repeatFirstField = bits.ReadFlag();  // repeat_first_field
  bits.ReadBit();                             // chroma_420_type
  coding.progressiveFrame = bits.ReadFlag();  // progressive_frame
  return !bits.Failed();
}

bool ParseMpeg2Picture(const uint8_t* unit, size_t size, TMpeg2Picture& picture) {
  if (size < 6) return false;
  BitReader bits(unit + 4, size - 4);
  picture.temporalReference = bits.Read(10);  // temporal_reference
  picture.codingType = bits.Read(3);          // picture_coding_type
  return !bits.Failed();
}

}  // namespace sonvex
