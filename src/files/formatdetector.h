// TFormatDetector: finds out what a source is by handing the same blocks to one silenced reader
// of every kind, in a fixed order, and taking the details of the one that understood the stream.
// It has no file format rules of its own.
#pragma once

#include <cstdint>
#include <memory>
#include <vector>

#include "framework/upstream.h"

namespace sonvex {

class IFormatDetector {
public:
  virtual ~IFormatDetector() = default;
  // What was found, or the detector's own empty block.
  virtual std::shared_ptr<IAudioFormatDetails> AudioDetails() = 0;
  virtual std::shared_ptr<IVideoFormatDetails> VideoDetails() = 0;
  virtual std::shared_ptr<ISubtitleFormatDetails> SubtitleDetails() = 0;
  virtual std::shared_ptr<IContainerFormatDetails> ContainerDetails() = 0;
};

class TFormatDetector : public TUpStream, public IFormatDetector {
public:
  // The candidates of the fixed list (detectorcandidates.h); the flags go to the readers that
  // take them.
  static std::shared_ptr<TFormatDetector> Create(bool evoOption, bool tsOption);
  // The same with a given candidate list, by slot: nil entries are absent candidates. The chain
  // in slot 7 (if any) ends in `dtsWavReader`.
  static std::shared_ptr<TFormatDetector> CreateWith(const std::vector<UpStreamRef>& candidates,
                                                     const UpStreamRef& dtsWavReader);

  bool Write(SenderId sender, bool isHeader, const uint8_t* data, uint32_t size, int64_t position,
             bool flush) override;
  bool InitAudio(const std::string& format, uint32_t channels, uint32_t bitsPerSample,
                 uint32_t sampleRate, bool bigEndian, int64_t totalSize) override;
  bool InitVideo(const std::string& format, bool interlaced, bool pulldown, uint32_t width,
                 uint32_t height, uint32_t aspectX, uint32_t aspectY, uint32_t rateNumerator,
                 uint32_t rateDenominator, const std::string& description) override;
  bool InitSubtitle(const std::string& format) override;
  bool InitContainer(const std::string& format, int64_t totalSize, int64_t playTime) override;
  bool Finish() override;
  // The candidate slots may hold nil entries: the detector is the end of its own walk.
  UpStreamRef LastStage() override { return shared_from_this(); }

  std::shared_ptr<IAudioFormatDetails> AudioDetails() override;
  std::shared_ptr<IVideoFormatDetails> VideoDetails() override;
  std::shared_ptr<ISubtitleFormatDetails> SubtitleDetails() override;
  std::shared_ptr<IContainerFormatDetails> ContainerDetails() override;

  // The candidate in a slot, nil once dropped or when absent.
  UpStreamRef Candidate(uint32_t index) const { return GetSlot(index); }
  uint64_t BytesSeen() const { return bytesSeen; }
  // Bytes of leading junk in front of what was found; the working pass reads from there.
  uint64_t JunkSkipped() const { return junkSkipped; }

private:
  UpStreamRef GetSlot(uint32_t index) const;
  bool Alive(uint32_t index) const;
  void Drop(uint32_t index);
  void SetCandidates(const std::vector<UpStreamRef>& candidates);
  // The walk over the candidates with one block.
  bool Walk(bool isHeader, const uint8_t* data, uint32_t size, int64_t position, bool flush);
  // Looks behind leading junk when the front of the source held nothing; true when the
  // candidates started afresh behind the junk.
  bool LookPastJunk();

  uint64_t bytesSeen = 0;
  UpStreamRef dtsWavReader;
  UpStreamRef dtsWavHead;  // the first stage of the chain that ends in dtsWavReader

  // Leading junk. The front of the source is kept until it is judged; the candidates of the
  // fixed list can be made again (not those given to CreateWith).
  bool canRestart = false;
  bool evoOption = false, tsOption = false;
  bool junkJudged = false;
  uint64_t junkSkipped = 0;
  std::vector<uint8_t> front;
  std::string containerTag = "?";
  int64_t containerSize = 0, containerPlayTime = 0;
  bool audioAnnounced = false;
  int64_t audioTotalSize = 0;
};

}  // namespace sonvex
