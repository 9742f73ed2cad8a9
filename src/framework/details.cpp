// Description strings of the format details, and the sorted track lists of a container.
#include "framework/details.h"

#include <cstdio>

namespace sonvex {

std::string GroupThousands(int64_t value) {
  bool negative = value < 0;
  uint64_t magnitude = negative ? uint64_t(-(value + 1)) + 1 : uint64_t(value);
  std::string digits = std::to_string(magnitude);
  std::string out;
  for (size_t i = 0; i < digits.size(); i++) {
    if (i && (digits.size() - i) % 3 == 0) out += ',';
    out += digits[i];
  }
  return negative ? "-" + out : out;
}

std::string KhzText(uint32_t sampleRate) {
  std::string text = std::to_string(sampleRate / 1000);
  uint32_t hundreds = sampleRate / 100 % 10, tens = sampleRate / 10 % 10, ones = sampleRate % 10;
  if (hundreds) {
    text += "." + std::to_string(hundreds);
    if (tens) text += std::to_string(tens);
    if (ones) text += std::to_string(ones);
  }
  return text;
}

std::string HoursMinutesSeconds(uint32_t milliseconds) {
  uint64_t seconds = (uint64_t(milliseconds) + 500) / 1000;
  char text[64];
  std::snprintf(text, sizeof text, "%llu:%02llu:%02llu", (unsigned long long)(seconds / 3600),
                (unsigned long long)(seconds / 60 % 60), (unsigned long long)(seconds % 60));
  return text;
}

// WAV speaker masks for the usual channel counts.
constexpr uint32_t kDefaultMasks[] = {4, 3, 7, 51, 55, 63, 319, 1599};

uint32_t DefaultChannelMask(uint32_t channels) {
  if (channels >= 1 && channels <= 8) return kDefaultMasks[channels - 1];
  return 0xFFFFFFFF;
}

std::string DefaultChannelLayout(uint32_t channels) {
  switch (channels) {
    case 1: return "1.0";
    case 2: return "2.0";
    case 6: return "5.1";
    case 7: return "6.1";
    case 8: return "7.1";
    default: return std::to_string(channels);
  }
}

std::string BuildAudioDescription(const TAudioBlock& block) {
  std::string text = block.name + ", " + block.channelLayout + " channels";
  if (block.duration) text += ", " + HoursMinutesSeconds(block.duration);
  if (block.bits) text += ", " + std::to_string(block.bits) + " bits";
  if (block.bitrate) text += ", " + GroupThousands(block.bitrate / 1000) + "kbit/s";
  text += ", " + KhzText(block.sampleRate) + "khz";
  if (block.dialnorm >= 1 && block.dialnorm <= 30)
    text += ", dialnorm: -" + std::to_string(block.dialnorm) + "dB";
  else if (block.dialnorm != 0 && block.dialnorm != 31)
    text += ", dialnorm: invalid!";
  return text;
}

std::string BuildVideoDescription(const TVideoBlock& block) {
  if (block.rateNumerator == 0) return block.name + ", unknown details";
  std::string text = block.name + ", ";
  std::string rate = std::to_string(block.rateNumerator / 1000);
  std::string scan = block.interlaced ? "i" : "p";
  bool shorthand = (block.width == 1920 && block.height == 1080) ||
                   (block.width == 720 && block.height == 480) ||
                   (block.width == 720 && block.height == 576);
  if (shorthand)
    text += std::to_string(block.height) + scan + rate;
  else
    text += std::to_string(block.width) + "x" + std::to_string(block.height) + " " + rate + scan;
  if (block.rateDenominator == 1001) text += " /1.001";
  if (block.aspectX > 1 || block.aspectY >= 2)
    text += " (" + std::to_string(block.aspectX) + ":" + std::to_string(block.aspectY) + ")";
  if (block.pulldown) text += " with pulldown flags";
  return text;
}

std::string TContainerBlock::Description() const {
  std::string text = name;
  auto count = [&text](size_t n, const char* what) {
    if (n) text += ", " + std::to_string(n) + what + (n > 1 ? "s" : "");
  };
  count(video.size(), " video track");
  count(audio.size(), " audio track");
  count(subtitle.size(), " subtitle track");
  if (duration) text += ", " + HoursMinutesSeconds(duration);
  return text;
}

void TContainerBlock::SetInitialDelay(int32_t ms) {
  initialDelay = ms;
  for (auto* list : {&video, &audio, &subtitle})
    for (auto& entry : *list) entry.delay -= ms;
}

void TContainerBlock::AddTrack(std::vector<TTrackEntry>& list, int32_t id,
                               std::shared_ptr<IUpStream> details, int32_t delay) {
  auto at = list.begin();
  while (at != list.end() && at->id <= id) ++at;
  list.insert(at, TTrackEntry{id, std::move(details), delay - initialDelay});
}

bool TContainerBlock::Get(const std::vector<TTrackEntry>& list, int32_t index, TTrackEntry& entry) {
  if (index < 0 || size_t(index) >= list.size()) return false;
  entry = list[size_t(index)];
  return true;
}

}  // namespace sonvex
