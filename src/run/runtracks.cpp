// RunTracks: builds the branches of one pass behind one source stage and runs them.
#include "run/runtracks.h"

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <filesystem>
#include <fstream>

#include "evo/evodemuxhead.h"
#include "evo/evorepairer.h"
#include "files/destfile.h"
#include "files/sourcefiles.h"
#include "framework/smallstages.h"
#include "mux/pushvideosource.h"
#include "run/audiochain.h"
#include "run/cmdline.h"
#include "run/naming.h"
#include "ac3/gaptracker.h"
#include "pcm/stripto16bit.h"
#include "ts/tsdemuxhead.h"
#include "video/h264muxer.h"
#include "video/mpeg2muxer.h"
#include "video/vc1muxer.h"
#include "video/videoreaders.h"

namespace sonvex {
namespace {

// "%check%" destinations write nothing, not even a gap file.
bool IsCheckDestination(const std::string& dest) { return LowerCase(dest).rfind("%check%", 0) == 0; }

// The PCM gap tracker writes destination + ".gaps"; on the pass that uses that file it must know
// its content, or it would track the same gaps once more. A check writes and reads no gap file.
void ReadPcmGapFile(const TAction& action, std::string& name, std::string& data) {
  if (action.dest.empty() || IsCheckDestination(action.dest)) return;
  name = action.dest + ".gaps";
  std::ifstream in(name, std::ios::binary);
  if (in) data.assign(std::istreambuf_iterator<char>(in), {});
}

// Container families register their demux heads here as they exist.
UpStreamRef MakeContainerHead(const std::string& tag, const TTrackRef& track,
                              const TOptions& options, const TAction& action) {
  if (tag == "ts" || tag == "m2ts") {
    TTsHeadRequest request;
    request.pid = track.entry.id;
    request.trackNumber = action.track;
    request.ignoreDiscontinuity = options.ignoreDiscontinuity;
    request.isVideo = track.kind == TTrackKind::Video;
    if (!request.isVideo && track.entry.details)
      request.audioFormat = track.entry.details->AudioDetails()->Format();
    request.check = IsCheckDestination(action.dest);
    ReadPcmGapFile(action, request.gapFileName, request.gapData);
    return BuildTsDemuxHead(request);
  }
  if (tag == "evo" || tag == "vob") {
    TEvoHeadRequest request;
    request.isVideo = track.kind == TTrackKind::Video;
    request.isAudio = track.kind == TTrackKind::Audio;
    request.id = uint32_t(track.entry.id);
    request.trackNumber = action.track;
    if (request.isAudio && track.entry.details)
      request.audioFormat = track.entry.details->AudioDetails()->Format();
    ReadPcmGapFile(action, request.gapFileName, request.gapData);
    return BuildEvoDemuxHead(request);
  }
  return nullptr;
}

std::string TrackPrefix(TTrackKind kind, int32_t number) {
  char text[16];
  char letter = kind == TTrackKind::Video ? 'v' : kind == TTrackKind::Audio ? 'a' : 's';
  std::snprintf(text, sizeof text, "%c%02d", letter, int(number % 100));
  return text;
}

// A ".gaps" file beside the source (for a bare stream) or beside the destination, read by the
// gap tracker's one reader; false ends the chain building.
bool ReadGapFile(IUpStream& logger, const std::string& fileName, const std::string& destination,
                 std::string& gapList) {
  std::error_code error;
  if (!std::filesystem::is_regular_file(fileName, error)) return true;
  return LoadGapDescription(logger, fileName, destination, gapList);
}

// A ".gaps" file beside a ".mkv" destination: the frame corrections of an earlier pass.
bool ReadVideoGapFile(IUpStream& logger, const std::string& fileName, std::string& gapData) {
  std::error_code error;
  if (!std::filesystem::is_regular_file(fileName, error)) return true;
  logger.Log(0, "Video gap description file detected, will be used for muxing...");
  std::ifstream in(fileName, std::ios::binary);
  if (!in) {
    logger.Log(2, "Opening video gap description file failed.");
    return false;
  }
  std::string content((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  if (content.size() % 16 != 0) {
    logger.Log(2, "Video gap description file seems to be invalid.");
    return false;
  }
  gapData = content;
  return true;
}

// Reader, muxing stage and Matroska writer of a ".mkv" destination behind `head`.
bool BuildMkvChain(const UpStreamRef& head, const std::string& codec,
                   const std::shared_ptr<IVideoFormatDetails>& details, const TAction& action) {
  UpStreamRef muxer;
  if (codec == "h264")
    muxer = Th264Muxer::Create(action.seekToIFrames);
  else if (codec == "vc1")
    muxer = TVc1Muxer::Create();
  else if (codec == "mpeg2")
    muxer = TMpeg2Muxer::Create();
  if (!muxer) {
    head->Log(2, "Unsupported video format.");
    return false;
  }
  std::string gapFile = action.dest + ".gaps", gapData;
  if (!ReadVideoGapFile(*head, gapFile, gapData)) return false;
  TVideoReaderChain readers =
      BuildVideoReader(codec, action, action.track, details->Pulldown(), details->Interlaced(),
                       true, gapFile, gapData);
  return head->AppendUpStream(readers.head) && head->AppendUpStream(muxer) &&
         head->AppendUpStream(TPushVideoSource::Create(action.dest, NoteCreatedFile)) &&
         head->AppendUpStream(TFileSimulator::Create());
}

}  // namespace

int32_t LastTrackNumber(const TSourceInfo& info) {
  if (!info.container) return info.trackBase + 1;
  return info.trackBase + info.container->VideoCount() + info.container->AudioCount() +
         info.container->SubtitleCount();
}

TTrackRef FindTrack(const TSourceInfo& info, int32_t track) {
  TTrackRef ref;
  if (!info.container) {
    if (track != info.trackBase + 1) return ref;
    if (info.audioDetails && info.audioDetails->IsValid()) ref.kind = TTrackKind::Audio;
    if (info.videoDetails && info.videoDetails->IsValid()) ref.kind = TTrackKind::Video;
    return ref;
  }
  if (track <= info.trackBase) {
    if (info.joinedContainer && track == 1) ref.kind = TTrackKind::Joined;
    else if (!info.chapterText.empty() && track == info.trackBase) ref.kind = TTrackKind::Chapters;
    return ref;
  }
  int32_t n = track - info.trackBase - 1;
  const auto& c = *info.container;
  if (n < c.VideoCount()) {
    ref.kind = TTrackKind::Video;
    ref.index = n;
    c.GetVideo(n, ref.entry);
  } else if ((n -= c.VideoCount()) < c.AudioCount()) {
    ref.kind = TTrackKind::Audio;
    ref.index = n;
    c.GetAudio(n, ref.entry);
  } else if ((n -= c.AudioCount()) < c.SubtitleCount()) {
    ref.kind = TTrackKind::Subtitle;
    ref.index = n;
    c.GetSubtitle(n, ref.entry);
  }
  return ref;
}

bool RunTracks(TOptions& options, const TSourceInfo& info, TPassResult& result) {
  const std::string containerTag = info.container ? info.container->Format() : "";
  auto trackAudio = [&](const TTrackRef& ref) {
    return info.container ? ref.entry.details->AudioDetails() : info.audioDetails;
  };
  auto trackVideo = [&](const TTrackRef& ref) {
    return info.container ? ref.entry.details->VideoDetails() : info.videoDetails;
  };

  // Frame rate of the source: that of its first valid video track, else film rate.
  uint32_t rateNum = 24000, rateDen = 1001;
  std::shared_ptr<IVideoFormatDetails> firstVideo;
  if (info.container && info.container->VideoCount() > 0) {
    TTrackEntry entry;
    info.container->GetVideo(0, entry);
    firstVideo = entry.details->VideoDetails();
  } else if (!info.container) {
    firstVideo = info.videoDetails;
  }
  if (firstVideo && firstVideo->IsValid() && firstVideo->RateNumerator()) {
    rateNum = firstVideo->RateNumerator();
    rateDen = firstVideo->RateDenominator();
  }
  int64_t limit = int64_t(options.megabytes) * 1024 * 1024;
  auto source = TSourceFiles::Create(options.sources, rateNum, rateDen, limit);
  if (!source->IsValid()) return false;
  if (info.junkBytes > 0) source->Seek(info.junkBytes);

  // Track numbers and destinations are checked ahead of any building.
  std::vector<TTrackRef> refs;
  for (const TAction& action : options.actions) {
    TTrackRef ref = FindTrack(info, action.track);
    std::string ext = FileExtension(action.dest);
    bool ok = true;
    switch (ref.kind) {
      case TTrackKind::None:
        source->Log(2, "The source file doesn't contain a track with the number " +
                           std::to_string(action.track) + ".");
        return false;
      case TTrackKind::Subtitle:
        if (ext != ".sup") {
          source->Log(2, "This subtitle conversion is not supported.");
          return false;
        }
        break;
      case TTrackKind::Joined:
        if (!ExtensionIn(ext, ".evo|.vob")) {
          source->Log(2, "This container conversion is not supported.");
          return false;
        }
        break;
      case TTrackKind::Chapters:
        if (ext != ".txt") {
          source->Log(2, "This chapter conversion is not supported.");
          return false;
        }
        break;
      case TTrackKind::Audio:
        ok = CheckAudioDestination(*source, ext, trackAudio(ref)->Format());
        break;
      case TTrackKind::Video:
        ok = CheckVideoDestination(*source, ext, trackVideo(ref)->Format());
        break;
    }
    if (!ok) return false;
    refs.push_back(ref);
  }

  std::vector<UpStreamRef> heads;
  std::vector<std::vector<UpStreamRef>> stripStages(options.actions.size());
  // The reader of each video action, by track number: it counts the frames of its track.
  std::vector<std::pair<int32_t, UpStreamRef>> videoReaders;
  for (size_t i = 0; i < options.actions.size(); i++) {
    TAction& action = options.actions[i];
    const TTrackRef& ref = refs[i];
    if (ref.kind == TTrackKind::Chapters) {
      TDestFile::Create(action.dest, info.chapterText);
      continue;
    }
    if (ref.kind == TTrackKind::Joined) {
      // The joined EVO/VOB files are rewritten into one, with their time stamps laid end to end.
      UpStreamRef head = TEvoRepairer::Create();
      if (!head->AppendUpStream(TDestFile::Create(action.dest))) return false;
      heads.push_back(head);
      continue;
    }
    UpStreamRef head;
    if (!info.container) {
      head = TPassThrough::Create();
    } else if (ref.kind == TTrackKind::Subtitle &&
               (containerTag == "ts" || containerTag == "m2ts")) {
      source->Log(2, "TS/M2TS subtitles are not supported yet.");
      return false;
    } else {
      head = MakeContainerHead(containerTag, ref, options, action);
      if (!head) {
        source->Log(2, "Unknown container.");
        return false;
      }
    }
    head->SetLogPrefix(TrackPrefix(ref.kind, action.track));
    head->SetDelay(1, ref.entry.delay);
    if (action.delay) head->SetDelay(0, action.delay);

    if (ref.kind == TTrackKind::Audio) {
      TAudioBuild build;
      build.options = &options;
      build.isContainer = info.container != nullptr;
      // A check run reads no gap file; the readers only report the gaps of its "%check%" names.
      build.gapFileName = action.dest + ".gaps";
      bool ok = true;
      if (!IsCheckDestination(action.dest)) {
        if (!info.container)
          ok = ReadGapFile(*head, options.sources.front() + ".gaps", action.dest, build.gapList);
        if (ok && build.gapList.empty())
          ok = ReadGapFile(*head, action.dest + ".gaps", action.dest, build.gapList);
      }
      if (!ok) return false;
      if (!BuildAudioChain(head, trackAudio(ref), action, build)) return false;
      stripStages[i] = build.stripStages;
    } else if (ref.kind == TTrackKind::Video) {
      auto details = trackVideo(ref);
      std::string codec = details->Format();
      if (FileExtension(action.dest) == ".mkv") {
        if (!BuildMkvChain(head, codec, details, action)) return false;
        heads.push_back(head);
        continue;
      }
      TVideoReaderChain readers =
          BuildVideoReader(codec, action, action.track, details->Pulldown(),
                           details->Interlaced(), false, "", "");
      if (!readers.head) {
        head->Log(2, "Internal error - unknown video input format!");
        return false;
      }
      if (!head->AppendUpStream(readers.head) ||
          !head->AppendUpStream(TDestFile::Create(action.dest)))
        return false;
      videoReaders.push_back({action.track, readers.head});
    } else if (containerTag == "evo" || containerTag == "vob") {
      // The EVO head ends in the subtitle reader, which makes the SUP stream.
      if (!head->AppendUpStream(TDestFile::Create(action.dest))) return false;
    } else {
      head->Log(2, "This subtitle conversion is not supported.");
      return false;
    }
    heads.push_back(head);
  }

  // Silent side branches count the frames of every video track that no action reads. The
  // readers count every frame whatever the action's options, so a track that an action reads
  // is counted by that action's reader, and not demuxed and parsed a second time.
  struct SideBranch {
    int32_t videoIndex;
    UpStreamRef reader;
  };
  std::vector<SideBranch> sides;
  int32_t videoCount = info.container ? info.container->VideoCount()
                                      : (info.videoDetails && info.videoDetails->IsValid() ? 1 : 0);
  for (int32_t v = 0; v < videoCount; v++) {
    const int32_t number = info.trackBase + 1 + v;
    auto read = std::find_if(videoReaders.begin(), videoReaders.end(),
                             [&](const auto& entry) { return entry.first == number; });
    if (read != videoReaders.end()) {
      sides.push_back({v, read->second});
      continue;
    }
    TTrackRef ref = FindTrack(info, number);
    auto details = trackVideo(ref);
    UpStreamRef head = info.container ? MakeContainerHead(containerTag, ref, options, TAction{})
                                      : UpStreamRef(TPassThrough::Create());
    UpStreamRef reader = CreateFrameCounter(details->Format());
    if (!head || !reader) continue;
    head->SetSilent(true);
    head->AppendUpStream(reader);
    head->AppendUpStream(TFileSimulator::Create());
    head->SetOptional(true);
    heads.push_back(head);
    sides.push_back({v, reader});
  }

  if (heads.empty()) return true;
  source->SetUpStreams(heads);
  bool ok = source->Write(0, false, nullptr, 0, -1, false);
  if (!ok) {
    result.abortPosition = source->Position();
    return false;
  }
  for (size_t i = 0; i < options.actions.size(); i++)
    for (const UpStreamRef& stage : stripStages[i])
      if (auto strip = Query<IStripTo16bit>(stage); strip && strip->Is16bit())
        options.actions[i].decidedBits = 16;
  result.videoFrames.assign(size_t(videoCount), 0);
  for (const SideBranch& side : sides)
    result.videoFrames[size_t(side.videoIndex)] = side.reader->VideoDetails()->FrameCount();
  return true;
}

}  // namespace sonvex
