// Transport stream helpers: packet size test, descriptors, stream type classification.
#include "ts/tspacket.h"

#include <cstring>

namespace sonvex {

namespace {

struct TsTypeEntry {
  uint8_t type;
  TsClass kind;
  const char* tag;
  const char* text;
};

// The stream types this program knows, in the order of the listing texts.
constexpr TsTypeEntry kTsTypes[] = {
    {0x01, TsClass::Video, "mpeg2", ", MPEG2"},
    {0x02, TsClass::Video, "mpeg2", ", MPEG2"},
    {0x1B, TsClass::Video, "h264", ", h264/AVC"},
    {0x24, TsClass::Video, "h265", ", h265/HEVC"},
    {0xEA, TsClass::Video, "vc1", ", VC-1"},
    {0x03, TsClass::Audio, "mp2", ", MP2 (MPEG-1 Audio Layer II)"},
    {0x04, TsClass::Audio, "mp2", ", MP2 (MPEG-2 Audio Layer II)"},
    {0x0F, TsClass::Audio, "", ", AAC (MPEG-2 Part 7 Audio)"},
    {0x11, TsClass::Audio, "", ", AAC (MPEG-4 Part 3 Audio)"},
    {0x80, TsClass::Audio, "m2ts/pcm", ", RAW/PCM"},
    {0x81, TsClass::Audio, "ac3", ", AC3"},
    {0x82, TsClass::Audio, "dts", ", DTS"},
    {0x83, TsClass::Audio, "thd", ", TrueHD"},
    {0x84, TsClass::Audio, "ac3", ", E-AC3"},
    {0x87, TsClass::Audio, "ac3", ", E-AC3"},
    {0x85, TsClass::Audio, "dts", ", DTS Hi-Res"},
    {0x86, TsClass::Audio, "dts", ", DTS Master Audio"},
    {0xA1, TsClass::Audio, "ac3", ", secondary E-AC3"},
    {0xA2, TsClass::Audio, "dts", ", secondary DTS"},
};

}  // namespace

TsProbe ProbeTsPacketSize(const uint8_t* data, uint32_t fill, uint32_t& probeCount) {
  if (uint64_t(fill) < uint64_t(probeCount) * 192) return TsProbe::Wait;
  bool plain = true, prefixed = true;
  for (uint32_t i = 0; i < probeCount; i++) {
    if (data[uint64_t(i) * 188] != kTsSync) plain = false;
    if (data[4 + uint64_t(i) * 192] != kTsSync) prefixed = false;
  }
  if (plain && prefixed) {
    probeCount *= 2;
    return probeCount == 0x10000 ? TsProbe::Invalid : TsProbe::Wait;
  }
  if (plain) {
    probeCount = 0;
    return TsProbe::Ts;
  }
  if (prefixed) {
    probeCount = 0;
    return TsProbe::M2ts;
  }
  return TsProbe::Invalid;
}

uint8_t ApplyTsDescriptor(uint8_t type, uint8_t tag, const uint8_t* body, uint32_t length,
                          std::string& reg, std::string* text) {
  switch (tag) {
    case 0x05: {  // registration: format_identifier
      reg.assign(reinterpret_cast<const char*>(body), length < 4 ? length : 4);
      if (reg == "DTS1" || reg == "DTS2" || reg == "DTS3")
        type = 0x82;
      else if (reg == "AC-3" && type != 0x83)
        type = 0x81;
      else if (reg == "VC-1")
        type = 0xEA;
      else if (reg == "BSSD")
        type = 0x80;
      if (text) *text += ", \"" + reg + "\"";
      break;
    }
    case 0x0A:  // ISO 639 language
      if (text) *text += ", " + std::string(reinterpret_cast<const char*>(body), length < 3 ? length : 3);
      break;
    case 0x6A:  // DVB AC-3
      if (type == 6) {
        type = 0x81;
        if (text) *text += ", DVB AC3";
      }
      break;
    case 0x73:  // DVB DTS
      if (type == 6) {
        type = 0x82;
        if (text) *text += ", DVB DTS";
      }
      break;
    case 0x81:  // ATSC AC-3
      if (type == 6) {
        type = 0x81;
        if (text) *text += ", ATSC AC3";
      }
      break;
    default:
      if (text) *text += ", descriptor " + HexByteText(tag);
      break;
  }
  return type;
}

bool HasHdmvRegistration(const uint8_t* descriptors, uint32_t length) {
  uint32_t i = 0;
  while (i + 2 <= length) {
    uint32_t size = descriptors[i + 1];
    if (i + 2 + size > length) break;
    if (descriptors[i] == 0x05 && size >= 4 && std::memcmp(descriptors + i + 2, "HDMV", 4) == 0)
      return true;
    i += 2 + size;
  }
  return false;
}

TsStreamClass ClassifyTsStream(uint8_t type, const std::string& reg, bool aacMpeg2IsAudio,
                               bool noDescriptors) {
  if (type == 6 && noDescriptors) return {TsClass::Audio, "?", ""};
  if (type == 0x80 && reg != "HDMV") return {TsClass::Video, "mpeg2", ", MPEG2"};
  if (type == 0x0F && !aacMpeg2IsAudio) return {};
  for (const TsTypeEntry& entry : kTsTypes)
    if (entry.type == type) return {entry.kind, entry.tag, entry.text};
  return {};
}

std::string HexByteText(uint8_t value) {
  static constexpr char kDigits[] = "0123456789ABCDEF";
  return std::string("$") + kDigits[value >> 4] + kDigits[value & 15];
}

std::string TsPayloadTag(const uint8_t* pes, uint32_t size) {
  // packet_start_code_prefix, stream_id, PES_packet_length, two flag bytes, header length.
  if (size < 9 || pes[0] != 0 || pes[1] != 0 || pes[2] != 1) return {};
  uint32_t at = 9u + pes[8];
  if (at + 4 > size) return {};
  const uint8_t* p = pes + at;
  if ((p[0] == 0x7F && p[1] == 0xFE && p[2] == 0x80 && p[3] == 0x01) ||
      (p[0] == 0x64 && p[1] == 0x58 && p[2] == 0x20 && p[3] == 0x25))
    return "dts";
  if (p[0] == 0x0B && p[1] == 0x77) return "ac3";
  return {};
}

}  // namespace sonvex
