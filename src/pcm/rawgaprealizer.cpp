// TRawGapRealizer. Buffer 0 holds incoming data, buffer 1 at least the latest second of audio.
// The first entry is read at construction, before the sample rate is known, and so yields no
// change: the changes begin with the second entry.
#include "pcm/rawgaprealizer.h"

#include <algorithm>
#include <cstring>

namespace sonvex {

TRawGapRealizer::TRawGapRealizer(const std::string& gapData) {
  gaps.resize(gapData.size() / sizeof(TGapEntry));
  if (!gaps.empty()) {
    std::memcpy(gaps.data(), gapData.data(), gaps.size() * sizeof(TGapEntry));
    index = 0;
    FetchEntry();
  }
}

void TRawGapRealizer::FetchEntry() {
  const TGapEntry& entry = gaps[size_t(index)];
  const int64_t perTen = int64_t(sampleRate / 100);
  int64_t at = entry.drift > 0 ? entry.time - entry.drift : entry.time;
  nextGap = uint64_t(std::max<int64_t>(at * perTen / 10 / 10000, 0));
  int64_t previous = index > 0 ? gaps[size_t(index - 1)].drift : 0;
  pending = (entry.drift - previous) * perTen / 10 / 10000;
  index++;
  if (index >= int64_t(gaps.size())) index = -1;
}

bool TRawGapRealizer::InitAudio(const std::string& format, uint32_t inChannels, uint32_t bits,
                                uint32_t rate, bool bigEndian, int64_t) {
  if (!valid) return false;
  if (!CheckUpStreams("raw gap realizer")) return false;
  if (format != "pcm" || inChannels == 0 || (bits != 8 && bits != 16 && bits != 24))
    return Fail("The raw gap realizer received a non-supported data format.");
  channels = inChannels;
  bytesPerSample = bits / 8;
  sampleRate = rate;
  frameBytes = channels * bytesPerSample;
  secondBytes = sampleRate * frameBytes;
  return NotifyAudio(format, channels, bits, rate, bigEndian, 0);
}

// Sends `pending` frames of the latest second of audio, over and over.
bool TRawGapRealizer::Insert() {
  if (BufferFill(1) < secondBytes) {
    if (!ReserveBuffer(1, secondBytes))
      return Fail("The raw gap realizer was not able to allocate enough memory.");
    std::memset(BufferData(1), 0, secondBytes);
    SetBufferFill(1, secondBytes);
  }
  const uint64_t secondFrames = sampleRate;
  while (pending > 0) {
    uint64_t frames = std::min<uint64_t>(uint64_t(pending), secondFrames);
    uint32_t bytes = uint32_t(frames * frameBytes);
    if (!Send(false, BufferData(1) + BufferFill(1) - bytes, bytes, -1, false))
      return valid = false;
    pending -= int64_t(frames);
  }
  return true;
}

bool TRawGapRealizer::Write(SenderId, bool, const uint8_t* data, uint32_t size, int64_t,
                            bool flush) {
  if (!valid) return false;
  if (channels == 0) return Fail("The raw gap realizer didn't receive the format information.");
  if (nextGap == 0 && pending == 0 && index == -1) return Send(false, data, size, -1, false);
  if (!StoreData(0, data, size) || !StoreData(1, data, size))
    return Fail("The raw gap realizer was not able to allocate enough memory.");
  // Only the latest second counts; older audio is dropped in bulk once four seconds have
  // gathered, rather than moving a second of audio along behind every block.
  if (BufferFill(1) >= 4 * uint64_t(secondBytes)) {
    uint32_t keep = BufferFill(1) / frameBytes * frameBytes;
    keep = std::min(keep, secondBytes);
    RemoveData(1, BufferFill(1) - keep);
  }
  uint64_t n = BufferFill(0) / frameBytes;
  while (true) {
    if (nextGap != 0 && nextGap < current) nextGap = current;
    if (nextGap != 0 && n > 0) {
      if (!messageDone) {
        messageDone = true;
        Log(0, "Realizing RAW/PCM gaps...");
      }
      uint64_t frames = std::min(n, nextGap - current);
      if (frames && !Send(false, BufferData(0), uint32_t(frames * frameBytes), -1, false))
        return valid = false;
      RemoveData(0, uint32_t(frames * frameBytes));
      current += frames;
      n -= frames;
      if (current < nextGap) return true;
      nextGap = 0;
    }
    if (nextGap != 0) return true;
    if (pending > 0 && !Insert()) return false;
    if (pending < 0) {
      uint64_t remove = uint64_t(-pending);
      uint64_t frames = std::min(n, remove);
      RemoveData(0, uint32_t(frames * frameBytes));
      current += frames;
      n -= frames;
      pending += int64_t(frames);
      if (pending < 0) return true;
    }
    if (index == -1) {
      if (BufferFill(0) == 0 && !flush) return true;
      bool ok = Send(false, BufferData(0), BufferFill(0), -1, flush);
      RemoveData(0, BufferFill(0));
      return ok || (valid = false);
    }
    FetchEntry();
  }
}

}  // namespace sonvex
