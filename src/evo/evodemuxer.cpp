// TEvoDemuxer: one track out of an EVO/VOB stream.
#include "evo/evodemuxer.h"

#include <atomic>

#include "framework/console.h"

namespace sonvex {

namespace {

// One line per run, whichever demuxer meets the first fault. Demuxers behind a fan-out run in
// threads of their own; the flag keeps the line single.
std::atomic<bool> authoringShown{false};

}  // namespace

void TEvoDemuxer::ResetAuthoringMessage() { authoringShown = false; }

TEvoDemuxer::TEvoDemuxer(bool wantVideo, bool wantAudio, uint32_t wantId, uint32_t trackNumber)
    : WantVideo(wantVideo), WantAudio(wantAudio), WantId(wantId), TrackNumber(trackNumber) {}

bool TEvoDemuxer::InitContainer(const std::string& format, int64_t, int64_t) {
  if (!valid) return false;
  if (format != "?" && format != "evo")
    return Fail("The evo demuxer received a non-supported data format.");
  if (!CheckUpStreams("evo demuxer")) return false;
  FormatSeen = true;
  return true;
}

bool TEvoDemuxer::Write(SenderId, bool, const uint8_t* data, uint32_t size, int64_t, bool flush) {
  if (!valid) return false;
  if (!CheckUpStreams("evo demuxer")) return false;
  if (!FormatSeen) return Fail("The evo demuxer didn't receive the format information.");
  if (!StoreData(0, data, size)) return Fail("The evo demuxer couldn't allocate enough memory.");
  flushBlock = flush;
  TEvoPacketWalk::TStop stop;
  uint32_t consumed = walk.Walk(BufferData(0), BufferFill(0), Flushing, *this, stop);
  if (stop == TEvoPacketWalk::TStop::BadCode) {
    container.containerValid = false;
    return Fail("This doesn't seem to be a valid EVO/VOB file.");
  }
  if (stop == TEvoPacketWalk::TStop::Invalid) Log(2, "The source file is invalid.");
  if (valid) RemoveData(0, consumed);
  return valid;
}

bool TEvoDemuxer::Finish() {
  if (!valid) return false;
  Flushing = true;
  Write(0, false, nullptr, 0, -1, false);
  if (!valid) return false;
  return FinishUpStreams();
}

void TEvoDemuxer::EvoWidened() {
  if (silent || authoringShown.exchange(true)) return;
  WriteLine(1, "This EVO/VOB file contains authoring faults. Will try to work around that.");
}

void TEvoDemuxer::EvoStream(const TEvoStream& stream) {
  if (!Wanted(stream)) return;
  if (!MessageDone) {
    MessageDone = true;
    const char* kind = WantVideo ? "video" : WantAudio ? "audio" : "subtitle";
    Log(0, std::string("Extracting ") + kind + " track number " + std::to_string(TrackNumber) +
               "...");
  }
  if (!FormatDone) {
    FormatDone = true;
    if (WantVideo)
      valid = NotifyVideo(stream.tag, false, false, 0, 0, 0, 0, 0, 0, "");
    else if (WantAudio)
      valid = NotifyAudio(stream.tag, 0, 0, 0, false, 0);
    else
      valid = NotifySubtitle(stream.tag);
  }
}

// Every stamped packet of a known stream moves the timeline; the wanted one's payload goes on.
bool TEvoDemuxer::EvoPayload(const TEvoStream& stream, const uint8_t* payload, uint32_t size,
                             int64_t pts) {
  int64_t stamp = pts == -1 ? -1 : timeline.Step(pts);
  if (!Wanted(stream) || !valid) return valid;
  valid = Send(false, payload, size, stamp == -1 ? -1 : stamp * 1000 / 9, flushBlock);
  return valid;
}

}  // namespace sonvex
