// AC-3 and E-AC-3 bitstream helpers (ETSI TS 102 366): frame header parsers, the CRC routines
// and the channel layout table, shared by the AC3 stages and the TrueHD family. Only the header
// fields the program needs are read.
#pragma once

#include <cstdint>
#include <string>

namespace sonvex {

// What a frame header (or an E-AC-3 access unit) says.
struct TAc3FrameInfo {
  std::string channelText;    // "2.0", "3/2.1", "5.1", "7.1", "5.1+2.0" ...
  uint32_t frameSize = 0;     // bytes
  int32_t dialnorm = 0;       // 0..31 as coded
  uint32_t sampleRate = 0;    // Hz
  uint32_t bitrate = 0;       // bits per second
  uint32_t substreamId = 0;   // E-AC-3 only
  uint32_t streamType = 0;    // E-AC-3 only: 0 independent, 1 dependent, 2 converted AC-3
  uint32_t channelMask = 0;   // WAVE speaker mask
  uint32_t channels = 0;
  uint32_t lfe = 0;
};

// An E-AC-3 access unit: the frames from one independent frame of substream 0 up to the next.
// Blu-ray's E-AC-3 7.1 opens every unit with a plain AC-3 frame (bsid up to 8), the core that
// any AC-3 decoder plays, and puts the extra channels into dependent E-AC-3 frames behind it.
struct TEac3UnitInfo : TAc3FrameInfo {
  uint32_t skipBytes = 0;  // dependent frames in front of the first independent frame
  uint32_t unitSize = 0;   // bytes of the unit, from its independent frame on
  bool ac3Core = false;    // the unit opens with an AC-3 frame
  uint32_t coreSize = 0;   // bytes of the unit's first frame
};

// Results of the parsers.
enum : int {
  kAc3NeedMore = -1,  // ParseEac3Unit: the unit may go on beyond the data
  kAc3Good = 0,
  kAc3NotAc3 = 1,
  kAc3OtherKind = 2,  // AC-3 parser on E-AC-3 data, or the reverse
  kAc3ShortOrCrc = 3,
  kAc3BadHeader = 4,  // E-AC-3: bad CRC or reserved sample rate code
};

// 0 good, 1 not AC-3, 2 E-AC-3, 3 too short or a CRC failed.
int ParseAc3Frame(const uint8_t* data, uint32_t size, TAc3FrameInfo& info);
// 0 good, 1 not (E-)AC-3, 2 plain AC-3, 3 too short, 4 bad CRC or reserved sample rate code.
int ParseEac3Frame(const uint8_t* data, uint32_t size, TAc3FrameInfo& info);
// The results of ParseEac3Frame, and -1 when more data is needed. `expectedSize` lets a unit
// that ends exactly with the data count as complete.
int ParseEac3Unit(const uint8_t* data, uint32_t size, uint32_t expectedSize, TEac3UnitInfo& info);

// Whether the header at data[0] (at least 6 bytes) is an E-AC-3 dependent frame of substream 0,
// the kind that follows the AC-3 core of a Blu-ray E-AC-3 unit.
bool IsEac3DependentHeader(const uint8_t* data, uint32_t size);
// Size of the frame at data[0] from its header alone, AC-3 or E-AC-3; 0 if it isn't one (or
// fewer than 6 bytes are given).
uint32_t Ac3FamilyFrameSize(const uint8_t* data, uint32_t size);

// The AC-3 CRC (generator 0x8005, MSB first, initial 0) over data[0..size).
uint16_t Ac3CrcBytes(const uint8_t* data, uint32_t size, uint16_t crc = 0);
// The check words as they stand in the frame, read as a little-endian word: crc1 at bytes 2-3,
// crc2 and the E-AC-3 CRC in the last two bytes. The caller guarantees `frameSize` bytes.
uint16_t Ac3Crc1(const uint8_t* frame, uint32_t frameSize);
uint16_t Ac3Crc2(const uint8_t* frame, uint32_t frameSize);
uint16_t Eac3Crc(const uint8_t* frame, uint32_t frameSize);

struct TChannelLayout {
  std::string text;
  uint32_t mask = 0;
  uint32_t channels = 0;
};
TChannelLayout Ac3ChannelLayout(uint32_t acmod, uint32_t lfe);

std::string ChannelCountText(uint32_t channels);   // 6 -> "5.1"
std::string SampleRateText(uint32_t hertz);        // 44100 -> "44.1khz"
std::string PlaytimeText(int64_t milliseconds);    // rounded to seconds, "1:02:03"

// The bit position of the five dialnorm bits in bytes 6-7 of an AC-3 frame (as a big-endian
// word), counted from bit 0; the dialnorm remover and the parser share it.
uint32_t Ac3DialnormShift(uint16_t word);

}  // namespace sonvex
