// The stage chain. Every unit of work is a stage, a TUpStream. Data is pushed: a stage receives
// blocks through Write and hands its output to the next stages, its "upstreams", through Send.
//
// Life of a stage: Init* announce the format ahead of the first block of that kind, Write carries
// blocks in stream order, Finish ends the stream (push out what is held, then FinishUpStreams).
// A stage that cannot go on clears `valid`, logs at level 2 and returns false; the false travels
// back to the source, which stops reading. No exception crosses a stage boundary.
//
// Ownership: stages are held through std::shared_ptr; each stage holds its upstreams, so the
// source's reference holds the whole chain for one pass. A block belongs to the sender during the
// Write call only: no stage may keep the pointer after Write returns.
//
// Threads: everything runs on the caller's thread down to the first stage with two or more
// upstreams. There, Send copies the block into a batch of about 1 MiB and hands full batches to
// one worker thread per upstream, while the sender fills the next batch. Every upstream receives
// the same calls, in the same order, as if each block had been written to it at once.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "framework/details.h"
#include "framework/event.h"

namespace sonvex {

class IUpStream;
using UpStreamRef = std::shared_ptr<IUpStream>;
using SenderId = std::uintptr_t;

class IUpStream {
public:
  virtual ~IUpStream() = default;

  virtual bool IsValid() const = 0;
  virtual void LinkDownStream(SenderId id, bool add) = 0;
  virtual uint32_t BlockSize() = 0;
  virtual bool InitAudio(const std::string& format, uint32_t channels, uint32_t bitsPerSample,
                         uint32_t sampleRate, bool bigEndian, int64_t totalSize) = 0;
  virtual bool InitVideo(const std::string& format, bool interlaced, bool pulldown, uint32_t width,
                         uint32_t height, uint32_t aspectX, uint32_t aspectY,
                         uint32_t rateNumerator, uint32_t rateDenominator,
                         const std::string& description) = 0;
  virtual bool InitSubtitle(const std::string& format) = 0;
  virtual bool InitContainer(const std::string& format, int64_t totalSize, int64_t playTime) = 0;
  virtual bool SetDelay(int32_t index, int32_t milliseconds) = 0;
  virtual bool Write(SenderId sender, bool isHeader, const uint8_t* data, uint32_t size,
                     int64_t position, bool flush) = 0;
  virtual bool Finish() = 0;
  virtual void NotifySeam(bool before, int64_t jump) = 0;
  virtual int32_t UpStreamCount() const = 0;
  virtual UpStreamRef GetUpStream(int32_t index) const = 0;
  virtual UpStreamRef UpStream() const = 0;
  virtual void SetUpStream(const UpStreamRef& stage) = 0;
  virtual void SetUpStreams(const std::vector<UpStreamRef>& list) = 0;
  virtual UpStreamRef LastStage() = 0;
  virtual bool AppendUpStream(const UpStreamRef& stage) = 0;
  virtual bool AppendUpStreams(const std::vector<UpStreamRef>& list) = 0;
  virtual void Log(int level, const std::string& text, bool force = false) = 0;
  virtual void SetSilent(bool recursive) = 0;
  virtual void SetLogPrefix(const std::string& text) = 0;
  virtual void SetAudioDetails(const std::string& format, const std::string& name,
                               const std::string& channelLayout, const std::string& channelOrder,
                               uint32_t duration, uint32_t channels, uint32_t channelMask,
                               uint32_t bits, uint32_t sampleRate, uint32_t bitrate,
                               int32_t dialnorm, uint32_t extra, bool bigEndian) = 0;
  virtual void SetVideoDetails(const std::string& format, const std::string& name, bool interlaced,
                               bool pulldown, uint32_t width, uint32_t height, uint32_t aspectX,
                               uint32_t aspectY, uint32_t rateNumerator,
                               uint32_t rateDenominator) = 0;
  virtual void SetSubtitleDetails(const std::string& format, const std::string& name) = 0;
  virtual void SetFrameCount(uint32_t count) = 0;
  virtual void SetGapData(const std::string& blob) = 0;
  virtual void SetOptional(bool value) = 0;
  virtual bool IsOptional() const = 0;

  // The details blocks, as references that keep the stage alive.
  virtual std::shared_ptr<IAudioFormatDetails> AudioDetails() = 0;
  virtual std::shared_ptr<IVideoFormatDetails> VideoDetails() = 0;
  virtual std::shared_ptr<ISubtitleFormatDetails> SubtitleDetails() = 0;
  virtual std::shared_ptr<IContainerFormatDetails> ContainerDetails() = 0;
};

// Asks a stage whether it supports an interface.
template <class I>
std::shared_ptr<I> Query(const UpStreamRef& stage) {
  return std::dynamic_pointer_cast<I>(stage);
}

class TUpStream : public IUpStream, public std::enable_shared_from_this<TUpStream> {
public:
  TUpStream();
  ~TUpStream() override;
  TUpStream(const TUpStream&) = delete;
  TUpStream& operator=(const TUpStream&) = delete;

  // Slot 0: hands a block to all upstreams; in parallel and in batches when there are two or
  // more.
  virtual bool Send(bool isHeader, const uint8_t* data, uint32_t size, int64_t position,
                    bool flush);
  // With two or more upstreams: hands the blocks that Send has gathered to the workers and waits
  // until every upstream has written them. False if a non-optional upstream failed. The Notify
  // walk, FinishUpStreams and the delay and seam broadcasts call it first; a stage that reaches
  // its upstreams in another way (a seek in the file behind it) calls it itself.
  bool HandOverBatches();

  bool IsValid() const override { return valid; }
  void LinkDownStream(SenderId id, bool add) override;
  uint32_t BlockSize() override { return 0x100000; }
  bool InitAudio(const std::string&, uint32_t, uint32_t, uint32_t, bool, int64_t) override {
    return true;
  }
  bool InitVideo(const std::string&, bool, bool, uint32_t, uint32_t, uint32_t, uint32_t, uint32_t,
                 uint32_t, const std::string&) override {
    return true;
  }
  bool InitSubtitle(const std::string&) override { return true; }
  bool InitContainer(const std::string&, int64_t, int64_t) override { return true; }
  bool SetDelay(int32_t index, int32_t milliseconds) override;
  bool Finish() override;
  void NotifySeam(bool before, int64_t jump) override;
  int32_t UpStreamCount() const override { return int32_t(upStreams.size()); }
  UpStreamRef GetUpStream(int32_t index) const override;
  UpStreamRef UpStream() const override;
  void SetUpStream(const UpStreamRef& stage) override { SetUpStreams({stage}); }
  void SetUpStreams(const std::vector<UpStreamRef>& list) override;
  UpStreamRef LastStage() override;
  bool AppendUpStream(const UpStreamRef& stage) override;
  bool AppendUpStreams(const std::vector<UpStreamRef>& list) override;
  void Log(int level, const std::string& text, bool force = false) override;
  void SetSilent(bool recursive) override;
  void SetLogPrefix(const std::string& text) override;
  void SetAudioDetails(const std::string& format, const std::string& name,
                       const std::string& channelLayout, const std::string& channelOrder,
                       uint32_t duration, uint32_t channels, uint32_t channelMask, uint32_t bits,
                       uint32_t sampleRate, uint32_t bitrate, int32_t dialnorm, uint32_t extra,
                       bool bigEndian) override;
  void SetVideoDetails(const std::string& format, const std::string& name, bool interlaced,
                       bool pulldown, uint32_t width, uint32_t height, uint32_t aspectX,
                       uint32_t aspectY, uint32_t rateNumerator, uint32_t rateDenominator) override;
  void SetSubtitleDetails(const std::string& format, const std::string& name) override;
  void SetFrameCount(uint32_t count) override { video.frameCount = count; }
  void SetGapData(const std::string& blob) override { video.gapData = blob; }
  void SetOptional(bool value) override;
  bool IsOptional() const override { return optional; }

  std::shared_ptr<IAudioFormatDetails> AudioDetails() override;
  std::shared_ptr<IVideoFormatDetails> VideoDetails() override;
  std::shared_ptr<ISubtitleFormatDetails> SubtitleDetails() override;
  std::shared_ptr<IContainerFormatDetails> ContainerDetails() override;

  // Container helpers.
  void SetContainerDetails(const std::string& format, const std::string& name, uint32_t duration);
  void AddVideoTrack(int32_t id, const UpStreamRef& details, int32_t delay);
  void AddAudioTrack(int32_t id, const UpStreamRef& details, int32_t delay);
  void AddSubtitleTrack(int32_t id, const UpStreamRef& details, int32_t delay);

  // The id by which this stage is known to its upstream number `index`.
  SenderId SenderIdFor(uint32_t index) const { return SenderId(this) + index; }
  const std::vector<SenderId>& DownStreams() const { return downStreams; }
  int32_t DelaySum() const;
  bool IsSilent() const { return silent; }
  const std::string& LogPrefix() const { return logPrefix; }

  // Indexed byte buffers. The front of a buffer is always its oldest data.
  uint8_t* BufferData(uint32_t n);
  uint32_t BufferFill(uint32_t n) const;
  uint32_t BufferCapacity(uint32_t n) const;
  void SetBufferFill(uint32_t n, uint32_t fill);
  bool ReserveBuffer(uint32_t n, uint32_t size);
  bool StoreData(uint32_t n, const uint8_t* data, uint32_t size);
  void RemoveData(uint32_t n, uint32_t count);
  void FreeBuffer(uint32_t n);

protected:
  // Each calls the matching operation on every upstream; see the rule in upstream.cpp.
  bool NotifyAudio(const std::string& format, uint32_t channels, uint32_t bitsPerSample,
                   uint32_t sampleRate, bool bigEndian, int64_t totalSize);
  bool NotifyVideo(const std::string& format, bool interlaced, bool pulldown, uint32_t width,
                   uint32_t height, uint32_t aspectX, uint32_t aspectY, uint32_t rateNumerator,
                   uint32_t rateDenominator, const std::string& description);
  bool NotifySubtitle(const std::string& format);
  bool NotifyContainer(const std::string& format, int64_t totalSize, int64_t playTime);
  bool FinishUpStreams();
  void BroadcastDelay(int32_t index, int32_t milliseconds);
  void BroadcastSeam(bool before, int64_t jump);
  void Lock() { lock.lock(); }
  void Unlock() { lock.unlock(); }

  // Clears `valid` and logs at level 2; returns false so that callers can `return Fail(...)`.
  bool Fail(const std::string& text);
  // The common first check of a stage with output: "The <stage> upstream property is not set."
  bool CheckUpStreams(const std::string& stageName);

  bool valid = true;
  std::recursive_mutex lock;
  std::vector<UpStreamRef> upStreams;
  std::vector<SenderId> downStreams;
  bool silent = false;
  bool silentRecursive = false;
  std::string logPrefix;
  bool keepsDelay = false;
  bool optional = false;
  std::vector<int32_t> delays;

  int32_t initialDelay = 0;
  TAudioBlock audio;
  TVideoBlock video;
  TSubtitleBlock subtitle;
  TContainerBlock container;

private:
  struct FanOutRecord {
    TUpStream* owner = nullptr;
    uint32_t index = 0;
    Event wakeEvent, doneEvent;
    std::thread thread;
  };
  // Blocks copied for the workers: the bytes one behind the other, and for each block where it
  // starts, its size, position and flush flag.
  struct FanOutBatch {
    struct Entry {
      size_t offset;
      uint32_t size;
      int64_t position;
      bool flush;
    };
    std::vector<uint8_t> bytes;
    std::vector<Entry> entries;
  };
  struct Buffer {
    std::unique_ptr<uint8_t[]> address;
    uint32_t capacity = 0;
    uint32_t fill = 0;
  };
  template <class Call>
  bool NotifyAll(Call call);
  static void FanOutWorker(FanOutRecord* record);
  bool HandOverBatch();
  void WaitForWorkers();

  std::vector<std::unique_ptr<FanOutRecord>> fanOut;
  FanOutBatch batches[2];
  uint32_t fillBatch = 0;          // the batch Send fills; the other one is the workers'
  bool workersBusy = false;        // a batch was handed over and not yet waited for
  bool stopWorkers = false;
  std::atomic<bool> branchFailed{false};  // a non-optional upstream returned false
  std::vector<Buffer> buffers;
};

// Makes a stage and returns it as the interface the caller holds.
template <class T, class... Args>
std::shared_ptr<T> MakeStage(Args&&... args) {
  return std::make_shared<T>(std::forward<Args>(args)...);
}

}  // namespace sonvex
