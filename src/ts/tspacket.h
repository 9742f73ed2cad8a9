// Transport stream helpers shared by the parser and the demuxer: the packet size test, the PMT
// descriptors that refine a stream type, and the classification of stream types into video and
// audio with the tag of the reader that understands them.
#pragma once

#include <cstdint>
#include <string>

namespace sonvex {

constexpr uint8_t kTsSync = 0x47;
constexpr uint32_t kTsPidCount = 8192;
constexpr uint32_t kTsSectionSize = 1024;

// Outcome of the packet size test on the data buffered so far.
enum class TsProbe { Wait, Ts, M2ts, Invalid };

// Looks for the sync byte at `probeCount` packets of 188 bytes (TS) and of 192 bytes with a 4 byte
// prefix (M2TS). When both fit, `probeCount` doubles and the test waits for more data; the stream
// must begin on a packet.
TsProbe ProbeTsPacketSize(const uint8_t* data, uint32_t fill, uint32_t& probeCount);

// Applies one descriptor of a PMT stream entry to the stream type: registrations ("DTS1".."DTS3",
// "AC-3", "VC-1", "BSSD") and the DVB/ATSC audio descriptors of private streams (type 6).
// `reg` receives the registration; `text`, when not nil, gets the listing text appended.
uint8_t ApplyTsDescriptor(uint8_t type, uint8_t tag, const uint8_t* body, uint32_t length,
                          std::string& reg, std::string* text);

// Whether a descriptor loop holds the registration "HDMV". Blu-ray authoring tools also put it on
// each stream; some muxers put it only on the program, where it stands for all its streams.
bool HasHdmvRegistration(const uint8_t* descriptors, uint32_t length);

enum class TsClass { None, Video, Audio, Subtitle };

struct TsStreamClass {
  TsClass kind = TsClass::None;
  const char* tag = "";   // reader tag; empty for audio that no reader takes (AAC)
  const char* text = "";  // listing text
};

// Video: types 1, 2, 0x1B, 0x24, 0xEA, and 0x80 without the "HDMV" registration. Audio: 3, 4,
// 0x0F, 0x11, 0x80..0x87, 0xA1, 0xA2. Subtitles: 0x90 (PGS, "pgs") and 0x92 (text, "textst"). `aacMpeg2IsAudio` is false in the demuxer, which leaves 0x0F alone.
// A private stream (type 6) with no descriptor at all is audio whose kind its payload tells
// (tag "?"), as other muxers write DTS and AC-3 without registration.
TsStreamClass ClassifyTsStream(uint8_t type, const std::string& reg, bool aacMpeg2IsAudio,
                               bool noDescriptors = false);

// The reader tag for the payload of a private stream's PES packet (from its start code on):
// "dts" for a DTS core or DTS-HD substream sync, "ac3" for an (E-)AC-3 sync; empty otherwise.
std::string TsPayloadTag(const uint8_t* pes, uint32_t size);

// Facts of a PMT stream entry's descriptors beside the type: the ISO 639 language (descriptor
// 0x0A) and whether a Dolby Vision descriptor (0xB0) says the stream carries no base layer,
// which makes it the enhancement layer of a dual-layer title.
struct TsEntryFacts {
  std::string language;
  bool dolbyVisionDescriptor = false;
  bool dolbyVisionEnhancement = false;
  // A second HEVC stream is the enhancement layer by its descriptor, or without one by its PID.
  bool EnhancementLayer(uint8_t type, uint32_t pid) const;
};
void ReadTsEntryFacts(uint8_t tag, const uint8_t* body, uint32_t length, TsEntryFacts& facts);

// Blu-ray puts the Dolby Vision enhancement layer of a dual-layer title on this PID.
constexpr uint32_t kDolbyVisionElPid = 0x1015;

// The first PTS of a PES packet that starts in `payload` (the packet's payload from its start
// code on), as the full 33-bit value; -1 if the header holds none or is cut off.
int64_t PesHeaderPts(const uint8_t* payload, uint32_t size);

// "$" and two upper-case hexadecimal digits.
std::string HexByteText(uint8_t value);

}  // namespace sonvex
