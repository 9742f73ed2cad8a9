// TEvoParser: the tracks of an EVO/VOB file, their formats and delays.
#include "evo/evoparser.h"

#include "evo/evoreaders.h"
#include "framework/smallstages.h"

namespace sonvex {

namespace {

// Where a video stream can begin in `data`: at an access unit delimiter (H.264), a sequence
// header (VC-1), a sequence header or picture (MPEG-2); `size` when nowhere. Other streams begin
// anywhere.
uint32_t VideoStartOffset(const std::string& tag, const uint8_t* data, uint32_t size) {
  auto startsHere = [&](uint8_t code) {
    if (tag == "h264") return (code & 0x1F) == 0x09;
    if (tag == "vc1") return code == 0x0F;
    if (tag == "mpeg2") return code == 0xB3 || code == 0x00;
    return true;
  };
  if (tag != "h264" && tag != "vc1" && tag != "mpeg2") return 0;
  for (uint32_t i = 0; i + 3 < size; i++) {
    if (data[i] != 0 || data[i + 1] != 0 || data[i + 2] != 1 || !startsHere(data[i + 3])) continue;
    return i > 0 && data[i - 1] == 0 ? i - 1 : i;
  }
  return size;
}

}  // namespace

TEvoParser::TEvoParser(bool dtsOption) : readerFactory(CreateEvoTrackReader), DtsOption(dtsOption) {}

bool TEvoParser::InitContainer(const std::string& format, int64_t totalSize, int64_t playTime) {
  if (!valid) return false;
  if (format != "?" && format != "evo")
    return Fail("The evo parser received a non-supported data format.");
  if (!CheckUpStreams("evo parser")) return false;
  FormatSeen = true;
  // A source stage that didn't take the file for an EVO/VOB gives its size, not a play time.
  if (format == "evo") ContainerDuration = playTime;
  valid = NotifyContainer("evo", totalSize, playTime);
  return valid;
}

bool TEvoParser::Write(SenderId, bool, const uint8_t* data, uint32_t size, int64_t, bool) {
  if (!valid) return false;
  if (!CheckUpStreams("evo parser")) return false;
  if (!FormatSeen) return Fail("The evo parser didn't receive the format information.");
  if (Ended) return true;
  if (!StoreData(0, data, size)) return Fail("The evo parser couldn't allocate enough memory.");
  TEvoPacketWalk::TStop stop;
  uint32_t consumed = walk.Walk(BufferData(0), BufferFill(0), Flushing, *this, stop);
  if (stop == TEvoPacketWalk::TStop::BadCode) {
    // Foreign data behind tracks that were found (a file of another kind joined on) ends the
    // walk but keeps the findings: the working pass stops there with the message.
    if (containerAnnounced) {
      Ended = true;
      SetBufferFill(0, 0);
      return true;
    }
    container.containerValid = false;
    return Fail("This doesn't seem to be a valid EVO/VOB file.");
  }
  if (stop == TEvoPacketWalk::TStop::Invalid) Log(2, "The source file is invalid.");
  RemoveData(0, consumed);
  return valid;
}

// A stream too short for its reader to be sure before the end (a single picture) is reported when
// the reader has seen the end.
bool TEvoParser::Finish() {
  if (!valid) return false;
  Flushing = true;
  Write(0, false, nullptr, 0, -1, false);
  if (!valid) return false;
  for (EvoTrack& track : Tracks) {
    if (track.Reported || !track.Chain || !track.Chain->IsValid()) continue;
    if (track.Chain->Finish()) TryReport(track);
  }
  return FinishUpStreams();
}

// Units are laid end to end on a running time that begins at the first unit's start PTM; the PTS
// of each unit is moved onto it. A DSI packet repeated with the same start changes nothing.
void TEvoParser::EvoDsi(uint32_t start, uint32_t end) {
  if (!FirstDsi && start == DsiStart) return;
  DsiStart = start;
  DsiEnd = end;
  while (DsiStart > DsiEnd) DsiEnd += 0xF00000000LL;
  if (FirstDsi) {
    FirstDsi = false;
    DsiBase = DsiStart;
  } else {
    DsiBase = DsiTotal;
  }
  DsiTotal = DsiBase + DsiEnd - DsiStart;
  PtsOffset = uint32_t(DsiBase - DsiStart);
}

TEvoParser::EvoTrack* TEvoParser::FindTrack(const TEvoStream& stream) {
  for (EvoTrack& track : Tracks)
    if (track.Stream.Same(stream)) return &track;
  return nullptr;
}

// The first packet of a stream makes its record and its private chain; the first to arrive of
// two streams with the same class and id (MPEG-2 0xE0 and H.264 0xE2) fixes the reader.
void TEvoParser::EvoStream(const TEvoStream& stream) {
  if (FindTrack(stream)) return;
  EvoTrack track;
  track.Stream = stream;
  UpStreamRef reader = readerFactory(stream.tag, DtsOption);
  if (!reader) {
    Log(2, "The evo parser found an unexpected audio/video/subtitle format.");
  } else {
    reader->SetUpStream(TFileSimulator::Create());
    reader->SetSilent(true);
    if (stream.isVideo)
      reader->InitVideo(stream.tag, false, false, 0, 0, 0, 0, 0, 0, "");
    else if (stream.isAudio)
      reader->InitAudio(stream.tag, 0, 0, 0, false, 0);
    else
      reader->InitSubtitle(stream.tag);
    track.Chain = reader;
  }
  Tracks.push_back(std::move(track));
}

void TEvoParser::AnnounceContainer() {
  if (containerAnnounced) return;
  containerAnnounced = true;
  SetContainerDetails("evo", walk.IsVob() ? "VOB" : "EVO", uint32_t(ContainerDuration / 90));
}

// Feeds a track's reader until the track can be reported.
bool TEvoParser::EvoPayload(const TEvoStream& stream, const uint8_t* payload, uint32_t size,
                            int64_t pts) {
  EvoTrack* track = FindTrack(stream);
  if (!track || track->Reported || !track->Chain || !track->Chain->IsValid()) return true;
  if (!track->Aligned) {
    // A file cut out of a title may begin inside a picture: its reader starts at the first unit
    // that a stream can begin with.
    uint32_t start = VideoStartOffset(stream.tag, payload, size);
    if (start == size) return true;
    payload += start;
    size -= start;
    track->Aligned = true;
  }
  if (pts != -1) {
    pts = uint32_t(pts + PtsOffset);
    if (track->FirstPts == -1) track->FirstPts = pts;
  }
  if (track->Chain->Write(0, false, payload, size, pts == -1 ? -1 : pts * 1000 / 9, false))
    TryReport(*track);
  return true;
}

// A track is reported once its reader knows the format and a time stamp has come, with its delay:
// the reader's initial delay plus the first PTS (in ms, from the low 28 bits). Video track 0 sets
// the base that all delays are taken relative to. Subtitles need no initial delay.
void TEvoParser::TryReport(EvoTrack& track) {
  const UpStreamRef& reader = track.Chain;
  if (track.Reported || !reader || track.FirstPts == -1) return;
  const int32_t id = int32_t(track.Stream.id);
  const int32_t ptsDelay = int32_t((track.FirstPts & 0xFFFFFFF) / 90);
  if (reader->SubtitleDetails()->IsValid()) {
    AnnounceContainer();
    AddSubtitleTrack(id, reader, ptsDelay);
    track.Reported = true;
    return;
  }
  auto initial = Query<IInitialDelay>(reader);
  if (!initial || !initial->HasTimestamps()) return;
  const int32_t delay = initial->InitialDelay() + ptsDelay;
  if (reader->AudioDetails()->IsValid()) {
    AnnounceContainer();
    AddAudioTrack(id, reader, delay);
    track.Reported = true;
  } else if (reader->VideoDetails()->IsValid()) {
    AnnounceContainer();
    AddVideoTrack(id, reader, delay);
    if (id == 0) container.SetInitialDelay(delay);
    track.Reported = true;
  }
}

}  // namespace sonvex
