// TRawAnalyzer: works out what a headerless PCM file holds (channels, bits per sample, byte
// order, and whether it starts in the middle of a sample) by compressing the same data with a
// lossless encoder under every candidate layout at once: real audio compresses well only when
// it is read the right way, so the candidate with the least output wins. It has no output of its
// own; its findings go to its audio details. The sample rate is taken as given.
#pragma once

#include <array>
#include <cstdint>
#include <string>

#include "framework/smallstages.h"
#include "framework/upstream.h"

namespace sonvex {

class IRawAnalyzer {
public:
  virtual ~IRawAnalyzer() = default;
  virtual uint32_t Channels() const = 0;
};

// Layouts of a candidate: bytes per sample and leading bytes skipped. A skip is the hypothesis
// that the file is cut in the middle of a sample.
struct TRawLayout {
  uint32_t bytes;
  uint32_t skip;
};
constexpr TRawLayout kRawLayouts[] = {{1, 0}, {2, 0}, {2, 1}, {3, 0}, {3, 1}, {3, 2}};
constexpr uint32_t kRawLayoutCount = 6;
constexpr uint32_t kRawMaxChannels = 8;

class TRawAnalyzer : public TUpStream, public IRawAnalyzer {
public:
  // Suggestions are 0 when not given; `endian` 1 little, 2 big. With `strict`, the suggestions
  // are the result already, and candidates that contradict them are never built.
  TRawAnalyzer(uint32_t sampleRate, bool strict, uint32_t endian, uint32_t bits,
               uint32_t channels);
  static std::shared_ptr<TRawAnalyzer> Create(uint32_t sampleRate, bool strict, uint32_t endian,
                                              uint32_t bits, uint32_t channels) {
    return std::make_shared<TRawAnalyzer>(sampleRate, strict, endian, bits, channels);
  }

  bool InitAudio(const std::string& format, uint32_t channels, uint32_t bitsPerSample,
                 uint32_t sampleRate, bool bigEndian, int64_t totalSize) override;
  bool Write(SenderId sender, bool isHeader, const uint8_t* data, uint32_t size, int64_t position,
             bool flush) override;
  bool Finish() override;

  uint32_t Channels() const override { return channels; }
  // The number of candidates still running (for tests and the curious).
  uint32_t ActiveCandidates() const;
  // The candidates still running, one "channels/bits/le|be+skip: size" line each.
  std::string Standings() const;

private:
  struct TCandidate {
    uint32_t channels = 0;
    uint32_t bytes = 0;
    uint32_t skip = 0;
    bool bigEndian = false;
    uint32_t skipLeft = 0;
    UpStreamRef first;
    std::shared_ptr<TFileSimulator> sink;
  };

  void BuildCandidates();
  void Drop(TCandidate& candidate);
  void Analyse(bool final);
  // The three unknowns from the suggestions; true when all are then known.
  bool FillFromSuggestions();
  void Decide(const TCandidate& winner);
  void TakeEndian(bool bigEndian);
  void TakeLayout(uint32_t bytes, uint32_t skip);
  void TakeChannels(uint32_t channels);
  void CompareEndian();
  void CompareDepth();
  void CompareChannels();
  void SetDetails();
  void CannotTell();
  void ReportChannelCounts();
  bool Unknown() const { return channels == 0 || bytes == 0 || !endianKnown; }

  uint32_t sampleRate;
  bool strict;
  uint32_t suggestedEndian, suggestedBits, suggestedChannels;
  uint32_t channels = 0, bytes = 0, skip = 0;
  bool bigEndian = false, endianKnown = false;
  bool formatReceived = false;
  uint64_t bytesReceived = 0;
  uint64_t streamBytes = 0;
  bool candidatesBuilt = false;
  bool refused = false;  // a suggestion was contradicted: no guessing at the end
  std::array<TCandidate, kRawMaxChannels * kRawLayoutCount * 2> candidates{};
};

}  // namespace sonvex
