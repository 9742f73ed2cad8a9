// TEvoDemuxer: pulls one track out of an EVO or VOB stream and sends its elementary data on, each
// block with the time stamp of its packet on a continuous timeline. The packets are read by the
// same walk as TEvoParser's; the PTS of all streams of the file run through one timeline (that of
// the PES parser), so the tracks stay in step with each other and the wanted track's first time
// stamp tells its offset. The next stage learns the format from the announcement made when the
// first packet of the wanted stream is met.
#pragma once

#include <memory>

#include "evo/evopackets.h"
#include "framework/upstream.h"
#include "ts/pestimeline.h"

namespace sonvex {

class TEvoDemuxer : public TUpStream, private IEvoPacketSink {
public:
  // Both `wantVideo` and `wantAudio` false: a subtitle track. `trackNumber` is shown in messages.
  TEvoDemuxer(bool wantVideo, bool wantAudio, uint32_t wantId, uint32_t trackNumber);
  static std::shared_ptr<TEvoDemuxer> Create(bool wantVideo, bool wantAudio, uint32_t wantId,
                                             uint32_t trackNumber) {
    return std::make_shared<TEvoDemuxer>(wantVideo, wantAudio, wantId, trackNumber);
  }

  bool InitContainer(const std::string& format, int64_t totalSize, int64_t playTime) override;
  bool Write(SenderId sender, bool isHeader, const uint8_t* data, uint32_t size, int64_t position,
             bool flush) override;
  bool Finish() override;

  // The authoring line is shown once per run; a new run (in tests) may show it again.
  static void ResetAuthoringMessage();

private:
  bool Wanted(const TEvoStream& stream) const {
    return stream.isVideo == WantVideo && stream.isAudio == WantAudio && stream.id == WantId;
  }
  void EvoDsi(uint32_t start, uint32_t end) override { timeline.Dsi(start, end); }
  void EvoStream(const TEvoStream& stream) override;
  bool EvoPayload(const TEvoStream& stream, const uint8_t* payload, uint32_t size,
                  int64_t pts) override;
  void EvoPesDone() override { timeline.PacketDone(); }
  void EvoWidened() override;

  const bool WantVideo, WantAudio;
  const uint32_t WantId;
  const uint32_t TrackNumber;
  TEvoPacketWalk walk{true};
  TPesTimeline timeline;
  bool FormatSeen = false;
  bool MessageDone = false;
  bool FormatDone = false;
  bool Flushing = false;
  bool flushBlock = false;  // the `flush` of the Write under way
};

}  // namespace sonvex
