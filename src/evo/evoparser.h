// TEvoParser: finds out what an EVO (HD DVD) or VOB (DVD) program stream holds. It walks the
// packets, lays the units that DSI packets describe end to end on one running time, and runs a
// private chain per stream (the stream's reader, TFileSimulator) until the reader has understood
// the format and a time stamp was seen; then the track goes into the stage's track lists, sorted
// by id per class, with its delay. It sends no data to its next stage.
#pragma once

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "evo/evopackets.h"
#include "framework/upstream.h"

namespace sonvex {

class TEvoParser : public TUpStream, private IEvoPacketSink {
public:
  explicit TEvoParser(bool dtsOption);
  // `dtsOption` is kept for each DTS reader made.
  static std::shared_ptr<TEvoParser> Create(bool dtsOption = false) {
    return std::make_shared<TEvoParser>(dtsOption);
  }

  // Where the readers of the private chains come from; CreateEvoTrackReader unless told otherwise.
  using ReaderFactory = std::function<UpStreamRef(const std::string& tag, bool dtsOption)>;
  void SetReaderFactory(ReaderFactory factory) { readerFactory = std::move(factory); }

  uint32_t BlockSize() override { return 314572800; }
  bool InitContainer(const std::string& format, int64_t totalSize, int64_t playTime) override;
  bool Write(SenderId sender, bool isHeader, const uint8_t* data, uint32_t size, int64_t position,
             bool flush) override;
  bool Finish() override;

  bool IsVob() const { return walk.IsVob(); }

private:
  struct EvoTrack {
    TEvoStream Stream;
    UpStreamRef Chain;  // the reader at the head of the private chain
    bool Reported = false;
    bool Aligned = false;   // the reader has been given the stream's first unit
    int64_t FirstPts = -1;  // 90 kHz, on the running time
  };

  void EvoDsi(uint32_t start, uint32_t end) override;
  void EvoStream(const TEvoStream& stream) override;
  bool EvoPayload(const TEvoStream& stream, const uint8_t* payload, uint32_t size,
                  int64_t pts) override;
  EvoTrack* FindTrack(const TEvoStream& stream);
  void TryReport(EvoTrack& track);
  void AnnounceContainer();

  ReaderFactory readerFactory;
  const bool DtsOption;
  TEvoPacketWalk walk{false};
  bool FormatSeen = false;
  int64_t ContainerDuration = 0;
  bool containerAnnounced = false;
  std::vector<EvoTrack> Tracks;
  int64_t DsiStart = 0, DsiEnd = 0;
  int64_t DsiBase = 0, DsiTotal = 0;
  uint32_t PtsOffset = 0;
  bool FirstDsi = true;
  bool Flushing = false;
  bool Ended = false;  // foreign data followed the tracks found
};

}  // namespace sonvex
