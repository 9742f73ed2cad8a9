// The reader factory of the transport stream parser. Each tag has one slot. A stream family whose
// reader is not part of the program yet gets TTsStreamStandIn: it tells only what the PMT and the
// PES layer know (the codec and the first time stamp), so that the track is listed with its delay
// and can be demuxed, but nothing is checked.
#include "ts/tsreaders.h"

#include "framework/smallstages.h"
#include "ts/tspcmreader.h"

namespace sonvex {

namespace {

class TTsStreamStandIn : public TUpStream, public IInitialDelay {
public:
  TTsStreamStandIn(const std::string& tag, const std::string& name, bool isVideo)
      : tag(tag), name(name), isVideo(isVideo) {}

  bool InitAudio(const std::string&, uint32_t, uint32_t, uint32_t, bool, int64_t) override {
    return true;
  }
  bool InitVideo(const std::string&, bool, bool, uint32_t, uint32_t, uint32_t, uint32_t, uint32_t,
                 uint32_t, const std::string&) override {
    return true;
  }
  bool Write(SenderId, bool, const uint8_t*, uint32_t size, int64_t position, bool) override {
    if (size == 0) return true;
    if (isVideo) {
      video.videoValid = true;
      video.format = tag;
      video.name = name;
      video.description = name;
    } else {
      audio.audioValid = true;
      audio.format = tag;
      audio.name = name;
      audio.description = name;
    }
    if (position != -1) sawPosition = true;
    return true;
  }
  bool HasTimestamps() override { return sawPosition; }
  int32_t InitialDelay() override { return 0; }

private:
  std::string tag, name;
  bool isVideo;
  bool sawPosition = false;
};

UpStreamRef StandIn(const std::string& tag, const char* name, bool isVideo) {
  return std::make_shared<TTsStreamStandIn>(tag, name, isVideo);
}

}  // namespace

UpStreamRef CreateTsTrackReader(const std::string& tag, bool dtsOption) {
  (void)dtsOption;
  if (tag == "vc1") return StandIn(tag, "VC-1", true);           // slot: TVc1Reader
  if (tag == "h264") return StandIn(tag, "h264/AVC", true);      // slot: Th264Reader
  if (tag == "mpeg2") return StandIn(tag, "MPEG2", true);        // slot: TMpeg2Reader
  if (tag == "mp2") return StandIn(tag, "MP2", false);           // slot: TMp2Reader
  if (tag == "ac3") return StandIn(tag, "AC3", false);           // slot: TAc3Reader
  if (tag == "dts") return StandIn(tag, "DTS", false);           // slot: TDtsReader(dtsOption)
  if (tag == "thd") return StandIn(tag, "TrueHD", false);        // slot: TThdReader
  if (tag == "ts/pcm" || tag == "m2ts/pcm") return TTsPcmReader::Create();
  return nullptr;
}

}  // namespace sonvex
