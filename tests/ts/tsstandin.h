// A test double for the track readers of the TS parser: it knows only what the PMT and the PES
// layer tell (the codec and whether a time stamp came), so synthetic streams with no real audio
// or video in them are listed with their codec and delay.
#pragma once

#include <memory>
#include <string>

#include "framework/smallstages.h"

namespace sonvex::tstest {


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

inline UpStreamRef StandIn(const std::string& tag, const char* name, bool isVideo) {
  return std::make_shared<TTsStreamStandIn>(tag, name, isVideo);
}


inline UpStreamRef CreateTsStreamStandIn(const std::string& tag) {
  if (tag == "vc1") return StandIn(tag, "VC-1", true);
  if (tag == "h264") return StandIn(tag, "h264/AVC", true);
  if (tag == "mpeg2") return StandIn(tag, "MPEG2", true);
  if (tag == "mp2") return StandIn(tag, "MP2", false);
  if (tag == "ac3") return StandIn(tag, "AC3", false);
  if (tag == "dts") return StandIn(tag, "DTS", false);
  if (tag == "thd") return StandIn(tag, "TrueHD", false);
  return nullptr;
}

}  // namespace sonvex::tstest
