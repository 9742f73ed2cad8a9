// TPushVideoSource: the end of a video chain that writes a Matroska file. It takes the muxing
// stages' samples (one frame per block, its presentation time as `position`, `flush` as the sync
// flag where the codec doesn't show it in the data), the codec private data of the announcement,
// the frame time, size and aspect (for VC-1 the sequence header and entry point in front of the
// first frame make the private data), and hands them to libavformat's matroska muxer in process.
// The file holds one video track of language "und". A stream that runs 999 blocks without a
// sync point can't be seeked in and is refused.
#pragma once

#include <cstdint>
#include <deque>
#include <memory>
#include <string>

#include "framework/upstream.h"

struct AVFormatContext;
struct AVStream;
struct AVPacket;

namespace sonvex {

class TPushVideoSource : public TUpStream {
public:
  // `noteCreated`, if given, learns the destination's name once the file exists, so that a
  // failed pass can remove it.
  using CreatedHook = void (*)(const std::string& name);
  static std::shared_ptr<TPushVideoSource> Create(const std::string& destination,
                                                  CreatedHook noteCreated = nullptr);
  TPushVideoSource(const std::string& destination, CreatedHook noteCreated);
  ~TPushVideoSource() override;

  uint32_t BlockSize() override { return 52428800; }
  bool InitVideo(const std::string& format, bool interlaced, bool pulldown, uint32_t width,
                 uint32_t height, uint32_t aspectX, uint32_t aspectY, uint32_t rateNumerator,
                 uint32_t rateDenominator, const std::string& description) override;
  bool Write(SenderId sender, bool isHeader, const uint8_t* data, uint32_t size, int64_t position,
             bool flush) override;
  bool Finish() override;

  // 100 ns units per frame, rounded: 24000/1001 gives 417083.
  static uint32_t AverageTimePerFrame(uint32_t rateNumerator, uint32_t rateDenominator);
  // The avcC record (AVCDecoderConfigurationRecord) from the reader's headers: each SPS and PPS
  // NAL unit behind a 2 byte big-endian length. Empty if the headers hold no SPS.
  static std::string AvcConfiguration(const std::string& headers);

private:
  bool Open(int codecId, const std::string& privateData);
  bool WritePacket(AVPacket* packet);
  bool Drain(size_t keep);
  void Close();

  std::string destination;
  CreatedHook noteCreated;
  std::string format;
  std::string vc1Header;  // VC-1: the private data waits for the first frame's entry point
  uint32_t width = 0, height = 0, aspectX = 0, aspectY = 0;
  uint32_t timePerFrame = 0;
  AVFormatContext* context = nullptr;
  AVStream* stream = nullptr;
  bool headerWritten = false;
  uint32_t blocksWithoutSync = 0;
  // Frames come in decoding order with presentation times. Matroska stores only the latter,
  // but libavformat wants a decoding time too: the smallest presentation time among a frame
  // and the frames that follow it within the reorder depth.
  std::deque<AVPacket*> pending;
  int64_t lastDts = INT64_MIN;
};

}  // namespace sonvex
