// TrueHD and MLP access unit helpers: major sync, check word, header parity, AC-3 probe.
#include "thd/thdbitstream.h"

#include "ac3/ac3bitstream.h"
#include "framework/bitreader.h"

namespace sonvex {

namespace {

// Sample rate by the 4-bit rate code of the major sync.
constexpr uint32_t kThdSampleRates[16] = {48000, 96000, 192000, 0, 0, 0, 0, 0,
                                          44100, 88200, 176400, 0, 0, 0, 0, 0};

// TrueHD 8-channel presentation assignment: what each bit adds, as main and LFE channels.
struct TAssignBit {
  uint8_t main;
  uint8_t lfe;
};
constexpr TAssignBit kThdAssignBits[13] = {
    {2, 0},  // 0: L, R
    {1, 0},  // 1: C
    {0, 1},  // 2: LFE
    {2, 0},  // 3: Ls, Rs
    {2, 0},  // 4: Lvh, Rvh
    {2, 0},  // 5: Lc, Rc
    {2, 0},  // 6: Lrs, Rrs
    {1, 0},  // 7: Cs
    {1, 0},  // 8: Ts
    {2, 0},  // 9: Lsd, Rsd
    {2, 0},  // 10: Lw, Rw
    {1, 0},  // 11: Cvh
    {0, 1},  // 12: LFE2
};

// MLP channel assignment (byte 11 & 31).
struct TMlpLayout {
  const char* text;
  uint32_t channels;
  uint32_t mask;
};
constexpr TMlpLayout kMlpLayouts[21] = {
    {"1.0", 1, 0x4},
    {"2.0", 2, 0x3},
    {"2/1", 3, 0x103},
    {"2/2", 4, 0x33},
    {"2.1", 3, 0xB},
    {"2/1.1", 4, 0x10B},
    {"2/2.1", 5, 0x3B},
    {"3.0", 3, 0x7},
    {"3/1", 4, 0x107},
    {"5.0", 5, 0x37},
    {"3.1", 4, 0xF},
    {"3/1.1", 5, 0x10F},
    {"5.1", 6, 0x3F},
    {"3/1", 4, 0x107},
    {"3/2", 5, 0x37},
    {"3.1", 4, 0xF},
    {"3/1.1", 5, 0x10F},
    {"5.1", 6, 0x3F},
    {"4.1 wrong order", 5, 0x3B},
    {"5.0 wrong order", 5, 0x37},
    {"5.1 wrong order", 6, 0x3F},
};

// x^16 + x^5 + x^3 + x^2 + 1 without its top term.
constexpr uint32_t kMajorSyncPoly = 0x002D;

}  // namespace

// Long division of the range by the generator, 32 bits at a time: the register holds the running
// remainder, each word is shifted in behind it, and the generator is subtracted wherever a bit
// leaves the top. The remainder is taken without appending 16 zero bits. A range whose length
// isn't a multiple of 4 ends with a 16-bit step.
uint16_t MajorSyncCrc(const uint8_t* data, uint32_t first, uint32_t end) {
  uint32_t remainder = 0;
  auto shiftIn = [&remainder](uint32_t word, int bits) {
    for (int i = bits - 1; i >= 0; i--) {
      remainder = (remainder << 1) | ((word >> i) & 1);
      if (remainder & 0x10000) remainder ^= 0x10000 | kMajorSyncPoly;
    }
  };
  uint32_t at = first;
  for (; at + 4 <= end; at += 4) shiftIn(Be32(data + at), 32);
  for (; at + 2 <= end; at += 2) shiftIn(Be16(data + at), 16);
  if (at < end) shiftIn(data[at], 8);
  return uint16_t(remainder);
}

uint32_t MajorSyncEnd(const uint8_t* data) {
  if (Be32(data + 4) != kThdMajorSync || !(data[29] & 1)) return 32;
  return 4 + 28 + 2 + 2 * (data[30] >> 4);
}

int ParseMajorSync(const uint8_t* data, uint32_t size, TMajorSync& out) {
  out = TMajorSync{};
  if (size < 32) return 1;
  BitReader reader(data, 32);
  reader.Skip(4);                       // check_nibble
  out.unitSize = reader.Read(12) * 2;   // access_unit_length, in 16-bit words
  reader.Skip(16);                      // input_timing
  uint32_t sync = reader.Read(32);      // format_sync
  if (sync != kThdMajorSync && sync != kMlpMajorSync) return 1;
  uint32_t end = MajorSyncEnd(data);
  bool crcGood = end <= size && MajorSyncCrc(data, 4, end - 2) == Be16(data + end - 2);
  out.substreams = data[20] >> 4;

  if (sync == kThdMajorSync) {
    uint32_t rateCode = data[8] >> 4;
    out.sampleRate = kThdSampleRates[rateCode];
    if (!crcGood || out.sampleRate == 0) return 3;
    out.samplesPerUnit = 40u << (rateCode & 7);
    uint32_t assign = uint32_t(data[10] & 31) * 256 + data[11];
    uint32_t main = 0, lfe = 0;
    for (uint32_t bit = 0; bit < 13; bit++) {
      if (!(assign >> bit & 1)) continue;
      main += kThdAssignBits[bit].main;
      lfe += kThdAssignBits[bit].lfe;
    }
    out.channelText = std::to_string(main) + "." + std::to_string(lfe);
    out.channels = main + lfe;
    out.dialnorm = int32_t((data[25] & 7) * 4 + (data[26] >> 6));
    return out.unitSize < 32 ? 2 : 0;
  }

  out.isMlp = true;
  uint32_t rateCode = data[9] >> 4;
  out.sampleRate = kThdSampleRates[rateCode];
  if (!crcGood || out.sampleRate == 0) return 2;
  out.bits = ((data[8] & 0xF0) >> 2) + 16;
  out.samplesPerUnit = 40u << (rateCode & 7);
  uint32_t index = data[11] & 31;
  if (index < std::size(kMlpLayouts)) {
    out.channelText = kMlpLayouts[index].text;
    out.channels = kMlpLayouts[index].channels;
    out.channelMask = kMlpLayouts[index].mask;
  }
  return out.unitSize < 32 ? 2 : 0;
}

// XOR over the 4-byte unit header and one directory entry per substream: two bytes, and two more
// when the entry's first byte has bit 7 set (an extra word). The two nibbles of the result must
// XOR to 0xF.
bool CheckUnitParity(const uint8_t* unit, uint32_t size, uint32_t substreams) {
  if (size < 2) return false;
  uint32_t unitSize = ThdUnitSize(unit);
  if (unitSize < 4) return false;
  uint32_t limit = unitSize < size ? unitSize : size;
  uint8_t parity = 0;
  uint32_t i = 0;
  for (uint32_t round = 0; round <= substreams; round++) {
    if (i + 2 > limit) return false;
    bool extra = round == 0 || (unit[i] & 0x80);
    parity ^= unit[i] ^ unit[i + 1];
    i += 2;
    if (extra) {
      if (i + 2 > limit) return false;
      parity ^= unit[i] ^ unit[i + 1];
      i += 2;
    }
  }
  return ((parity >> 4) ^ (parity & 0xF)) == 0xF;
}

bool ProbeAc3Frame(const uint8_t* data, uint32_t size, uint32_t& frameSize, uint32_t& bitrate) {
  TAc3FrameInfo info;
  if (ParseAc3Frame(data, size, info) != 0) return false;
  frameSize = info.frameSize;
  bitrate = info.bitrate;
  return true;
}

}  // namespace sonvex
