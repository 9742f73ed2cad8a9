// DTS bitstream helpers: the core frame header (ETSI TS 102 114) with its channel arrangements,
// rates and extension audio, and the DTS-HD extension substream header with its assets. Only the
// header fields that the stages of this family need are read; audio data is never decoded here.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace sonvex {

// The sync words of a core frame and of an extension substream, as they stand in the stream.
constexpr uint8_t kDtsCoreSync[4] = {0x7F, 0xFE, 0x80, 0x01};
constexpr uint8_t kDtsSubstreamSync[4] = {0x64, 0x58, 0x20, 0x25};
// The sync of XCh (6.1 discrete) data inside a core frame.
constexpr uint8_t kDtsXchSync[4] = {0x5A, 0x5A, 0x5A, 0x5A};

// Smallest and largest core frame in bytes.
constexpr uint32_t kDtsMinCoreSize = 95;
constexpr uint32_t kDtsMaxCoreSize = 0x3FFF;

// Whether the four bytes at `at` of data[0..size) are `sync`; false when they are out of range.
bool DtsSyncAt(const uint8_t* data, uint64_t size, uint64_t at, const uint8_t (&sync)[4]);

// Core frame size from bytes 5 to 7 (FSIZE + 1); the block must hold at least 8 bytes.
uint32_t DtsCoreSize(const uint8_t* frame);
// Samples per core frame from bytes 4 and 5 ((NBLKS + 1) x 32); the block must hold 6 bytes.
uint32_t DtsSamplesPerFrame(const uint8_t* frame);

// One asset of an extension substream.
struct TAsset {
  int32_t fullSize = 0;      // bytes of the asset's data
  uint32_t type = 0;         // the first four bytes of the data as a little-endian word
  int32_t headerSize = 0;    // size of the asset descriptor
  int32_t index = 0;
  bool contentTypePresent = false;
  int32_t contentType = 15;
  bool languagePresent = false;
  uint32_t language = 0;     // 24-bit code
  bool infoTextPresent = false;
  int32_t infoTextSize = 0;
  std::string infoText;
  int32_t bitResolution = 0;
  int32_t maxSampleRate = 0;  // the four-bit code
  int32_t totalNumChannels = 0;
};

struct TDtsSubstreamInfo {
  int result = 1;  // 0 good, 1 not a substream, 2 cut off, 3 inconsistent
  bool hasXsa = false;
  bool isMaster = false;  // an XLL asset: Master Audio rather than Hi-Res
  uint32_t fullSize = 0;
  uint32_t sampleRate = 0;
  uint32_t bits = 0;
  uint32_t channels = 0;
  uint32_t ssIndex = 0;           // substream index
  uint32_t refClock = 0;          // Hz of the reference clock, 0 when out of range
  uint32_t frameDurationCode = 0; // the frame lasts 512 x this many clock periods
  std::vector<TAsset> assets;
};

struct TDtsFrameInfo {
  // 0 good; 1 not DTS; 2 the extension substream is cut off or not followed by a core frame;
  // 3 the extension header is inconsistent.
  int result = 1;
  bool hasCrc = false;
  bool outdatedEs = false;  // XCh data with a size field in the outdated layout
  bool isMaster = false;
  bool hasExtension = false;
  uint32_t padding = 0;
  uint32_t extensionSize = 0;
  uint32_t coreSize = 0;
  int32_t dialnorm = 0;
  uint32_t sampleRate = 0;
  uint32_t bits = 0;
  uint32_t bitrate = 0;
  uint32_t samplesPerFrame = 0;
  uint32_t clockRate = 0;  // the rate `samplesPerFrame` counts in when not `sampleRate`
  uint32_t channelMask = 0;
  uint32_t channels = 0;
  uint32_t lfe = 0;
  std::string channelText;
  std::string formatName;
};

// Parses the frame that starts at data[0]: the core header and the extension substreams behind
// it. `size` is what is available from there on. `dump` writes the fields to the console; `first`
// adds the search for XCh data in the outdated layout.
TDtsFrameInfo ParseDtsFrame(const uint8_t* data, uint32_t size, bool dump, bool first);

// A DTS-HD stream without core (DTS Express, some lossless-only tracks): each frame is one or
// more extension substreams, from one of index 0 up to the next of index 0. Parses the frame
// at data[0] into the same facts as ParseDtsFrame, with `coreSize` 0; result 2 when the frame
// runs past the data or isn't followed by the next one.
TDtsFrameInfo ParseDtsSubstreamFrame(const uint8_t* data, uint32_t size, bool dump);

// Samples of the frame at data[0] at the rate it is timed with: from the core header, or for a
// frame without core from its first substream header (0 when it can't be told).
uint32_t DtsFrameSamples(const uint8_t* frame, uint32_t size);

// Parses the extension substream that starts at data[0].
TDtsSubstreamInfo ParseExtensionSubstream(const uint8_t* data, uint32_t size, bool dump);

}  // namespace sonvex
