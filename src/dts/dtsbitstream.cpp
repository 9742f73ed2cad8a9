// DTS core header and DTS-HD extension substream parsing.
#include "dts/dtsbitstream.h"

#include <algorithm>
#include <cstdio>
#include <cstring>

#include "framework/bitreader.h"
#include "framework/console.h"
#include "framework/details.h"

namespace sonvex {

namespace {

// Core channel arrangement (AMODE), in code order.
struct TDtsArrangement {
  const char* text;
  uint32_t channels;
  uint32_t mask;
};
constexpr TDtsArrangement kArrangements[16] = {
    {"1", 1, 0x4},     {"1+1", 2, 0x4},   {"2", 2, 0x3},     {"2-2", 2, 0x3},
    {"2t", 2, 0x3},    {"3", 3, 0x7},     {"2/1", 3, 0x103}, {"3/1", 4, 0x107},
    {"2/2", 4, 0x33},  {"5", 5, 0x37},    {"4/2", 6, 0xF3},  {"3/3", 6, 0x837},
    {"4/2", 6, 0xF3},  {"5/2", 7, 0xFF},  {"4/4", 8, 0x6F3}, {"5/3", 8, 0xF7},
};

// Core sample rate (SFREQ) by code; 0 marks the invalid codes.
constexpr uint32_t kCoreRates[16] = {0,     8000,  16000, 32000, 0,     0,     11025, 22050,
                                     44100, 0,     0,     12000, 24000, 48000, 0,     0};

// Core bit rate (RATE) by code 0 to 28; code 29 is "open", 30 and 31 give 0.
constexpr uint32_t kCoreBitrates[29] = {
    32000,   56000,   64000,   96000,   112000,  128000,  192000,  224000,
    256000,  320000,  384000,  448000,  512000,  576000,  640000,  768000,
    960000,  1024000, 1152000, 1280000, 1344000, 1408000, 1411200, 1472000,
    1536000, 1920000, 2048000, 3072000, 3840000};

// Maximum sample rate of an asset by its four-bit code.
constexpr uint32_t kAssetRates[16] = {8000,   16000,  32000, 64000, 128000, 22050,
                                      44100,  88200,  176400, 352800, 12000, 24000,
                                      48000,  96000,  192000, 384000};

// Reference clocks of the substream header by code; code 3 is out of range.
constexpr uint32_t kRefClocks[3] = {32000, 44100, 48000};

// Asset types by the four bytes that start the asset's data.
struct TAssetType {
  uint8_t bytes[4];
  const char* name;
};
constexpr TAssetType kAssetTypes[7] = {
    {{0x41, 0xA2, 0x95, 0x47}, "XLL"},       {{0x65, 0x5E, 0x31, 0x5E}, "XBR"},
    {{0x02, 0xB0, 0x92, 0x61}, "$02B09261"}, {{0x5A, 0x5A, 0x5A, 0x5A}, "XCh"},
    {{0x47, 0x00, 0x4A, 0x03}, "XXCh"},      {{0x1D, 0x95, 0xF2, 0x62}, "X96k"},
    {{0x0A, 0x80, 0x19, 0x21}, "XSA"},
};

constexpr uint32_t TypeWord(const uint8_t (&b)[4]) {
  return uint32_t(b[0]) | uint32_t(b[1]) << 8 | uint32_t(b[2]) << 16 | uint32_t(b[3]) << 24;
}
constexpr uint32_t kTypeXll = TypeWord(kAssetTypes[0].bytes);
constexpr uint32_t kTypeXsa = TypeWord(kAssetTypes[6].bytes);

std::string AssetTypeName(uint32_t type) {
  for (const auto& known : kAssetTypes)
    if (TypeWord(known.bytes) == type) return known.name;
  char text[32];
  std::snprintf(text, sizeof text, "$%08X (unknown)", type);
  return text;
}

std::string Hex(uint64_t value) {
  char text[32];
  std::snprintf(text, sizeof text, "$%llX", (unsigned long long)value);
  return text;
}

void Dump(bool dump, const std::string& label, const std::string& value) {
  if (dump) WriteLine(0, label + value);
}

}  // namespace

bool DtsSyncAt(const uint8_t* data, uint64_t size, uint64_t at, const uint8_t (&sync)[4]) {
  return at + 4 <= size && std::memcmp(data + at, sync, 4) == 0;
}

uint32_t DtsCoreSize(const uint8_t* frame) {
  return (frame[5] & 3u) * 0x1000 + frame[6] * 16u + (frame[7] >> 4) + 1;
}

uint32_t DtsSamplesPerFrame(const uint8_t* frame) {
  return ((frame[4] & 1u) * 64 + (frame[5] >> 2) + 1) * 32;
}

TDtsSubstreamInfo ParseExtensionSubstream(const uint8_t* data, uint32_t size, bool dump) {
  TDtsSubstreamInfo info;
  BitReader bits(data, size);
  if (bits.Read(32) != 0x64582025 || bits.Failed()) {
    info.result = 1;
    return info;
  }
  bits.Read(8);                                  // user defined bits
  uint32_t ssIndex = bits.Read(2);               // substream index
  bool blownUpHeader = bits.ReadFlag();          // wide size fields
  uint32_t headerSize = bits.Read(blownUpHeader ? 12 : 8) + 1;
  info.fullSize = bits.Read(blownUpHeader ? 20 : 16) + 1;
  if (bits.Failed() || info.fullSize > size) {
    info.result = 2;
    return info;
  }
  int result = headerSize > info.fullSize ? 3 : 0;

  bool staticFields = bits.ReadFlag();
  uint32_t refClockCode = 3, frameDurationCode = 0, presentations = 1, assetCount = 1;
  bool timestampPresent = false, mixMetadata = false;
  uint64_t timestamp = 0;
  uint32_t mixMetadataAdjLevel = 0;
  std::vector<uint32_t> activeMasks, mixOutChMasks;
  if (staticFields) {
    refClockCode = bits.Read(2);
    frameDurationCode = bits.Read(3) + 1;
    timestampPresent = bits.ReadFlag();
    if (timestampPresent) timestamp = bits.Read64(36);  // 4 bits on top of 32
    presentations = bits.Read(3) + 1;
    assetCount = bits.Read(3) + 1;
    std::vector<uint32_t> substreamMasks(presentations);
    for (auto& mask : substreamMasks) mask = bits.Read(int(ssIndex) + 1);
    for (uint32_t p = 0; p < presentations; p++)
      for (uint32_t s = 0; s <= ssIndex; s++)
        activeMasks.push_back(substreamMasks[p] >> s & 1 ? bits.Read(8) : 0);
    mixMetadata = bits.ReadFlag();
    if (mixMetadata) {
      mixMetadataAdjLevel = bits.Read(2);
      int maskWidth = int(bits.Read(2)) * 4 + 4;
      uint32_t configs = bits.Read(2) + 1;
      for (uint32_t c = 0; c < configs; c++) mixOutChMasks.push_back(bits.Read(maskWidth));
    }
  }
  info.assets.resize(assetCount);
  uint64_t dataAt = headerSize, sizeSum = 0;
  for (auto& asset : info.assets) {
    asset.fullSize = int32_t(bits.Read(blownUpHeader ? 20 : 16) + 1);
    if (dataAt + 4 <= size) asset.type = Le32(data + dataAt);
    dataAt += uint32_t(asset.fullSize);
    sizeSum += uint32_t(asset.fullSize);
  }

  for (auto& asset : info.assets) {
    uint64_t descriptorStart = bits.BitPosition();
    asset.headerSize = int32_t(bits.Read(9) + 1);
    asset.index = int32_t(bits.Read(3));
    if (staticFields) {
      asset.contentTypePresent = bits.ReadFlag();
      if (asset.contentTypePresent) asset.contentType = int32_t(bits.Read(4));
      asset.languagePresent = bits.ReadFlag();
      if (asset.languagePresent) asset.language = bits.Read(24);
      asset.infoTextPresent = bits.ReadFlag();
      if (asset.infoTextPresent) {
        asset.infoTextSize = int32_t(bits.Read(10) + 1);
        for (int32_t i = 0; i < asset.infoTextSize && !bits.Failed(); i++)
          asset.infoText += char(bits.Read(8));
      }
      asset.bitResolution = int32_t(bits.Read(5) + 1);
      asset.maxSampleRate = int32_t(bits.Read(4));
      asset.totalNumChannels = int32_t(bits.Read(8) + 1);
      // contentType and maxSampleRate are four-bit fields and so always lie in 0 to 15.
      info.bits = std::max(info.bits, uint32_t(asset.bitResolution));
      info.sampleRate = std::max(info.sampleRate, kAssetRates[asset.maxSampleRate & 15]);
      info.channels = std::max(info.channels, uint32_t(asset.totalNumChannels));
    }
    if (asset.type == kTypeXsa) info.hasXsa = true;
    if (asset.type == kTypeXll) info.isMaster = true;
    // The fields not read here fill the rest of the descriptor; the next one follows it.
    uint64_t descriptorEnd = descriptorStart + uint64_t(asset.headerSize) * 8;
    if (bits.BitPosition() > descriptorEnd)
      result = 3;
    else
      bits.Skip(descriptorEnd - bits.BitPosition());
  }
  if (bits.Failed() || headerSize + sizeSum != info.fullSize || refClockCode > 3) result = 3;
  info.ssIndex = ssIndex;
  info.refClock = refClockCode < 3 ? kRefClocks[refClockCode] : 0;
  info.frameDurationCode = frameDurationCode;

  if (dump) {
    WriteLine(0, "+ DTS-HD");
    if (ssIndex) Dump(true, "  - index                ", std::to_string(ssIndex));
    if (blownUpHeader) Dump(true, "  - blownUpHeader        ", "+");
    Dump(true, "  - fullSize             ", std::to_string(info.fullSize));
    Dump(true, "  - headerSize           ", std::to_string(headerSize));
    if (refClockCode < 3)
      Dump(true, "  - refClockCode         ", "1/" + std::to_string(kRefClocks[refClockCode]));
    else
      Dump(true, "  - refClockCode         ", std::to_string(refClockCode) + " (out of range)");
    Dump(true, "  - frameDurationCode    ", std::to_string(frameDurationCode));
    if (timestampPresent) Dump(true, "  - timeStamp            ", std::to_string(timestamp));
    std::string list;
    for (size_t i = 0; i < activeMasks.size(); i++)
      list += (i ? ", " : "") + Hex(activeMasks[i]);
    Dump(true, "  - activeMasks          [", list + "]");
    if (mixMetadata) {
      Dump(true, "  - mixMetadataAdjLevel  ", std::to_string(mixMetadataAdjLevel));
      list.clear();
      for (size_t i = 0; i < mixOutChMasks.size(); i++)
        list += (i ? ", " : "") + Hex(mixOutChMasks[i]);
      Dump(true, "  - mixOutChMask         [", list + "]");
    }
    for (size_t i = 0; i < info.assets.size(); i++) {
      const TAsset& asset = info.assets[i];
      WriteLine(0, "  + Asset [" + std::to_string(i) + "]");
      if (size_t(asset.index) != i)
        Dump(true, "    - index                ", std::to_string(asset.index));
      Dump(true, "    - fullSize             ", std::to_string(asset.fullSize));
      Dump(true, "    - headerSize           ", std::to_string(asset.headerSize));
      Dump(true, "    - type                 ", AssetTypeName(asset.type));
      if (asset.contentTypePresent)
        Dump(true, "    - contentTypeDescr     ", std::to_string(asset.contentType));
      if (asset.languagePresent) {
        std::string code;
        for (int shift = 16; shift >= 0; shift -= 8) code += char(asset.language >> shift & 0xFF);
        Dump(true, "    - languageDescr        ", code);
      }
      if (asset.infoTextPresent)
        Dump(true, "    - infoText             ", "\"" + asset.infoText + "\"");
      if (staticFields) {
        Dump(true, "    - bitResolution        ", std::to_string(asset.bitResolution));
        Dump(true, "    - maxSampleRate        ",
             std::to_string(kAssetRates[asset.maxSampleRate & 15]));
        Dump(true, "    - totalNumChannels     ", std::to_string(asset.totalNumChannels));
      }
    }
  }
  info.result = result;
  return info;
}

TDtsFrameInfo ParseDtsFrame(const uint8_t* data, uint32_t size, bool dump, bool first) {
  TDtsFrameInfo info;
  if (size < kDtsMinCoreSize || !DtsSyncAt(data, size, 0, kDtsCoreSync)) return info;
  const uint32_t crcShift = (data[4] & 2) ? 2 : 0;
  const uint32_t rateCode = (data[8] >> 2) & 15;
  const uint32_t coreSize = DtsCoreSize(data);
  const uint32_t arrangement = (data[7] & 15u) * 4 + (data[8] >> 6);
  const uint32_t lfeCode = (data[10] >> 1) & 3;
  const uint32_t resolution = (data[11 + crcShift] & 1u) * 4 + (data[12 + crcShift] >> 6);
  if (kCoreRates[rateCode] == 0 || coreSize < kDtsMinCoreSize || coreSize > kDtsMaxCoreSize ||
      coreSize > size || arrangement > 15 || lfeCode == 3 || resolution == 4 || resolution == 7)
    return info;

  info.hasCrc = crcShift != 0;
  info.coreSize = coreSize;
  const TDtsArrangement& layout = kArrangements[arrangement];
  info.channelText = layout.text;
  info.channels = layout.channels;
  info.channelMask = layout.mask;
  info.lfe = lfeCode != 0 ? 1 : 0;
  if (info.lfe) info.channels++;
  if (info.lfe == 1 || info.channelText.size() == 1) {
    info.channelText += "." + std::to_string(info.lfe);
    info.channelMask |= 0x8;
  }
  info.sampleRate = kCoreRates[rateCode];
  info.samplesPerFrame = DtsSamplesPerFrame(data);
  const uint32_t bitrateCode = (data[8] & 3u) * 8 + (data[9] >> 5);
  if (bitrateCode < 29) {
    info.bitrate = kCoreBitrates[bitrateCode];
  } else if (bitrateCode == 29) {
    uint32_t milliPerFrame = info.samplesPerFrame * 1000 / info.sampleRate;
    info.bitrate = milliPerFrame ? uint32_t(uint64_t(coreSize) * 8000 / milliPerFrame) : 0;
  }
  info.bits = resolution < 2 ? 16 : resolution < 4 ? 20 : 24;
  const bool es = resolution & 1;
  info.formatName = es ? "DTS-ES" : "DTS";
  const uint32_t version = (data[11 + crcShift] >> 3) & 15;
  info.dialnorm = int32_t(data[12 + crcShift] & 15) + (version == 6 ? 16 : 0);

  const bool extAudio = data[10] & 0x10;
  const uint32_t extId = data[10] >> 5;
  std::string extText;
  if (extAudio) {
    auto toSixOne = [&info] {
      if (info.channels == 6) {
        info.channels = 7;
        info.channelText = "6.1";
      }
    };
    auto to96k = [&info] {
      info.sampleRate = 96000;
      info.formatName += "-96/24";
    };
    switch (extId) {
      case 0: toSixOne(); extText = "XCh"; break;
      case 2: to96k(); extText = "X96k"; break;
      case 3: toSixOne(); to96k(); extText = "XCh + X96k"; break;
      case 6: toSixOne(); extText = "XXCh"; break;
      default:
        info.formatName += " with unknown extension (" + std::to_string(extId) + ")";
        extText = std::to_string(extId) + " (unknown)";
    }
    // XCh data whose size field counts from the XCh sync to the frame's end stands in the
    // outdated layout; the current layout counts one byte more.
    if (first && (extId == 0 || extId == 3) && coreSize > 0xBE) {
      for (uint32_t offset = 0x60; offset < 0x60 + (coreSize - 0xBE); offset += 2) {
        if (!DtsSyncAt(data, size, offset, kDtsXchSync)) continue;
        uint32_t n = data[offset + 4] * 4u + (data[offset + 5] >> 6);
        if (n <= 0x5D) continue;
        if (coreSize - offset == n) {
          info.outdatedEs = true;
          break;
        }
        if (coreSize - offset == n + 1) break;
      }
    }
  }

  if (dump) {
    WriteLine(0, "+ DTS-Core");
    Dump(true, "  - frameSize            ", std::to_string(coreSize));
    Dump(true, "  - DTS-ES               ", es ? "+" : "-");
    Dump(true, "  - channelNo            ", std::to_string(info.channels));
    Dump(true, "  - lfe                  ", std::to_string(info.lfe));
    Dump(true, "  - channelDescr         ", info.channelText);
    Dump(true, "  - samplingRate         ", std::to_string(info.sampleRate));
    Dump(true, "  - bitDepth             ", std::to_string(info.bits));
    Dump(true, "  - bitrate              ", std::to_string(info.bitrate));
    if (info.dialnorm) Dump(true, "  - dialNorm             ", std::to_string(info.dialnorm));
    if (extAudio) Dump(true, "  - extAudio             ", extText);
    Dump(true, "  - samplesPerFrame      ", std::to_string(info.samplesPerFrame));
    if (info.hasCrc) Dump(true, "  - hasCrc               +", "");
    if (data[9] & 1) Dump(true, "  - hdcd                 +", "");
    uint32_t copyHistory = (data[11 + crcShift] >> 1) & 3;
    if (copyHistory) Dump(true, "  - copyHistory          ", std::to_string(copyHistory));
  }

  int result = 0;
  if (DtsSyncAt(data, size, coreSize, kDtsSubstreamSync)) {
    for (;;) {
      uint32_t at = coreSize + info.extensionSize;
      TDtsSubstreamInfo sub = ParseExtensionSubstream(data + at, size - at, dump);
      if (sub.result == 0) {
        info.hasExtension = true;
        info.extensionSize += sub.fullSize;
        info.sampleRate = std::max(info.sampleRate, sub.sampleRate);
        info.bits = std::max(info.bits, sub.bits);
        if (sub.channels > info.channels) {
          info.channels = sub.channels;
          info.channelText = DefaultChannelLayout(info.channels);
        }
        if (info.isMaster || sub.isMaster) info.isMaster = true;
        uint64_t next = uint64_t(coreSize) + info.extensionSize;
        if (next + 8 > size || !DtsSyncAt(data, size, next, kDtsSubstreamSync)) break;
      } else if (sub.result == 2) {
        info.extensionSize += sub.fullSize;
        result = 2;
        break;
      } else {
        // An inconsistent substream keeps its own result; anything else is no DTS-HD at all.
        result = sub.result == 3 ? 3 : 1;
        break;
      }
    }
    uint64_t end = uint64_t(coreSize) + info.extensionSize;
    if (result == 0 && (end > size || (end < size && !DtsSyncAt(data, size, end, kDtsCoreSync))))
      result = 2;
    if (result == 0) {
      if (info.isMaster) {
        info.formatName = "DTS Master Audio";
        info.bitrate = 0;
      } else {
        info.formatName = "DTS Hi-Res";
        // In 64 bits: the product passes 2^32 for High Resolution streams of 3 Mbit/s and more.
        info.bitrate += uint32_t(uint64_t(info.bitrate) * info.extensionSize / coreSize);
      }
    }
  }

  uint64_t at = uint64_t(coreSize) + info.extensionSize;
  while (at < size && data[at] == 0) {
    info.padding++;
    at++;
  }
  info.result = result;
  return info;
}

TDtsFrameInfo ParseDtsSubstreamFrame(const uint8_t* data, uint32_t size, bool dump) {
  TDtsFrameInfo info;
  uint32_t samples = 0, refClock = 0;
  int result = 0;
  for (;;) {
    uint32_t at = info.extensionSize;
    TDtsSubstreamInfo sub = ParseExtensionSubstream(data + at, size - at, dump);
    if (sub.result == 1 || (at > 0 && sub.ssIndex == 0)) break;
    if (sub.result != 0) {
      if (sub.result == 2) info.extensionSize += sub.fullSize;
      result = sub.result == 2 ? 2 : 3;
      break;
    }
    if (at == 0) {
      samples = 512 * sub.frameDurationCode;
      refClock = sub.refClock;
    }
    info.extensionSize += sub.fullSize;
    info.sampleRate = std::max(info.sampleRate, sub.sampleRate);
    info.bits = std::max(info.bits, sub.bits);
    info.channels = std::max(info.channels, sub.channels);
    info.isMaster = info.isMaster || sub.isMaster;
    if (sub.hasXsa) info.formatName = "DTS Express";
    if (info.extensionSize + 4 > size) break;
  }
  if (info.extensionSize == 0 && result == 0) return info;  // not a substream at all
  uint64_t end = info.extensionSize;
  if (result == 0 && end < size && !DtsSyncAt(data, size, end, kDtsSubstreamSync)) result = 2;
  info.hasExtension = true;
  info.samplesPerFrame = samples;
  info.clockRate = refClock;
  if (info.sampleRate == 0) info.sampleRate = refClock;
  info.channelText = DefaultChannelLayout(info.channels);
  info.channelMask = DefaultChannelMask(info.channels);
  info.lfe = info.channels == 6 || info.channels == 8;
  if (info.isMaster) {
    info.formatName = "DTS Master Audio";
  } else {
    if (info.formatName.empty()) info.formatName = "DTS Hi-Res";
    if (samples && refClock)
      info.bitrate = uint32_t(uint64_t(info.extensionSize) * 8 * refClock / samples);
  }
  uint64_t at = end;
  while (at < size && data[at] == 0) {
    info.padding++;
    at++;
  }
  info.result = result;
  return info;
}

uint32_t DtsFrameSamples(const uint8_t* frame, uint32_t size) {
  if (DtsSyncAt(frame, size, 0, kDtsCoreSync) && size >= 6) return DtsSamplesPerFrame(frame);
  TDtsSubstreamInfo sub = ParseExtensionSubstream(frame, size, false);
  return sub.result == 1 ? 0 : 512 * sub.frameDurationCode;
}

}  // namespace sonvex
