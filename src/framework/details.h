// Format details: the four small blocks (audio, video, subtitle, container) that every stage
// carries to describe the stream it has understood, and the description strings built from them.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace sonvex {

class IUpStream;

// One gap (positive drift) or overlap (negative drift) in a stream's time stamps, in 100 ns ticks.
// A ".gaps" file is a plain array of these, little-endian.
struct TGapEntry {
  int64_t time;
  int64_t drift;
};

class IAudioFormatDetails {
public:
  virtual ~IAudioFormatDetails() = default;
  virtual bool IsValid() const = 0;
  virtual std::string Format() const = 0;
  virtual std::string Name() const = 0;
  virtual std::string ChannelLayout() const = 0;
  virtual std::string ChannelOrder() const = 0;
  virtual uint32_t Duration() const = 0;
  virtual bool BigEndian() const = 0;
  virtual uint32_t Bitrate() const = 0;
  virtual int32_t Dialnorm() const = 0;
  virtual uint32_t Extra() const = 0;
  virtual std::string Description() const = 0;
  virtual uint32_t SampleRate() const = 0;
  virtual uint32_t Channels() const = 0;
  virtual uint32_t ChannelMask() const = 0;
  virtual uint32_t Bits() const = 0;
  virtual std::string Language() const = 0;
  virtual void SetSampleRate(uint32_t value) = 0;
  virtual void SetChannels(uint32_t value) = 0;
  virtual void SetChannelMask(uint32_t value) = 0;
  virtual void SetBits(uint32_t value) = 0;
  virtual void SetLanguage(const std::string& value) = 0;
};

class IVideoFormatDetails {
public:
  virtual ~IVideoFormatDetails() = default;
  virtual bool IsValid() const = 0;
  virtual std::string Format() const = 0;
  virtual std::string Name() const = 0;
  virtual bool Interlaced() const = 0;
  virtual bool Pulldown() const = 0;
  virtual uint32_t Width() const = 0;
  virtual uint32_t Height() const = 0;
  virtual uint32_t AspectX() const = 0;
  virtual uint32_t AspectY() const = 0;
  virtual uint32_t RateNumerator() const = 0;
  virtual uint32_t RateDenominator() const = 0;
  virtual uint32_t FrameCount() const = 0;
  virtual std::string GapData() const = 0;
  virtual std::string Description() const = 0;
};

class ISubtitleFormatDetails {
public:
  virtual ~ISubtitleFormatDetails() = default;
  virtual bool IsValid() const = 0;
  virtual std::string Format() const = 0;
  virtual std::string Name() const = 0;
  virtual std::string Description() const = 0;
  virtual std::string Language() const = 0;
  virtual void SetLanguage(const std::string& value) = 0;
};

// A track of a container: its stream id (or PID), the stage that reads it, and its delay in ms.
struct TTrackEntry {
  int32_t id = 0;
  std::shared_ptr<IUpStream> details;
  int32_t delay = 0;
};

class IContainerFormatDetails {
public:
  virtual ~IContainerFormatDetails() = default;
  virtual bool IsValid() const = 0;
  virtual std::string Format() const = 0;
  virtual std::string Name() const = 0;
  virtual uint32_t Duration() const = 0;
  virtual std::string Description() const = 0;
  virtual int32_t VideoCount() const = 0;
  virtual bool GetVideo(int32_t index, TTrackEntry& entry) const = 0;
  virtual int32_t AudioCount() const = 0;
  virtual bool GetAudio(int32_t index, TTrackEntry& entry) const = 0;
  virtual int32_t SubtitleCount() const = 0;
  virtual bool GetSubtitle(int32_t index, TTrackEntry& entry) const = 0;
  virtual void SetInitialDelay(int32_t ms) = 0;
};

// Bits of an audio block's `extra` field. E-AC-3 whose access units open with an AC-3 frame
// (Blu-ray 7.1): that frame is a complete AC-3 stream of its own.
constexpr uint32_t kAudioExtraAc3Core = 1;

// The blocks themselves. Fields keep the names of the format; the interfaces above read them.
struct TAudioBlock : IAudioFormatDetails {
  bool audioValid = false;
  std::string format, name;
  uint32_t duration = 0, channels = 0;
  std::string channelLayout, channelOrder;
  uint32_t channelMask = 0, bits = 0, sampleRate = 0;
  bool bigEndian = false;
  uint32_t bitrate = 0;
  int32_t dialnorm = 0;
  uint32_t extra = 0;
  std::string language, description;

  bool IsValid() const override { return audioValid; }
  std::string Format() const override { return format; }
  std::string Name() const override { return name; }
  std::string ChannelLayout() const override { return channelLayout; }
  std::string ChannelOrder() const override { return channelOrder; }
  uint32_t Duration() const override { return duration; }
  bool BigEndian() const override { return bigEndian; }
  uint32_t Bitrate() const override { return bitrate; }
  int32_t Dialnorm() const override { return dialnorm; }
  uint32_t Extra() const override { return extra; }
  std::string Description() const override { return description; }
  uint32_t SampleRate() const override { return sampleRate; }
  uint32_t Channels() const override { return channels; }
  uint32_t ChannelMask() const override { return channelMask; }
  uint32_t Bits() const override { return bits; }
  std::string Language() const override { return language; }
  void SetSampleRate(uint32_t value) override { sampleRate = value; }
  void SetChannels(uint32_t value) override { channels = value; }
  void SetChannelMask(uint32_t value) override { channelMask = value; }
  void SetBits(uint32_t value) override { bits = value; }
  void SetLanguage(const std::string& value) override { language = value; }
};

struct TVideoBlock : IVideoFormatDetails {
  bool videoValid = false;
  std::string format, name;
  bool interlaced = false, pulldown = false;
  uint32_t width = 0, height = 0, aspectX = 0, aspectY = 0;
  uint32_t rateNumerator = 0, rateDenominator = 0, frameCount = 0;
  std::string gapData, description;

  bool IsValid() const override { return videoValid; }
  std::string Format() const override { return format; }
  std::string Name() const override { return name; }
  bool Interlaced() const override { return interlaced; }
  bool Pulldown() const override { return pulldown; }
  uint32_t Width() const override { return width; }
  uint32_t Height() const override { return height; }
  uint32_t AspectX() const override { return aspectX; }
  uint32_t AspectY() const override { return aspectY; }
  uint32_t RateNumerator() const override { return rateNumerator; }
  uint32_t RateDenominator() const override { return rateDenominator; }
  uint32_t FrameCount() const override { return frameCount; }
  std::string GapData() const override { return gapData; }
  std::string Description() const override { return description; }
};

struct TSubtitleBlock : ISubtitleFormatDetails {
  bool subtitleValid = false;
  std::string format, name, language, description;

  bool IsValid() const override { return subtitleValid; }
  std::string Format() const override { return format; }
  std::string Name() const override { return name; }
  std::string Description() const override { return description; }
  std::string Language() const override { return language; }
  void SetLanguage(const std::string& value) override { language = value; }
};

struct TContainerBlock : IContainerFormatDetails {
  bool containerValid = false;
  std::string format, name;
  uint32_t duration = 0;
  std::vector<TTrackEntry> video, audio, subtitle;
  int32_t initialDelay = 0;

  bool IsValid() const override { return containerValid; }
  std::string Format() const override { return format; }
  std::string Name() const override { return name; }
  uint32_t Duration() const override { return duration; }
  std::string Description() const override;
  int32_t VideoCount() const override { return int32_t(video.size()); }
  bool GetVideo(int32_t index, TTrackEntry& entry) const override { return Get(video, index, entry); }
  int32_t AudioCount() const override { return int32_t(audio.size()); }
  bool GetAudio(int32_t index, TTrackEntry& entry) const override { return Get(audio, index, entry); }
  int32_t SubtitleCount() const override { return int32_t(subtitle.size()); }
  bool GetSubtitle(int32_t index, TTrackEntry& entry) const override {
    return Get(subtitle, index, entry);
  }
  void SetInitialDelay(int32_t ms) override;
  // Keeps the list sorted by id; equal ids keep their order of arrival.
  void AddTrack(std::vector<TTrackEntry>& list, int32_t id, std::shared_ptr<IUpStream> details,
                int32_t delay);

private:
  static bool Get(const std::vector<TTrackEntry>& list, int32_t index, TTrackEntry& entry);
};

// Text helpers shared by the description strings.
std::string GroupThousands(int64_t value);              // 1536 -> "1,536"
std::string KhzText(uint32_t sampleRate);               // 44100 -> "44.1", 48000 -> "48"
std::string HoursMinutesSeconds(uint32_t milliseconds);  // "1:02:03", rounded to seconds
uint32_t DefaultChannelMask(uint32_t channels);
std::string DefaultChannelLayout(uint32_t channels);
std::string BuildAudioDescription(const TAudioBlock& block);
std::string BuildVideoDescription(const TVideoBlock& block);

}  // namespace sonvex
