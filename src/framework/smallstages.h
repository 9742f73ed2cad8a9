// Two stages that do nothing with the data but are needed for the way chains are built:
// TPassThrough hands everything on unchanged; TFileSimulator stands in for a file at the end of a
// chain that has no real destination. And the two small interfaces that go with them.
#pragma once

#include "framework/upstream.h"

namespace sonvex {

// The end of a chain that can go back to a place in the finished stream (a header that gets its
// sizes at the end). Found through LastStage.
class ISeekableUpStream {
public:
  virtual ~ISeekableUpStream() = default;
  virtual int64_t Position() = 0;
  virtual void Seek(int64_t position) = 0;
  virtual int64_t Size() = 0;
};

// A reader reports the delay with which its stream begins.
class IInitialDelay {
public:
  virtual ~IInitialDelay() = default;
  virtual bool HasTimestamps() = 0;
  virtual int32_t InitialDelay() = 0;  // milliseconds
};

class IPassThrough {
public:
  virtual ~IPassThrough() = default;
};

class IFileSimulator {
public:
  virtual ~IFileSimulator() = default;
};

class TPassThrough : public TUpStream, public IPassThrough {
public:
  static std::shared_ptr<TPassThrough> Create() { return std::make_shared<TPassThrough>(); }
  bool Write(SenderId sender, bool isHeader, const uint8_t* data, uint32_t size, int64_t position,
             bool flush) override;
  bool InitAudio(const std::string& format, uint32_t channels, uint32_t bitsPerSample,
                 uint32_t sampleRate, bool bigEndian, int64_t totalSize) override;
  bool InitVideo(const std::string& format, bool interlaced, bool pulldown, uint32_t width,
                 uint32_t height, uint32_t aspectX, uint32_t aspectY, uint32_t rateNumerator,
                 uint32_t rateDenominator, const std::string& description) override;
  bool InitSubtitle(const std::string& format) override;
  bool InitContainer(const std::string& format, int64_t totalSize, int64_t playTime) override;
};

class TFileSimulator : public TUpStream, public IFileSimulator, public ISeekableUpStream {
public:
  static std::shared_ptr<TFileSimulator> Create() { return std::make_shared<TFileSimulator>(); }
  bool Write(SenderId sender, bool isHeader, const uint8_t* data, uint32_t size, int64_t position,
             bool flush) override;
  bool Finish() override { return true; }
  int64_t Position() override { return position; }
  void Seek(int64_t newPosition) override;
  int64_t Size() override { return size; }

private:
  int64_t size = 0;
  int64_t position = 0;
};

}  // namespace sonvex
