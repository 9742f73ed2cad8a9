// TChannelMerge: input bookkeeping of the stages where mono branches meet.
#include "pcm/channelmerge.h"

#include <algorithm>

namespace sonvex {

bool TChannelMerge::AcceptInput(const std::string& format, uint32_t channels, uint32_t bits,
                                bool inBigEndian, int64_t totalSize, bool& first) {
  first = false;
  if (!valid) return false;
  if (!CheckUpStreams(stageName)) return false;
  if (format != "pcm" || channels != 1 || (bits != 8 && bits != 16 && bits != 24) ||
      (littleOnly && inBigEndian))
    return Refuse("received a non-supported data format.");
  if (inputs == 0) {
    first = true;
    inputs = uint32_t(DownStreams().size());
    consumed.assign(inputs, 0);
    bytes = bits / 8;
    bigEndian = inBigEndian;
    sampleCount = totalSize;
    return true;
  }
  // Counts are compared in their two 32-bit halves, as they are announced; two unknown lengths
  // (0) agree.
  bool differs = inputs != DownStreams().size() || bytes != bits / 8 ||
                 (!littleOnly && bigEndian != inBigEndian) ||
                 uint32_t(uint64_t(sampleCount) >> 32) != uint32_t(uint64_t(totalSize) >> 32) ||
                 uint32_t(sampleCount) != uint32_t(totalSize);
  if (differs) return Refuse("received channels with different attributes.");
  return true;
}

bool TChannelMerge::StoreInput(SenderId sender, const uint8_t* data, uint32_t size,
                               uint32_t& frames) {
  frames = 0;
  if (!valid) return false;
  if (inputs == 0) return Refuse("didn't receive the format information.");
  const auto& list = DownStreams();
  auto found = std::find(list.begin(), list.end(), sender);
  if (found == list.end() || uint32_t(found - list.begin()) >= inputs)
    return Refuse("received data from an unknown source.");
  if (size && !StoreData(uint32_t(found - list.begin()), data, size))
    return Refuse("couldn't allocate enough memory.");
  uint32_t smallest = InputFill(0);
  for (uint32_t i = 1; i < inputs; i++) smallest = std::min(smallest, InputFill(i));
  frames = smallest / bytes;
  return true;
}

void TChannelMerge::RemoveFrames(uint32_t frames) {
  constexpr uint32_t kCompactAbove = 0x40000;
  for (uint32_t i = 0; i < inputs; i++) {
    consumed[i] += frames * bytes;
    if (consumed[i] == BufferFill(i)) {
      SetBufferFill(i, 0);
      consumed[i] = 0;
    } else if (consumed[i] > kCompactAbove && consumed[i] > BufferFill(i) / 2) {
      RemoveData(i, consumed[i]);
      consumed[i] = 0;
    }
  }
}

bool TChannelMerge::Finish() {
  std::lock_guard<std::recursive_mutex> guard(lock);
  finished++;
  if (!valid) return false;
  // What a longer input still holds stays unsent.
  if (finished == std::max<uint32_t>(inputs, uint32_t(DownStreams().size())))
    return FinishUpStreams();
  return true;
}

}  // namespace sonvex
