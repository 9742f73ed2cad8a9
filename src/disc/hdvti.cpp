// The HD DVD title information file. Big-endian, in sectors of 2048 bytes.
#include "disc/hdvti.h"

#include "disc/discfiles.h"

namespace sonvex {
namespace {

constexpr uint64_t kSector = 2048;
// More titles or attribute sets than any disc has mean a damaged table.
constexpr uint32_t kMostVtiEntries = 4096;

constexpr const char* kVideoCodecs[8] = {"", "MPEG2", "h264/AVC", "VC-1", "", "", "", ""};

struct TVtiSize {
  uint8_t code;
  uint16_t width, height;
};
constexpr TVtiSize kVtiSizes[] = {{0, 352, 240},   {1, 352, 480},   {2, 480, 480},
                                  {3, 544, 480},   {4, 708, 480},   {5, 720, 480},
                                  {8, 1280, 720},  {9, 960, 1080},  {10, 1280, 1080},
                                  {11, 1440, 1080}, {12, 1920, 1080}};

constexpr const char* kAudioCodecs[] = {"AC3",   "TrueHD", "MPEG2", "MPEG2", "LPCM", "LPCM",
                                        "DTS-HD", "E-AC3", "MP3",   "AAC",   "WMA Pro"};
constexpr uint32_t kAudioRates[8] = {48000, 96000, 192000, 0, 12000, 24000, 0, 0};
constexpr uint32_t kLpcmBits[4] = {16, 20, 24, 0};

}  // namespace

TVtiVideo DecodeVtiVideo(const uint8_t word[4]) {
  TVtiVideo video;
  video.Codec = kVideoCodecs[word[0] >> 5];
  if ((word[0] & 3) == 0) video.Aspect = "4:3";
  if ((word[0] & 3) == 3) video.Aspect = "16:9";
  video.Interlaced = (word[1] & 48) < 16;
  for (const TVtiSize& size : kVtiSizes)
    if (size.code == word[2] >> 4) {
      video.Width = size.width;
      video.Height = size.height;
    }
  return video;
}

TVtiAudio DecodeVtiAudio(const uint8_t word[4]) {
  TVtiAudio audio;
  uint32_t codec = word[0] >> 2;
  audio.Codec = codec < std::size(kAudioCodecs) ? kAudioCodecs[codec] : "";
  if (audio.Codec == "LPCM") audio.Bits = kLpcmBits[word[2] >> 6];
  audio.SampleRate = kAudioRates[word[1] >> 5];
  audio.ChannelCode = (word[2] >> 2) & 15;
  audio.Channels = audio.ChannelCode == 8 ? 2 : audio.ChannelCode + 1;
  return audio;
}

std::vector<TVti> ReadVti(const std::string& path) {
  std::vector<uint8_t> data;
  if (!ReadWholeFile(path, data)) return {};
  return ParseVti(data);
}

std::vector<TVti> ParseVti(const std::vector<uint8_t>& data) {
  if (data.size() % kSector != 0 || data.size() < 3 * kSector) return {};
  TByteView file(data);
  if (file.Text(0, 12) != "ADVANCED-VTS") return {};
  uint64_t attributeTable = file.U32(184) * kSector, titleTable = file.U32(188) * kSector;

  struct TAttributes {
    std::vector<TVtiVideo> video;
    std::vector<TVtiAudio> audio;
  };
  std::vector<TAttributes> attributes;
  uint32_t attributeCount = file.U16(attributeTable);
  for (uint32_t i = 0; i < attributeCount && i < kMostVtiEntries && !file.Failed(); i++) {
    uint64_t record = attributeTable + file.U32(attributeTable + 8 + 4 * uint64_t(i));
    TAttributes set;
    int videoCount = (file.U8(record) & 12) == 4 ? 2 : 1;
    for (int v = 0; v < videoCount; v++) {
      uint8_t word[4];
      for (int b = 0; b < 4; b++) word[b] = uint8_t(file.U8(record + 2 + 4 * v + b));
      set.video.push_back(DecodeVtiVideo(word));
    }
    uint32_t audioCount = file.U8(record + 15);
    for (uint32_t a = 0; a < audioCount; a++) {
      uint8_t word[4];
      for (int b = 0; b < 4; b++) word[b] = uint8_t(file.U8(record + 16 + 4 * a + b));
      set.audio.push_back(DecodeVtiAudio(word));
    }
    attributes.push_back(std::move(set));
  }

  std::vector<TVti> titles;
  uint32_t titleCount = file.U32(titleTable);
  for (uint32_t i = 0; i < titleCount && i < kMostVtiEntries && !file.Failed(); i++) {
    uint64_t record = titleTable + file.U32(titleTable + 8 + 4 * uint64_t(i));
    TVti title;
    std::string name = file.Text(record + 2, 255);
    title.Name = name.substr(0, name.find('\0'));
    uint32_t index = file.U32(record + 262);
    int64_t start = file.U32(record + 266), end = file.U32(record + 270);
    title.Duration = (end - start) / 90;
    if (index >= 1 && index <= attributes.size()) {
      title.VideoAttributes = attributes[index - 1].video;
      title.AudioAttributes = attributes[index - 1].audio;
    }
    titles.push_back(std::move(title));
  }
  if (file.Failed()) return {};
  return titles;
}

}  // namespace sonvex
