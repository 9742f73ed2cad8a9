// The reader factory of the transport stream parser. Each tag has one slot, filled by the family's
// reader as a prober (no gap file, junk before the first frame allowed). A family whose reader is
// not part of this build gets TTsStreamStandIn instead: it tells only what the PMT and the PES
// layer know (the codec and the first time stamp), so that the track is listed with its delay and
// can be demuxed, but nothing is checked.
#include "ts/tsreaders.h"

#include "framework/smallstages.h"
#include "ts/tspcmreader.h"

#if __has_include("ac3/ac3reader.h")
#include "ac3/ac3reader.h"
#define SONVEX_HAS_AC3_READER 1
#endif
#if __has_include("dts/dtsreader.h")
#include "dts/dtsreader.h"
#define SONVEX_HAS_DTS_READER 1
#endif
#if __has_include("thd/thdreader.h")
#include "thd/thdreader.h"
#define SONVEX_HAS_THD_READER 1
#endif
#if __has_include("mp2/mp2reader.h")
#include "mp2/mp2reader.h"
#define SONVEX_HAS_MP2_READER 1
#endif
#if __has_include("video/videoreaders.h")
#include "video/videoreaders.h"
#define SONVEX_HAS_VIDEO_READERS 1
#endif

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

UpStreamRef CreateTsStreamStandIn(const std::string& tag) {
  if (tag == "vc1") return StandIn(tag, "VC-1", true);
  if (tag == "h264") return StandIn(tag, "h264/AVC", true);
  if (tag == "mpeg2") return StandIn(tag, "MPEG2", true);
  if (tag == "mp2") return StandIn(tag, "MP2", false);
  if (tag == "ac3") return StandIn(tag, "AC3", false);
  if (tag == "dts") return StandIn(tag, "DTS", false);
  if (tag == "thd") return StandIn(tag, "TrueHD", false);
  return nullptr;
}

UpStreamRef CreateTsTrackReader(const std::string& tag, bool dtsOption) {
  (void)dtsOption;
  if (tag == "vc1" || tag == "h264" || tag == "mpeg2") {
#ifdef SONVEX_HAS_VIDEO_READERS
    if (UpStreamRef reader = CreateFrameCounter(tag)) return reader;
#endif
    return CreateTsStreamStandIn(tag);
  }
  if (tag == "mp2") {
#ifdef SONVEX_HAS_MP2_READER
    return TMp2Reader::Create("", "", false);
#else
    return CreateTsStreamStandIn(tag);
#endif
  }
  if (tag == "ac3") {
#ifdef SONVEX_HAS_AC3_READER
    return TAc3Reader::Create("", "", false);
#else
    return CreateTsStreamStandIn(tag);
#endif
  }
  if (tag == "dts") {
#ifdef SONVEX_HAS_DTS_READER
    return TDtsReader::Create("", "", false, dtsOption, false);
#else
    return CreateTsStreamStandIn(tag);
#endif
  }
  if (tag == "thd") {
#ifdef SONVEX_HAS_THD_READER
    return TThdReader::Create("", "", false, false);
#else
    return CreateTsStreamStandIn(tag);
#endif
  }
  if (tag == "ts/pcm" || tag == "m2ts/pcm") return TTsPcmReader::Create();
  return nullptr;
}

}  // namespace sonvex
