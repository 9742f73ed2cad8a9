// AC-3 and E-AC-3 header parsing, CRCs and channel layouts.
#include "ac3/ac3bitstream.h"

#include <array>

#include "framework/bitreader.h"

namespace sonvex {

namespace {

// Nominal bit rates in kbit/s, indexed by frmsizecod >> 1.
constexpr uint32_t kAc3Bitrates[] = {32,  40,  48,  56,  64,  80,  96,  112, 128, 160,
                                     192, 224, 256, 320, 384, 448, 512, 576, 640};
// fscod 0..2.
constexpr uint32_t kAc3SampleRates[] = {48000, 44100, 32000};
// E-AC-3 numblkscod 0..3: audio blocks per frame.
constexpr uint32_t kEac3Blocks[] = {1, 2, 3, 6};
// E-AC-3 fscod2 with fscod 3: the reduced rates (3 is reserved).
constexpr uint32_t kEac3ReducedRates[] = {24000, 22050, 16000};

struct TLayoutRow {
  const char* text;
  uint32_t channels;
  uint32_t mask;
};
// acmod 0..7: dual mono keeps the centre bit.
constexpr TLayoutRow kAc3Layouts[] = {
    {"1+1", 2, 0x4},   {"1", 1, 0x4},     {"2", 2, 0x3},   {"3", 3, 0x7},
    {"2/1", 3, 0x103}, {"3/1", 4, 0x107}, {"2/2", 4, 0x33}, {"5", 5, 0x37},
};

constexpr uint16_t kCrcPolynomial = 0x8005;

constexpr std::array<uint16_t, 256> MakeCrcTable() {
  std::array<uint16_t, 256> table{};
  for (uint32_t i = 0; i < 256; i++) {
    uint32_t crc = i << 8;
    for (int bit = 0; bit < 8; bit++) crc = (crc & 0x8000) ? (crc << 1) ^ kCrcPolynomial : crc << 1;
    table[i] = uint16_t(crc);
  }
  return table;
}
constexpr std::array<uint16_t, 256> kCrcTable = MakeCrcTable();

// Multiplication of polynomials over GF(2) modulo `modulus` (degree 16).
uint32_t MultiplyPolynomial(uint32_t a, uint32_t b, uint32_t modulus) {
  uint32_t c = 0;
  while (a) {
    if (a & 1) c ^= b;
    a >>= 1;
    b <<= 1;
    if (b & 0x10000) b ^= modulus;
  }
  return c;
}

uint32_t PowerPolynomial(uint32_t a, uint32_t n, uint32_t modulus) {
  uint32_t result = 1;
  while (n) {
    if (n & 1) result = MultiplyPolynomial(result, a, modulus);
    a = MultiplyPolynomial(a, a, modulus);
    n >>= 1;
  }
  return result;
}

uint16_t ByteSwap(uint16_t value) { return uint16_t(value >> 8 | value << 8); }

}  // namespace

uint16_t Ac3CrcBytes(const uint8_t* data, uint32_t size, uint16_t crc) {
  for (uint32_t i = 0; i < size; i++) crc = uint16_t(crc << 8) ^ kCrcTable[(crc >> 8) ^ data[i]];
  return crc;
}

// crc1 guards the first five eighths of the frame and sits at their start. The CRC of bytes
// 4.. end of that part, multiplied by x^-(bits covered) (0xC002 is x^-1 modulo 0x18005), is the
// value that makes the whole part, crc1 included, come out at zero.
uint16_t Ac3Crc1(const uint8_t* frame, uint32_t frameSize) {
  uint32_t words = (frameSize >> 2) + (frameSize >> 4);
  if (2 * words < 4) return 0;
  uint32_t crc = Ac3CrcBytes(frame + 4, 2 * words - 4);
  uint32_t inverse = PowerPolynomial(0xC002, 16 * words - 16, 0x18005);
  return ByteSwap(uint16_t(MultiplyPolynomial(inverse, crc, 0x18005)));
}

uint16_t Ac3Crc2(const uint8_t* frame, uint32_t frameSize) {
  uint32_t five8 = 2 * ((frameSize >> 2) + (frameSize >> 4));
  if (frameSize < five8 + 2) return 0;
  return ByteSwap(Ac3CrcBytes(frame + five8, frameSize - 2 - five8));
}

uint16_t Eac3Crc(const uint8_t* frame, uint32_t frameSize) {
  if (frameSize < 4) return 0;
  return ByteSwap(Ac3CrcBytes(frame + 2, frameSize - 4));
}

TChannelLayout Ac3ChannelLayout(uint32_t acmod, uint32_t lfe) {
  const TLayoutRow& row = kAc3Layouts[acmod & 7];
  TChannelLayout layout{row.text, row.mask, row.channels};
  if (lfe) {
    layout.channels++;
    layout.mask |= 0x8;
  }
  if (lfe || layout.text.size() == 1) layout.text += "." + std::to_string(lfe ? 1 : 0);
  return layout;
}

std::string ChannelCountText(uint32_t channels) {
  switch (channels) {
    case 1: return "1.0";
    case 2: return "2.0";
    case 6: return "5.1";
    case 7: return "6.1";
    case 8: return "7.1";
    default: return std::to_string(channels);
  }
}

std::string SampleRateText(uint32_t hertz) {
  std::string text = std::to_string(hertz / 1000);
  uint32_t hundreds = hertz / 100 % 10, tens = hertz / 10 % 10, units = hertz % 10;
  if (hundreds) {
    text += "." + std::to_string(hundreds);
    if (tens) {
      text += std::to_string(tens);
      if (units) text += std::to_string(units);
    }
  }
  return text + "khz";
}

std::string PlaytimeText(int64_t milliseconds) {
  if (milliseconds < 0) milliseconds = 0;
  int64_t seconds = (milliseconds + 500) / 1000;
  char minutes[3] = {char('0' + seconds / 60 % 60 / 10), char('0' + seconds / 60 % 10), 0};
  char secs[3] = {char('0' + seconds % 60 / 10), char('0' + seconds % 10), 0};
  return std::to_string(seconds / 3600) + ":" + minutes + ":" + secs;
}

uint32_t Ac3DialnormShift(uint16_t word) {
  uint32_t acmod = word >> 13;
  uint32_t shift = 7;
  bool centreMix = (acmod & 1) && acmod != 1;
  if (centreMix) shift -= 2;
  if (acmod >= 4) shift -= 2;
  if (acmod == 2) shift -= 2;
  return shift;
}

int ParseAc3Frame(const uint8_t* data, uint32_t size, TAc3FrameInfo& info) {
  info = TAc3FrameInfo{};
  if (size < 8 || data[0] != 0x0B || data[1] != 0x77) return kAc3NotAc3;
  BitReader header(data + 4, size - 4);
  uint32_t fscod = header.Read(2);      // fscod
  uint32_t rateIndex = header.Read(5);  // frmsizecod without its lowest bit
  uint32_t padding = header.Read(1);    // frmsizecod bit 0: the 44.1 kHz extra word
  uint32_t bsid = header.Read(5);       // bsid
  if (bsid == 9 || bsid == 10 || bsid > 16) return kAc3NotAc3;
  if (bsid > 10) return kAc3OtherKind;
  if (rateIndex >= std::size(kAc3Bitrates) || fscod == 3) return kAc3NotAc3;
  info.bitrate = kAc3Bitrates[rateIndex] * 1000;
  info.sampleRate = kAc3SampleRates[fscod];
  uint32_t frameSize = uint32_t(uint64_t(info.bitrate) * 192 / info.sampleRate);
  if (info.sampleRate == 44100) frameSize = (frameSize & ~1u) + (padding ? 2 : 0);
  info.frameSize = frameSize;
  if (size < frameSize) return kAc3ShortOrCrc;
  if (Ac3Crc1(data, frameSize) != Le16(data + 2) ||
      Ac3Crc2(data, frameSize) != Le16(data + frameSize - 2))
    return kAc3ShortOrCrc;
  header.Skip(3);                            // bsmod
  uint32_t acmod = header.Read(3);           // acmod
  if ((acmod & 1) && acmod != 1) header.Skip(2);  // cmixlev
  if (acmod & 4) header.Skip(2);             // surmixlev
  if (acmod == 2) header.Skip(2);            // dsurmod
  info.lfe = header.Read(1);                 // lfeon
  info.dialnorm = int32_t(header.Read(5));   // dialnorm
  if (header.Failed()) return kAc3ShortOrCrc;
  TChannelLayout layout = Ac3ChannelLayout(acmod, info.lfe);
  info.channelText = layout.text;
  info.channelMask = layout.mask;
  info.channels = layout.channels;
  return kAc3Good;
}

int ParseEac3Frame(const uint8_t* data, uint32_t size, TAc3FrameInfo& info) {
  info = TAc3FrameInfo{};
  if (size < 8) return kAc3ShortOrCrc;
  if (data[0] != 0x0B || data[1] != 0x77) return kAc3NotAc3;
  BitReader header(data + 2, size - 2);
  uint32_t streamType = header.Read(2);   // strmtyp
  uint32_t substreamId = header.Read(3);  // substreamid
  uint32_t frameWords = header.Read(11);  // frmsiz: words - 1
  uint32_t fscod = header.Read(2);        // fscod
  uint32_t fscod2 = header.Read(2);       // numblkscod, or fscod2 when fscod is 3
  uint32_t acmod = header.Read(3);        // acmod
  uint32_t lfe = header.Read(1);          // lfeon
  uint32_t bsid = header.Read(5);         // bsid
  uint32_t dialnorm = header.Read(5);     // dialnorm
  if (bsid == 9 || bsid == 10 || bsid > 16) return kAc3NotAc3;
  if (bsid < 9) return kAc3OtherKind;
  info.frameSize = (frameWords + 1) * 2;
  if (size < info.frameSize) return kAc3ShortOrCrc;
  if (fscod == 3 && fscod2 == 3) return kAc3BadHeader;
  if (Eac3Crc(data, info.frameSize) != Le16(data + info.frameSize - 2)) return kAc3BadHeader;
  info.streamType = streamType;
  info.substreamId = substreamId;
  if (streamType == 0 && substreamId == 0) {
    uint32_t blocks = kEac3Blocks[fscod2];
    if (fscod == 3) {
      blocks = 6;
      info.sampleRate = kEac3ReducedRates[fscod2];
    } else {
      info.sampleRate = kAc3SampleRates[fscod];
    }
    info.bitrate = uint32_t(uint64_t(750 / blocks) * (info.frameSize * 8) / 4);
    info.lfe = lfe;
    TChannelLayout layout = Ac3ChannelLayout(acmod, lfe);
    info.channelText = layout.text;
    info.channelMask = layout.mask;
    info.channels = layout.channels;
    info.dialnorm = int32_t(dialnorm);
    return kAc3Good;
  }
  info.channels = 0;
  if (streamType == 1 && substreamId == 0) {
    uint32_t compre = header.Read(1);        // compre
    if (compre) header.Skip(8);              // compr
    uint32_t chanmape = header.Read(1);      // chanmape
    uint32_t chanmap = header.Read(16);      // chanmap, first bit = left
    // Bit 6 from the top of chanmap: the rear surround pair (Lrs/Rrs).
    if (!header.Failed() && chanmape && (chanmap & (1u << 9))) info.channels = 2;
  }
  return kAc3Good;
}

bool IsEac3DependentHeader(const uint8_t* data, uint32_t size) {
  if (size < 6 || data[0] != 0x0B || data[1] != 0x77) return false;
  uint32_t bsid = data[5] >> 3;
  return bsid > 10 && bsid <= 16 && (data[2] >> 6) == 1 && ((data[2] >> 3) & 7) == 0;
}

uint32_t Ac3FamilyFrameSize(const uint8_t* data, uint32_t size) {
  if (size < 6 || data[0] != 0x0B || data[1] != 0x77) return 0;
  uint32_t bsid = data[5] >> 3;
  if (bsid > 10 && bsid <= 16) return ((data[2] & 7u) * 256 + data[3] + 1) * 2;
  if (bsid > 8) return 0;
  uint32_t fscod = data[4] >> 6, rateIndex = (data[4] >> 1) & 31;
  if (fscod == 3 || rateIndex >= std::size(kAc3Bitrates)) return 0;
  uint32_t frameSize = kAc3Bitrates[rateIndex] * 192000 / kAc3SampleRates[fscod];
  if (fscod == 1) frameSize = (frameSize & ~1u) + ((data[4] & 1) ? 2 : 0);
  return frameSize;
}

int ParseEac3Unit(const uint8_t* data, uint32_t size, uint32_t expectedSize, TEac3UnitInfo& info) {
  info = TEac3UnitInfo{};
  bool independentSeen = false;
  uint32_t independentSize = 0;
  uint32_t at = 0;
  auto complete = [&] {
    info.bitrate = uint32_t(uint64_t(info.unitSize) * info.bitrate / independentSize);
    return kAc3Good;
  };
  for (;;) {
    TAc3FrameInfo frame;
    int result = ParseEac3Frame(data + at, size - at, frame);
    if (result == kAc3OtherKind) {
      // A plain AC-3 frame: the start of the next unit of a stream whose units open with one,
      // or the core at the head of the first unit.
      if (independentSeen) {
        if (info.ac3Core) return complete();
        return result;
      }
      result = ParseAc3Frame(data + at, size - at, frame);
      if (result == kAc3Good) info.ac3Core = true;
      // A whole core whose CRCs fail is damage, not a want of data.
      if (result == kAc3ShortOrCrc && frame.frameSize <= size - at) return result;
    }
    if (result == kAc3ShortOrCrc) break;
    if (result != kAc3Good) return result;
    // Behind an AC-3 core only the next AC-3 frame opens a new unit; the E-AC-3 frames between
    // (dependent ones, or an independent one that carries Atmos) belong to this unit.
    bool opensUnit = frame.streamType == 0 && frame.substreamId == 0 &&
                     !(info.ac3Core && independentSeen);
    if (opensUnit) {
      if (independentSeen) return complete();
      independentSeen = true;
      independentSize = frame.frameSize;
      uint32_t skip = info.skipBytes;
      bool core = info.ac3Core;
      static_cast<TAc3FrameInfo&>(info) = frame;
      info.skipBytes = skip;
      info.ac3Core = core;
      info.coreSize = frame.frameSize;
      info.unitSize = 0;
    }
    if (independentSeen)
      info.unitSize += frame.frameSize;
    else
      info.skipBytes += frame.frameSize;
    if (independentSeen && frame.streamType == 1 && frame.substreamId == 0 &&
        frame.channels == 2) {
      info.channels += 2;
      info.channelMask |= 0x600;
      info.channelText = info.channelText == "5.1" ? "7.1" : info.channelText + "+2.0";
    }
    at += frame.frameSize;
  }
  if (independentSeen) {
    uint32_t left = size - at;
    const uint8_t* next = data + at;
    bool nextUnit = info.ac3Core
                        ? left >= 6 && next[0] == 0x0B && next[1] == 0x77 && (next[5] >> 3) <= 8
                        : left >= 3 && next[0] == 0x0B && next[1] == 0x77 && (next[2] >> 3) == 0;
    if (nextUnit || (left == 0 && info.unitSize == expectedSize)) return complete();
  }
  return kAc3NeedMore;
}

}  // namespace sonvex
