// TChannelModder. A text map is read one digit every second character, as "0,2,1" is written;
// separators aren't looked at and later entries stay identity.
#include "pcm/channelmodder.h"

#include <cstring>

namespace sonvex {

TChannelModder::TChannelModder(std::vector<uint32_t> map) : fromText(false), map(std::move(map)) {}

TChannelModder::TChannelModder(std::string text) : text(std::move(text)), fromText(true) {}

bool TChannelModder::InitAudio(const std::string& format, uint32_t inChannels, uint32_t bits,
                               uint32_t sampleRate, bool bigEndian, int64_t totalSize) {
  if (!valid) return false;
  if (!CheckUpStreams("channel modder")) return false;
  if (format != "pcm" || inChannels == 0 || (bits != 8 && bits != 16 && bits != 24))
    return Fail("The channel modder received a non-supported data format.");
  channels = inChannels;
  bytes = bits / 8;
  if (fromText) {
    map.resize(channels);
    for (uint32_t i = 0; i < channels; i++) map[i] = i;
    std::string spec = text;
    if (spec == "bluray") spec = channels == 8 ? "0,1,2,7,4,5,3,6" : "0,1,2,5,3,4";
    if (spec.size() > channels * 2 - 1) spec.resize(channels * 2 - 1);
    for (size_t i = 0; 2 * i < spec.size(); i++) map[i] = uint32_t(uint8_t(spec[2 * i]) - '0');
    Log(0, "Remapping channels...");
  }
  // Every entry is checked on both paths: an index outside the input would read outside a frame.
  for (uint32_t entry : map)
    if (entry >= channels) return Fail("The channel modder was started with incorrect parameters.");
  if (map.empty()) return Fail("The channel modder was started with incorrect parameters.");
  return NotifyAudio(format, uint32_t(map.size()), bits, sampleRate, bigEndian, totalSize);
}

namespace {

// One frame after another, each output sample picked from its input channel; the sample size is a
// constant in each copy of the loop, so the copies become plain loads and stores.
template <uint32_t kBytes>
void PickChannels(const uint8_t* in, uint8_t* out, uint32_t frames, uint32_t channels,
                  const std::vector<uint32_t>& map) {
  const uint32_t frameBytes = channels * kBytes;
  for (uint32_t f = 0; f < frames; f++, in += frameBytes)
    for (uint32_t entry : map) {
      std::memcpy(out, in + entry * kBytes, kBytes);
      out += kBytes;
    }
}

}  // namespace

bool TChannelModder::Write(SenderId, bool, const uint8_t* data, uint32_t size, int64_t position,
                           bool flush) {
  if (!valid) return false;
  if (channels == 0) return Fail("The channel modder didn't receive the format information.");
  const uint32_t frameBytes = channels * bytes;
  // Whole frames are read straight from the block; only a frame cut at a block's end waits in
  // buffer 0 for the rest of its bytes.
  const uint8_t* in = data;
  uint32_t frames = 0;
  if (BufferFill(0) == 0) {
    frames = size / frameBytes;
    if (size % frameBytes && !StoreData(0, data + frames * frameBytes, size % frameBytes))
      return Fail("The channel modder couldn't allocate enough memory.");
  } else {
    if (!StoreData(0, data, size)) return Fail("The channel modder couldn't allocate enough memory.");
    in = BufferData(0);
    frames = BufferFill(0) / frameBytes;
  }
  if (frames == 0) return true;
  const uint32_t outFrame = uint32_t(map.size()) * bytes;
  if (!ReserveBuffer(1, frames * outFrame))
    return Fail("The channel modder couldn't allocate enough memory.");
  uint8_t* out = BufferData(1);
  switch (bytes) {
    case 1: PickChannels<1>(in, out, frames, channels, map); break;
    case 2: PickChannels<2>(in, out, frames, channels, map); break;
    default: PickChannels<3>(in, out, frames, channels, map); break;
  }
  bool ok = Send(false, BufferData(1), frames * outFrame, position, flush);
  if (in != data) RemoveData(0, frames * frameBytes);
  return ok;
}

}  // namespace sonvex
