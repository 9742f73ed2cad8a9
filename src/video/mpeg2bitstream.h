// MPEG-2 video header parsing: sequence header, sequence extension, picture coding extension
// and picture header. Every function takes a whole unit beginning with its 00 00 01 xx start
// code and returns false if the unit is too short for the fields it needs.
#pragma once

#include <cstddef>
#include <cstdint>

namespace sonvex {

struct TMpeg2SequenceHeader {
  uint32_t width = 0, height = 0;
  uint32_t aspectCode = 0;     // aspect_ratio_information
  uint32_t frameRateCode = 0;  // frame_rate_code
};
bool ParseMpeg2SequenceHeader(const uint8_t* unit, size_t size, TMpeg2SequenceHeader& header);
// The byte that holds aspect_ratio_information and frame_rate_code.
constexpr size_t kMpeg2RateByte = 7;

// extension_start_code_identifier of an extension unit (0xB5), or 0 if the unit is too short.
uint32_t Mpeg2ExtensionId(const uint8_t* unit, size_t size);

// Sequence extension: progressive_sequence.
bool ParseMpeg2SequenceExtension(const uint8_t* unit, size_t size, bool& progressiveSequence);

struct TMpeg2PictureCoding {
  uint32_t pictureStructure = 0;  // 3: frame picture
  bool topFieldFirst = false;
  bool repeatFirstField = false;
  bool progressiveFrame = false;
};
bool ParseMpeg2PictureCoding(const uint8_t* unit, size_t size, TMpeg2PictureCoding& coding);
// The byte that holds top_field_first (0x80) and repeat_first_field (0x02).
constexpr size_t kMpeg2FlagsByte = 7;

struct TMpeg2Picture {
  uint32_t temporalReference = 0;
  uint32_t codingType = 0;  // 1 I, 2 P, 3 B
};
bool ParseMpeg2Picture(const uint8_t* unit, size_t size, TMpeg2Picture& picture);

}  // namespace sonvex
