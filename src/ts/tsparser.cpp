// TTsParser: PAT, PMTs, stream classification and the private probing chains.
#include "ts/tsparser.h"

#include <algorithm>
#include <cstring>

#include "framework/bitreader.h"
#include "framework/smallstages.h"
#include "ts/tspacket.h"
#include "ts/tsreaders.h"
#include "video/h265reader.h"

namespace sonvex {

TTsParser::TTsParser(bool listPids, bool dtsOption)
    : readerFactory(CreateTsTrackReader), ListPids(listPids), DtsOption(dtsOption) {}

bool TTsParser::InitContainer(const std::string& format, int64_t totalSize, int64_t playTime) {
  if (!valid) return false;
  if (format != "?" && format != "m2ts")
    return Fail("The ts parser received a non-supported data format.");
  if (!CheckUpStreams("ts parser")) return false;
  formatSeen = true;
  if (format == "m2ts") containerDuration = playTime;
  valid = NotifyContainer("m2ts", totalSize, playTime);
  return valid;
}

bool TTsParser::Damaged(const std::string& what) {
  Log(2, "This TS/M2TS file seems to be damaged (" + what + ").", true);
  valid = false;
  return false;
}

bool TTsParser::Write(SenderId, bool, const uint8_t* data, uint32_t size, int64_t, bool) {
  if (!valid) return false;
  if (!CheckUpStreams("ts parser")) return false;
  if (!formatSeen) return Fail("The ts parser didn't receive the format information.");
  if (!StoreData(0, data, size)) return Fail("The ts parser couldn't allocate enough memory.");
  if (probeCount) {
    switch (ProbeTsPacketSize(BufferData(0), BufferFill(0), probeCount)) {
      case TsProbe::Wait: return true;
      case TsProbe::Invalid:
        container.containerValid = false;
        return Fail("This doesn't seem to be a valid TS/M2TS file.");
      case TsProbe::Ts: isM2ts = false; packetSize = 188; break;
      case TsProbe::M2ts: isM2ts = true; packetSize = 192; break;
    }
  }
  // Packets are parsed in place; the buffer is cut once at the end.
  const uint8_t* buffer = BufferData(0);
  uint32_t fill = BufferFill(0), offset = 0;
  while (valid && fill - offset >= packetSize) {
    packetPosition = bytesDone + offset;
    HandlePacket(buffer + offset);
    offset += packetSize;
  }
  RemoveData(0, offset);
  bytesDone += offset;
  if (!valid) container.containerValid = false;
  return valid;
}

bool TTsParser::Finish() {
  if (!valid) return false;
  Write(0, false, nullptr, 0, -1, false);
  if (!valid) return false;
  return FinishUpStreams();
}

bool TTsParser::HandlePacket(const uint8_t* packet) {
  uint32_t p = isM2ts ? 4 : 0;  // the M2TS time code prefix is not read
  if (packet[p] != kTsSync) return Damaged("sync byte missing");
  if (packet[p + 1] & 0x80) return Damaged("transport error indicated");
  currentPid = uint32_t(packet[p + 1] & 0x1F) << 8 | packet[p + 2];
  bool unitStart = packet[p + 1] & 0x40;
  uint8_t control = packet[p + 3];
  if (!(control & 0x10)) return true;       // no payload
  if (control & 0x20) p += packet[p + 4] + 1;  // adaptation field
  p += 4;
  if (p >= packetSize) return Damaged("adaptation field too big");
  if (currentPid == 0) return HandlePat(packet, p, unitStart);
  TsPidEntry& entry = pids[currentPid];
  if (entry.Kind == 1) return HandlePmt(entry, packet, p, unitStart);
  if (entry.Kind >= 2) {
    if (unitStart) entry.Started = true;
    if (unitStart && entry.FirstPts == -1) NoteFirstPts(entry, packet + p, packetSize - p);
    if (entry.Started && entry.Kind != 4)
      FeedPes(entry.Kind == 2, currentPid, packet + p, packetSize - p, unitStart);
  }
  return true;
}

// The time origin of a subtitle track is where a player's reading of the file puts time 0 for
// it: the track's own first PTS when the probing at the start of the file meets it (within
// kProbeBytes and kProbeTicks of the file's start), else the file's start. The file starts at the
// earliest first PTS of its audio and video streams; a subtitle stream's counts only where no
// audio or video has one, or where it starts less than a second ahead of them.
void TTsParser::NoteFirstPts(TsPidEntry& entry, const uint8_t* payload, uint32_t size) {
  entry.FirstPts = PesHeaderPts(payload, size);
  entry.FirstPosition = packetPosition;
  if (entry.FirstPts != -1) UpdateTimeOrigin();
}

void TTsParser::UpdateTimeOrigin() {
  static constexpr int64_t kProbeBytes = 5000000, kProbeTicks = 5 * 90000;
  if (subtitleReaders.empty()) return;
  int64_t media = -1, text = -1;
  for (const TsPidEntry& stream : pids) {
    if (stream.FirstPts == -1) continue;
    int64_t& low = stream.Kind == 4 ? text : media;
    if (low == -1 || stream.FirstPts < low) low = stream.FirstPts;
  }
  int64_t start = media;
  if (media == -1 || (text != -1 && media > text && media - text < 90000)) start = text;
  for (const auto& [pid, reader] : subtitleReaders) {
    const TsPidEntry& own = pids[pid];
    bool probed = own.FirstPts != -1 && own.FirstPosition < kProbeBytes &&
                  own.FirstPts - start < kProbeTicks;
    reader->SetTimeOrigin(probed ? own.FirstPts : start);
  }
}

// Every program of the PAT is taken: each PMT PID is marked.
bool TTsParser::HandlePat(const uint8_t* packet, uint32_t p, bool unitStart) {
  if (unitStart) {
    p += packet[p] + 1;  // pointer_field
    if (p + 8 > packetSize) return Damaged("pointer_field too big");
    if (packet[p] == 0) {  // table_id: program_association_section
      uint32_t sectionLength = uint32_t(packet[p + 1] & 0x0F) << 8 | packet[p + 2];
      if (sectionLength <= 0x3FD && sectionLength >= 13) {
        patFill = 0;
        patLeft = int32_t(sectionLength) - 5;  // the program loop and the CRC
        p += 8;
      }
    }
  }
  if (patLeft == 0) return true;
  uint32_t n = std::min(uint32_t(patLeft), packetSize - p);
  std::memcpy(pat.data() + patFill, packet + p, n);
  patFill += int32_t(n);
  patLeft -= int32_t(n);
  if (patLeft == 0) {
    patFill--;
    for (int32_t i = 0; i < patFill / 4; i++) {
      const uint8_t* program = pat.data() + 4 * i;
      if (Be16(program) != 0) pids[Be16(program + 2) & 0x1FFF].Kind = 1;  // program_map_PID
    }
    patFill = 0;
  }
  return true;
}

bool TTsParser::HandlePmt(TsPidEntry& entry, const uint8_t* packet, uint32_t p, bool unitStart) {
  if (unitStart) {
    p += packet[p] + 1;  // pointer_field
    if (p + 12 > packetSize) return Damaged("pointer_field too big");
    if (packet[p] == 2) {  // table_id: TS_program_map_section
      uint32_t left = uint32_t(packet[p + 1] & 0x0F) << 8 | packet[p + 2];
      if (left > 0x3FD || left < 6) left = 0;
      if (left && !entry.Section) entry.Section.reset(new uint8_t[kTsSectionSize]());
      entry.SectionFill = 0;
      // The header up to program_info_length and the program descriptors are skipped.
      uint32_t skip = (uint32_t(packet[p + 10] & 0x0F) << 8 | packet[p + 11]) + 12;
      entry.SectionLeft = uint16_t(left > skip ? left - skip : 0);
      if (p + skip > packetSize) return Damaged("ES_info too big");
      entry.ProgramHdmv = HasHdmvRegistration(packet + p + 12, skip - 12);
      p += skip;
    }
  }
  if (entry.SectionLeft == 0) return true;
  uint32_t n = std::min(uint32_t(entry.SectionLeft), packetSize - p);
  std::memcpy(entry.Section.get() + entry.SectionFill, packet + p, n);
  entry.SectionFill = uint16_t(entry.SectionFill + n);
  entry.SectionLeft = uint16_t(entry.SectionLeft - n);
  if (entry.SectionLeft != 0) return true;
  entry.SectionFill--;
  return ParseStreams(entry);
}

// The elementary stream loop of a whole PMT section; the CRC at its end is never taken for an entry.
bool TTsParser::ParseStreams(TsPidEntry& entry) {
  const uint8_t* s = entry.Section.get();
  uint32_t fill = entry.SectionFill, i = 0;
  while (valid && fill > 4) {
    uint8_t type = s[i];                                       // stream_type
    uint32_t pid = uint32_t(s[i + 1] & 0x1F) << 8 | s[i + 2];  // elementary_PID
    bool listing = ListPids && std::find(seenPids.begin(), seenPids.end(), pid) == seenPids.end();
    std::string text;
    if (listing) {
      seenPids.push_back(pid);
      text = "PID: " + std::to_string(currentPid) + "/" + std::to_string(pid) + " (" +
             HexByteText(type) + ")";
    }
    i += 3;
    fill -= 3;
    uint32_t esLength = uint32_t(s[i] & 0x0F) << 8 | s[i + 1];  // ES_info_length
    i += 2;
    fill -= 2;
    if (fill < esLength) break;
    const bool noDescriptors = esLength == 0;
    std::string reg;
    TsEntryFacts facts;
    while (esLength > 2 && uint32_t(s[i + 1]) + 2 <= esLength) {
      uint32_t length = s[i + 1];
      ReadTsEntryFacts(s[i], s + i + 2, length, facts);
      type = ApplyTsDescriptor(type, s[i], s + i + 2, length, reg, listing ? &text : nullptr);
      i += length + 2;
      esLength -= length + 2;
      fill -= length + 2;
    }
    i += esLength;
    fill -= esLength;
    if (reg.empty() && entry.ProgramHdmv) reg = "HDMV";
    Classify(pid, type, reg, listing ? &text : nullptr, noDescriptors, facts);
    if (listing) Log(0, text, true);
  }
  return valid;
}

bool TTsParser::Classify(uint32_t pid, uint8_t type, const std::string& reg, std::string* text,
                         bool noDescriptors, const TsEntryFacts& facts) {
  static constexpr const char* kKindNames[] = {"", "PMT", "video", "audio", "subtitle"};
  TsStreamClass found = ClassifyTsStream(type, reg, true, noDescriptors);
  if (found.kind == TsClass::None) return true;
  bool isVideo = found.kind == TsClass::Video;
  uint8_t kind = isVideo ? 2 : found.kind == TsClass::Audio ? 3 : 4;
  TsPidEntry& entry = pids[pid];
  std::string prefix = "The program type (" + std::to_string(pid) + ") changes from ";
  if (entry.Kind == 0) {
    entry.Kind = kind;
    entry.StreamType = type;
    if (kind == 4)
      AddSubtitle(pid, found.tag, facts.language);
    else if (*found.tag)
      AddTrack(isVideo, pid, found.tag, "", facts.EnhancementLayer(type, pid));
  } else if (entry.Kind == kind) {
    if (entry.StreamType != type) {
      Log(2, prefix + HexByteText(entry.StreamType) + " to " + HexByteText(type) + ".");
      valid = false;
      return false;
    }
  } else {
    Log(2, prefix + kKindNames[entry.Kind] + " to " + kKindNames[kind] + ".", true);
    valid = false;
    return false;
  }
  if (text) *text += found.text;
  return true;
}

// The private chain of one track: TPesParser (raw time stamps), the reader, TFileSimulator.
void TTsParser::AddTrack(bool isVideo, uint32_t pid, const std::string& tag,
                         const std::string& description, bool dolbyVisionEl) {
  for (const TsTrack& track : tracks)
    if (track.IsVideo == isVideo && track.Pid == pid) return;
  TsTrack track;
  track.IsVideo = isVideo;
  track.Pid = pid;
  track.Description = description;
  track.DolbyVisionEl = dolbyVisionEl;
  track.ByPayload = tag == "?";
  if (!track.ByPayload) MakeChain(track, tag);
  tracks.push_back(std::move(track));
}

void TTsParser::MakeChain(TsTrack& track, const std::string& tag) {
  UpStreamRef reader = readerFactory(tag, DtsOption);
  if (!reader) {
    Log(2, "The Ts found an unexpected audio/video format (" + tag + ").");
    return;
  }
  if (track.DolbyVisionEl)
    if (auto hevc = std::dynamic_pointer_cast<Th265Reader>(reader)) hevc->SetEnhancementLayer(true);
  track.Chain = TPesParser::Create(true);
  track.Chain->SetUpStream(reader);
  reader->SetUpStream(TFileSimulator::Create());
  track.Chain->SetSilent(true);
  if (track.IsVideo)
    reader->InitVideo(tag, false, false, 0, 0, 0, 0, 0, 0, "");
  else
    reader->InitAudio(tag, 0, 0, 0, false, 0);
}

void TTsParser::AddSubtitle(uint32_t pid, const std::string& tag, const std::string& language) {
  auto reader = TPgsReader::Create();
  reader->SetUpStream(TFileSimulator::Create());
  reader->SetSilent(true);
  reader->InitSubtitle(tag);
  reader->SubtitleDetails()->SetLanguage(language);
  subtitleReaders.push_back({pid, reader});
  UpdateTimeOrigin();
  AnnounceContainer();
  AddSubtitleTrack(int32_t(pid), reader, 0);
}

void TTsParser::AnnounceContainer() {
  if (containerAnnounced) return;
  containerAnnounced = true;
  uint32_t duration = uint32_t(containerDuration / 90);
  if (isM2ts)
    SetContainerDetails("m2ts", "M2TS", duration);
  else
    SetContainerDetails("ts", "TS", duration);
}

// Feeds one packet's payload to the track's chain until the reader knows the format and a time
// stamp has come; then the track is reported with its delay.
void TTsParser::FeedPes(bool isVideo, uint32_t pid, const uint8_t* data, uint32_t size,
                        bool unitStart) {
  TsTrack* track = nullptr;
  bool firstOfKind = true;
  for (TsTrack& candidate : tracks) {
    if (candidate.IsVideo != isVideo) continue;
    if (candidate.Pid == pid) {
      track = &candidate;
      break;
    }
    firstOfKind = false;
  }
  if (!track || track->Reported) return;
  // A private stream gets its reader from the first PES payload that shows a known sync word.
  if (track->ByPayload && !track->Chain && unitStart) {
    std::string tag = TsPayloadTag(data, size);
    if (!tag.empty()) MakeChain(*track, tag);
  }
  if (!track->Chain || !track->Chain->IsValid()) return;
  int64_t firstPts = track->Chain->FirstPts();
  if (firstPts != -1 && track->FirstPts == -1) track->FirstPts = firstPts;
  if (unitStart) track->Chain->Write(0, false, nullptr, 0, -1, true);
  if (!track->Chain->Write(0, false, data, size, -1, false)) return;

  UpStreamRef reader = track->Chain->GetUpStream(0);
  auto initial = Query<IInitialDelay>(reader);
  if (!reader || track->FirstPts == -1 || !initial || !initial->HasTimestamps()) return;
  int32_t delay = initial->InitialDelay() + int32_t((track->FirstPts & 0xFFFFFFF) / 90);
  auto audioDetails = reader->AudioDetails();
  if (audioDetails->IsValid()) {
    AnnounceContainer();
    // The track's own text is empty for transport streams; the reader's description stays.
    AddAudioTrack(int32_t(pid), reader, delay);
    track->Reported = true;
  } else if (reader->VideoDetails()->IsValid()) {
    AnnounceContainer();
    AddVideoTrack(int32_t(pid), reader, delay);
    if (firstOfKind) container.SetInitialDelay(delay);
    track->Reported = true;
  }
}

}  // namespace sonvex
