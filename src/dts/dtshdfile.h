// DTS-HD container files (.dtshd): a chain of chunks, each an eight-character name and a 64-bit
// big-endian payload length, opened by "DTSHDHDR". The stream is the payload of "STRMDATA";
// "AUPR-HDR" describes the audio presentation; the other chunks ("CORESSMD", "EXTSS_MD",
// "NAVI-TBL", "TIMECODE", "FILEINFO", "BLACKOUT", ...) are skipped. Input that doesn't open with
// "DTSHDHDR" is a raw stream and passes as it is.
#pragma once

#include <cstdint>
#include <functional>
#include <vector>

namespace sonvex {

// What "AUPR-HDR" says about the audio presentation.
struct TDtsHdFacts {
  bool present = false;
  uint32_t sampleRate = 0;       // the highest rate of the presentation, Hz
  uint32_t frames = 0;           // frames in the stream
  uint32_t samplesPerFrame = 0;  // at that rate
  uint32_t channelMask = 0;      // DTS-HD speaker mask (pairs count twice)
  uint32_t channels = 0;
  uint32_t codecDelay = 0;       // samples at the start that are decoder delay
};

// Parses the payload of an "AUPR-HDR" chunk; `present` stays false if it is too short.
TDtsHdFacts ParseAuprHeader(const uint8_t* data, uint32_t size);

// Channels of a DTS-HD speaker mask: each bit is one speaker or a pair.
uint32_t DtsHdMaskChannels(uint32_t mask);

class TDtsHdChunks {
public:
  // Receives the bytes of the stream; false stops the walk.
  using Sink = std::function<bool(const uint8_t* data, uint32_t size)>;

  // Walks the next piece of input and hands the stream bytes in it to `sink`.
  bool Feed(const uint8_t* data, uint32_t size, const Sink& sink);
  // The end of the input: a short raw stream still held back goes out.
  bool Flush(const Sink& sink);

  bool IsContainer() const { return state != TState::Undecided && state != TState::Raw; }
  const TDtsHdFacts& Facts() const { return facts; }

private:
  enum class TState { Undecided, Header, Payload, Raw, Broken };
  static constexpr uint32_t kHeaderSize = 16;
  static constexpr uint32_t kMaxAuprSize = 256;

  void StartChunk();

  TState state = TState::Undecided;
  std::vector<uint8_t> held;  // the opening bytes while undecided, or a chunk header being read
  uint64_t payloadLeft = 0;
  bool streamChunk = false;   // the payload being walked is "STRMDATA"
  bool auprChunk = false;     // ... is "AUPR-HDR", collected in `held`
  TDtsHdFacts facts;
};

}  // namespace sonvex
