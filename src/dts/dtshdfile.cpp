// The chunk walk of DTS-HD container files and the audio presentation header.
#include "dts/dtshdfile.h"

#include <algorithm>
#include <bit>
#include <cstring>

#include "framework/bitreader.h"

namespace sonvex {

namespace {

constexpr char kFileHeader[] = "DTSHDHDR";
constexpr char kStreamChunk[] = "STRMDATA";
constexpr char kAuprChunk[] = "AUPR-HDR";
// Speaker mask bits that stand for a pair (L/R, Ls/Rs, Lh/Rh, Lsr/Rsr, Lc/Rc, Lw/Rw, Lss/Rss,
// Lhs/Rhs, Lhr/Rhr).
constexpr uint32_t kPairBits = 0xAE66;

bool IsChunkName(const uint8_t* name) {
  for (int i = 0; i < 8; i++)
    if (name[i] < 0x20 || name[i] > 0x7E) return false;
  return true;
}

}  // namespace

uint32_t DtsHdMaskChannels(uint32_t mask) {
  mask &= 0xFFFF;
  return uint32_t(std::popcount(mask) + std::popcount(mask & kPairBits));
}

TDtsHdFacts ParseAuprHeader(const uint8_t* data, uint32_t size) {
  TDtsHdFacts facts;
  BitReader bits(data, size);
  bits.Skip(8);                                   // audio presentation index
  bits.Skip(16);                                  // presentation metadata flags
  facts.sampleRate = bits.Read(24);               // maximum sample rate, Hz
  facts.frames = bits.Read(32);                   // frames in the stream
  facts.samplesPerFrame = bits.Read(16);          // samples per frame at that rate
  bits.Skip(40);                                  // samples of the original audio
  facts.channelMask = bits.Read(16);              // speaker mask
  facts.codecDelay = bits.Read(16);               // decoder delay in samples
  facts.channels = DtsHdMaskChannels(facts.channelMask);
  facts.present = !bits.Failed() && facts.sampleRate != 0;
  return facts;
}

void TDtsHdChunks::StartChunk() {
  state = TState::Header;
  held.clear();
}

bool TDtsHdChunks::Feed(const uint8_t* data, uint32_t size, const Sink& sink) {
  while (size > 0) {
    switch (state) {
      case TState::Raw:
        return sink(data, size);
      case TState::Broken:
        return true;
      case TState::Undecided: {
        uint32_t take = std::min<uint32_t>(size, 8 - uint32_t(held.size()));
        held.insert(held.end(), data, data + take);
        data += take;
        size -= take;
        if (held.size() < 8) return true;
        if (std::memcmp(held.data(), kFileHeader, 8) == 0) {
          state = TState::Header;  // the eight bytes are the start of the first chunk header
          break;
        }
        state = TState::Raw;
        std::vector<uint8_t> opening;
        opening.swap(held);
        if (!sink(opening.data(), uint32_t(opening.size()))) return false;
        break;
      }
      case TState::Header: {
        uint32_t take = std::min<uint32_t>(size, kHeaderSize - uint32_t(held.size()));
        held.insert(held.end(), data, data + take);
        data += take;
        size -= take;
        if (held.size() < kHeaderSize) return true;
        if (!IsChunkName(held.data())) {
          // Not a chunk: what follows can't be told apart from junk, so it is left out.
          state = TState::Broken;
          return true;
        }
        streamChunk = std::memcmp(held.data(), kStreamChunk, 8) == 0;
        payloadLeft = uint64_t(Be32(held.data() + 8)) << 32 | Be32(held.data() + 12);
        auprChunk = std::memcmp(held.data(), kAuprChunk, 8) == 0 && payloadLeft <= kMaxAuprSize;
        held.clear();
        state = TState::Payload;
        if (payloadLeft == 0) StartChunk();
        break;
      }
      case TState::Payload: {
        uint32_t take = uint32_t(std::min<uint64_t>(size, payloadLeft));
        if (streamChunk && !sink(data, take)) return false;
        if (auprChunk) held.insert(held.end(), data, data + take);
        data += take;
        size -= take;
        payloadLeft -= take;
        if (payloadLeft == 0) {
          if (auprChunk) facts = ParseAuprHeader(held.data(), uint32_t(held.size()));
          StartChunk();
        }
        break;
      }
    }
  }
  return true;
}

bool TDtsHdChunks::Flush(const Sink& sink) {
  if (state != TState::Undecided || held.empty()) return true;
  state = TState::Raw;
  std::vector<uint8_t> opening;
  opening.swap(held);
  return sink(opening.data(), uint32_t(opening.size()));
}

}  // namespace sonvex
