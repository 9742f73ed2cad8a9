// The main run: start, analysis, listing, actions for each track, the passes, and the end.
#include "run/mainrun.h"

#include <chrono>
#include <csignal>
#include <cstdlib>
#include <filesystem>

#include "disc/languages.h"
#include "files/destfile.h"
#include "files/formatdetector.h"
#include "files/sourcefiles.h"
#include "framework/console.h"
#include "mux/mkvframerate.h"
#include "pcm/rawanalyzer.h"
#include "run/cmdline.h"
#include "run/jsonlisting.h"
#include "run/naming.h"
#include "run/runstate.h"
#include "run/runtracks.h"
#include "run/selftest.h"
#include "run/titles.h"
#include "video/h265reader.h"

namespace fs = std::filesystem;

namespace sonvex {
namespace {

std::string EnvDir(const char* variable, const char* fallback) {
  const char* value = std::getenv(variable);
  if (value && *value) return std::string(value) + "/sonvex";
  const char* home = std::getenv("HOME");
  return std::string(home && *home ? home : "/tmp") + "/" + fallback + "/sonvex";
}

uint64_t TickCount() {
  return uint64_t(std::chrono::duration_cast<std::chrono::milliseconds>(
                      std::chrono::steady_clock::now().time_since_epoch())
                      .count());
}

void CrashHandler(int signal) {
  WriteLine(2, "sonvex crashed...");
  CloseLog();
  std::signal(signal, SIG_DFL);
  std::raise(signal);
}

void InstallCrashHook() {
  for (int signal : {SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGABRT}) std::signal(signal, CrashHandler);
}

// Plays a sound file with the first player found on PATH; nothing if there is none.
void PlaySound(const std::string& file) {
  std::error_code error;
  if (!fs::is_regular_file(file, error)) return;
  for (const char* player : {"pw-play", "paplay", "aplay"}) {
    std::string probe = std::string("command -v ") + player + " >/dev/null 2>&1";
    if (std::system(probe.c_str()) == 0) {
      std::string command = std::string(player) + " '" + file + "' >/dev/null 2>&1";
      if (std::system(command.c_str()) == 0) return;
    }
  }
}

class TMainRun {
public:
  int Execute(int argc, char** argv);

private:
  bool Analyse();
  bool LooksLikeRawPcm() const;
  void AnalyseRaw();
  void PrintListing();
  bool BuildDemuxActions(bool check);
  bool AssignTracks();
  void AddMkvSideActions(TAction mkv);
  bool RunPasses();
  void AfterGoodPass(const TPassResult& pass);
  void PatchFrameRate(const TAction& action);
  void AfterFailedPass();
  void CopyLog();
  std::string TrackText(const TTrackRef& ref) const;
  std::string TrackLanguage(const TTrackRef& ref) const;
  std::string DiscNameSuffix(const TTrackRef& ref) const;

  TOptions options;
  TSourceInfo info;
  TDiscFacts disc;  // chapters, languages and names that a disc structure gives the source
  UpStreamRef analysis;  // keeps the analysis chain's readers alive for the details
  int exitCode = 0;
  uint64_t processingTicks = 0;
  uint64_t stampTicks = 0;
  bool rerunWanted = false;
  int64_t abortPosition = 0;
  TJsonRun json;  // what "-json" collects
  bool passed = false;
  bool jsonWanted = false;
};

std::string TMainRun::TrackText(const TTrackRef& ref) const {
  if (!ref.entry.details) return {};
  switch (ref.kind) {
    case TTrackKind::Video: return ref.entry.details->VideoDetails()->Description();
    case TTrackKind::Audio: return ref.entry.details->AudioDetails()->Description();
    case TTrackKind::Subtitle: return ref.entry.details->SubtitleDetails()->Description();
    default: return {};
  }
}

// The language of a track: its own, else the disc's for its id.
std::string TMainRun::TrackLanguage(const TTrackRef& ref) const {
  std::string language;
  if (ref.entry.details && ref.kind == TTrackKind::Audio)
    language = ref.entry.details->AudioDetails()->Language();
  else if (ref.entry.details && ref.kind == TTrackKind::Subtitle)
    language = ref.entry.details->SubtitleDetails()->Language();
  if (!language.empty()) return LanguageName(language);
  auto found = disc.languages.find({ref.kind == TTrackKind::Audio ? 1 : 2, ref.entry.id});
  return found == disc.languages.end() || ref.kind == TTrackKind::Video ? "" : found->second;
}

// Demux names carry the language and the disc's name of the track.
std::string TMainRun::DiscNameSuffix(const TTrackRef& ref) const {
  std::string suffix;
  std::string language = TrackLanguage(ref);
  if (!language.empty()) suffix += ", " + language;
  auto name = disc.names.find({ref.kind == TTrackKind::Audio ? 1 : 2, ref.entry.id});
  if (name != disc.names.end() && ref.kind != TTrackKind::Video) suffix += ", '" + name->second + "'";
  return suffix;
}

bool TMainRun::Analyse() {
  auto source = TSourceFiles::Create(options.sources, 24000, 1001, 0x12C00000);
  auto detector = TFormatDetector::Create(options.logDts, options.logPids);
  source->SetUpStream(detector);
  analysis = source;
  info.probed = source;
  if (source->IsValid()) source->Write(0, false, nullptr, 0, -1, false);
  UpdateProgress(1, 0);
  auto container = detector->ContainerDetails();
  auto audio = detector->AudioDetails();
  auto video = detector->VideoDetails();
  if (container && container->IsValid()) info.container = container;
  if (audio && audio->IsValid()) info.audioDetails = audio;
  if (video && video->IsValid()) info.videoDetails = video;
  info.junkBytes = int64_t(detector->JunkSkipped());
  if (!info.container && !info.audioDetails && !info.videoDetails && LooksLikeRawPcm())
    AnalyseRaw();
  if (!info.container && !info.audioDetails && !info.videoDetails) {
    WriteLine(2, "The format of the source file could not be detected.");
    return false;
  }
  return true;
}

// A source whose first file ends in ".raw" or whose name holds "pcm" may be headerless PCM.
bool TMainRun::LooksLikeRawPcm() const {
  if (options.sources.empty()) return false;
  std::string name = options.sources.front();
  for (char& c : name) c = char(std::tolower(uint8_t(c)));
  std::string file = std::filesystem::path(name).filename().string();
  return (file.size() >= 4 && file.compare(file.size() - 4, 4, ".raw") == 0) ||
         file.find("pcm") != std::string::npos;
}

// The raw analysis: the first 300 MiB of the source through TRawAnalyzer, with the layout the
// first action suggests (channels, bits, byte order, rate); "-override" takes the suggestions
// as they are.
void TMainRun::AnalyseRaw() {
  TAction hints = options.actions.empty() ? TAction{} : options.actions.front();
  auto source = TSourceFiles::Create(options.sources, 24000, 1001, 0x12C00000);
  auto analyzer = TRawAnalyzer::Create(uint32_t(hints.sampleRate), hints.override,
                                       uint32_t(hints.endian), uint32_t(hints.bits),
                                       uint32_t(hints.channels));
  source->SetUpStream(analyzer);
  analysis = source;
  if (source->IsValid()) source->Write(0, false, nullptr, 0, -1, false);
  UpdateProgress(1, 0);
  auto audio = analyzer->AudioDetails();
  if (audio && audio->IsValid()) info.audioDetails = audio;
}

void TMainRun::PrintListing() {
  if (!info.container) {
    if (info.audioDetails)
      WriteLine(0, info.audioDetails->Description());
    else
      WriteLine(0, info.videoDetails->Description());
    return;
  }
  auto& c = *info.container;
  disc = FindDiscFacts(options.sources, c);
  json.containerLine = c.Description() + (disc.titleName.empty() ? "" : " \"" + disc.titleName + "\"");
  WriteLine(0, json.containerLine);
  int32_t earliest = 0x7FFFFFFF;
  TTrackEntry entry;
  for (int32_t i = 0; i < c.VideoCount(); i++)
    if (c.GetVideo(i, entry)) earliest = std::min(earliest, entry.delay);
  for (int32_t i = 0; i < c.AudioCount(); i++)
    if (c.GetAudio(i, entry)) earliest = std::min(earliest, entry.delay);
  if (earliest != 0x7FFFFFFF) c.SetInitialDelay(earliest);
  if (options.sources.size() > 1 && (c.Format() == "evo" || c.Format() == "vob")) {
    info.trackBase = 1;
    info.joinedContainer = true;
    WriteLine(0, "1: Joined " + c.Name() + " file");
  }
  if (!disc.chapterText.empty()) {
    info.chapterText = disc.chapterText;
    info.trackBase++;
    WriteLine(0, std::to_string(info.trackBase) + ": " + disc.chapterLine);
  }
  for (int32_t number = info.trackBase + 1; number <= LastTrackNumber(info); number++) {
    TTrackRef ref = FindTrack(info, number);
    std::string line = std::to_string(number) + ": " + TrackText(ref);
    if ((ref.kind == TTrackKind::Video || ref.kind == TTrackKind::Audio) && ref.entry.delay)
      line += ", " + std::to_string(ref.entry.delay) + "ms";
    std::string language = TrackLanguage(ref);
    if (!language.empty()) line += ", " + language;
    auto name = disc.names.find({ref.kind == TTrackKind::Audio ? 1 : 2, ref.entry.id});
    if (name != disc.names.end() && ref.kind == TTrackKind::Subtitle)
      line += ", \"" + name->second + "\"";
    WriteLine(0, line);
    json.trackLines[number] = line.substr(std::to_string(number).size() + 2);
    if (name != disc.names.end() && ref.kind == TTrackKind::Audio)
      WriteLine(0, std::string(std::to_string(number).size() + 2, ' ') + "\"" + name->second + "\"");
  }
}

// Demux and check: one action for the first video track, each audio and each subtitle track.
bool TMainRun::BuildDemuxActions(bool check) {
  TAction defaults = options.actions.empty() ? TAction{} : options.actions.front();
  defaults.dest.clear();
  std::vector<TAction> built;
  std::string stem = FileStem(options.sources.front());
  bool evo = info.container && (info.container->Format() == "evo" || info.container->Format() == "vob");
  auto add = [&](int32_t track, const std::string& dest) {
    TAction action = defaults;
    action.track = track;
    action.dest = TidyFileName(dest);
    built.push_back(action);
  };
  for (int32_t number = info.trackBase + 1; number <= LastTrackNumber(info); number++) {
    TTrackRef ref = FindTrack(info, number);
    std::string base = stem + " - " + std::to_string(number) + " - ";
    if (ref.kind == TTrackKind::Video) {
      // Of further video tracks only a Dolby Vision enhancement layer belongs to the title.
      auto layer = Query<IDolbyVisionLayer>(ref.entry.details);
      if (ref.index > 0 && !(layer && layer->IsEnhancementLayer())) continue;
      std::string tag = info.container ? ref.entry.details->VideoDetails()->Format()
                                       : info.videoDetails->Format();
      std::string ext = tag == "mpeg2" ? "m2v" : tag;
      std::string text = info.container ? TrackText(ref) : info.videoDetails->Description();
      add(number, check ? "%check%." + ext : base + DemuxVideoText(text) + DiscNameSuffix(ref) + "." + ext);
    } else if (ref.kind == TTrackKind::Audio) {
      if (evo && ref.entry.id >= 8) continue;
      auto details = info.container ? ref.entry.details->AudioDetails() : info.audioDetails;
      std::string tag = details->Format();
      std::string text = base + DemuxAudioText(details->Description()) + DiscNameSuffix(ref);
      if (check) {
        add(number, tag == "thd/ac3" ? "%check%.thd" : "%check%." + tag);
      } else if (tag == "thd/ac3") {
        add(number, text + ".thd");
        add(number, text + ".ac3");
      } else {
        add(number, text + "." + tag);
      }
    } else if (ref.kind == TTrackKind::Subtitle) {
      if (evo && ref.entry.id >= 16) continue;
      add(number, check ? "%check%.sup" : base + TrackText(ref) + DiscNameSuffix(ref) + ".sup");
    }
  }
  if (!info.chapterText.empty() && !check)
    add(info.trackBase, stem + " - Chapters.txt");
  // The user's own destinations stay, ahead of the demux actions; the placeholder that only
  // carried the options goes.
  std::vector<TAction> actions;
  for (const TAction& action : options.actions)
    if (!action.dest.empty() && action.dest != "%globaloptions%") actions.push_back(action);
  actions.insert(actions.end(), built.begin(), built.end());
  options.actions = std::move(actions);
  return true;
}

// `mkv` is a copy: the actions it adds grow the list that the caller's action lives in.
void TMainRun::AddMkvSideActions(TAction mkv) {
  std::string stem = (fs::path(mkv.dest).parent_path() / FileStem(mkv.dest)).string();
  if (!info.chapterText.empty()) {
    TAction chapters = mkv;
    chapters.track = info.trackBase;
    chapters.dest = stem + " - Chapters.txt";
    options.actions.push_back(chapters);
  }
  bool evo = info.container->Format() == "evo" || info.container->Format() == "vob";
  for (int32_t number = info.trackBase + 1; number <= LastTrackNumber(info); number++) {
    TTrackRef ref = FindTrack(info, number);
    std::string base = stem + " - " + std::to_string(number) + " - ";
    TAction action = mkv;
    action.track = number;
    if (ref.kind == TTrackKind::Audio) {
      if (evo && ref.entry.id >= 8) continue;
      auto details = ref.entry.details->AudioDetails();
      std::string tag = details->Format();
      bool lossless = ExtensionIn(tag, "thd|thd/ac3|pcm|evo/pcm|vob/pcm|ts/pcm|m2ts/pcm|dtsma");
      action.dest = base + DemuxAudioText(details->Description()) + DiscNameSuffix(ref) + "." +
                    (lossless ? "flac" : tag);
    } else if (ref.kind == TTrackKind::Subtitle) {
      if (evo && ref.entry.id >= 16) continue;
      action.dest = base + TrackText(ref) + DiscNameSuffix(ref) + ".sup";
    } else {
      continue;
    }
    action.dest = TidyFileName(action.dest);
    options.actions.push_back(action);
  }
}

// Conversion mode: actions without a track number get one by their destination's extension.
bool TMainRun::AssignTracks() {
  auto& c = *info.container;
  auto firstAudio = [&](const std::string& tags) -> int32_t {
    TTrackEntry entry;
    for (int32_t i = 0; i < c.AudioCount(); i++)
      if (c.GetAudio(i, entry) &&
          (tags.empty() || ExtensionIn(entry.details->AudioDetails()->Format(), tags)))
        return info.trackBase + c.VideoCount() + i + 1;
    return 0;
  };
  struct Rule {
    const char* extensions;
    const char* tags;
    const char* failure;  // nullptr: falls back to the first audio track
  };
  static constexpr Rule kAudioRules[] = {
      {".ac3", "ac3|thd/ac3", nullptr},
      {".mp2", "mp2", "The source file doesn't contain any MP2 tracks."},
      {".ddp|.eac3|.dd+|.ec3", "eac3", "The source file doesn't contain any E-AC3 tracks."},
      {".mlp", "mlp", "The source file doesn't contain any MLP tracks."},
      {".truehd|.thd", "thd|thd/ac3", "The source file doesn't contain any TrueHD tracks."},
      {".dtsma", "dtsma", "The source file doesn't contain any DTS Master Audio tracks."},
      {".dtshr", "dtshr", "The source file doesn't contain any DTS Hi-Res tracks."},
      {".dtshd", "dtsma|dtshd", "The source file doesn't contain any DTS-HD tracks."},
      {".dts", "dts|dtsma|dtshr", nullptr},
      {".flac", "pcm|thd|dtsma", nullptr},
  };
  size_t count = options.actions.size();
  for (size_t i = 0; i < count; i++) {
    TAction& action = options.actions[i];
    if (action.track != 0) continue;
    std::string ext = FileExtension(action.dest);
    int32_t track = 0;
    if (ExtensionIn(ext, ".m2v|.mpeg2|.h264|.h265|.hevc|.vc1|.mpv|.mkv")) {
      if (c.VideoCount() == 0) {
        WriteLine(2, "The source file doesn't contain any valid video tracks.");
        return false;
      }
      track = info.trackBase + 1;
    } else if (ext == ".sup") {
      if (c.SubtitleCount() == 0) {
        WriteLine(2, "The source file doesn't contain any subtitle tracks.");
        return false;
      }
      track = info.trackBase + c.VideoCount() + c.AudioCount() + 1;
    } else if (ExtensionIn(ext, ".evo|.vob")) {
      if (!info.joinedContainer) {
        WriteLine(2, c.Format() == "ts" || c.Format() == "m2ts"
                         ? "This container conversion is not supported."
                         : "There's only one source file, so rebuilding doesn't make sense.");
        return false;
      }
      action.track = 1;
      continue;
    } else if (ext == ".txt") {
      if (info.chapterText.empty()) {
        WriteLine(2, "Didn't find chapter information for this source.");
        return false;
      }
      action.track = info.trackBase;
      continue;
    } else {
      const Rule* rule = nullptr;
      for (const Rule& r : kAudioRules)
        if (ExtensionIn(ext, r.extensions)) rule = &r;
      if (rule) track = firstAudio(rule->tags);
      if (!track && rule && rule->failure) {
        WriteLine(2, rule->failure);
        return false;
      }
      if (!track) track = firstAudio("");
      if (!track) {
        WriteLine(2, "The source file doesn't contain any audio tracks.");
        return false;
      }
    }
    action.track = track;
    WriteLine(0, "Track " + std::to_string(track) + " is used for destination file \"" +
                     action.dest + "\".");
    // A copy: the side actions grow the list that `action` lives in.
    if (ext == ".mkv") AddMkvSideActions(TAction(action));
  }
  return true;
}

// The frame rate of the first video track into the header of its Matroska file: the rate the
// muxed frames really have, after field rates, pulldown options and speed changes.
void TMainRun::PatchFrameRate(const TAction& action) {
  TTrackRef ref = FindTrack(info, action.track);
  auto details = info.container ? ref.entry.details->VideoDetails() : info.videoDetails;
  if (!details) return;
  uint64_t start = TickCount();
  uint32_t rate = details->RateNumerator(), denominator = details->RateDenominator();
  std::string codec = details->Format();
  if (details->Interlaced() && rate >= 48000) rate /= 2;
  if (rate == 24000 && codec != "vc1" && action.keepPulldown) rate = 30000;
  if (rate == 30000 && codec == "h264" && action.force24p) rate = 24000;
  if (action.speedup && rate == 24000) {
    rate = 25000;
    denominator = 1000;
  }
  if (action.slowdown && rate == 25000) {
    rate = 24000;
    denominator = 1001;
  }
  TMkvPatchResult result = PatchMkvFrameRate(action.dest, rate, denominator);
  if (result == TMkvPatchResult::added)
    WriteLine(0, "Added fps value to MKV header.");
  else if (result == TMkvPatchResult::failed)
    WriteLine(1, "Adding fps value to MKV header failed.");
  stampTicks += TickCount() - start;
}

void TMainRun::AfterGoodPass(const TPassResult& pass) {
  // Twins are settled only where the pass made them (a decided bit depth).
  for (TAction& action : options.actions) {
    if (!action.decidedBits) continue;
    if (action.fileCount > 0) {
      for (int32_t index = 0; index < action.fileCount; index++)
        FinishOutputs(action.dest, action.decidedBits, index, action.fileCount);
    } else {
      FinishOutputs(action.dest, action.decidedBits, 0, 0);
    }
  }
  for (const TAction& action : options.actions)
    if (FileExtension(action.dest) == ".mkv" && FindTrack(info, action.track).kind ==
                                                    TTrackKind::Video &&
        action.track == info.trackBase + 1) {
      PatchFrameRate(action);
      break;
    }
  for (size_t v = 0; v < pass.videoFrames.size(); v++)
    if (pass.videoFrames[v])
      WriteLine(0, "Video track " + std::to_string(info.trackBase + 1 + int32_t(v)) +
                       " contains " + std::to_string(pass.videoFrames[v]) + " frames.");
  WriteLine(0, "sonvex processing took " + FormatDuration(uint32_t(processingTicks)) + ".");
  if (stampTicks)
    WriteLine(0, "Timestamp rewriting took " + FormatDuration(uint32_t(stampTicks)) + ".");
  WriteLine(0, "Done.");
  exitCode = 0;
}

void TMainRun::AfterFailedPass() {
  for (const TAction& action : options.actions) {
    if (FileExtension(action.dest) == ".txt" && FindTrack(info, action.track).kind ==
                                                     TTrackKind::Chapters)
      continue;
    if (action.fileCount > 0) {
      for (int32_t index = 0; index < action.fileCount; index++)
        DeleteOutputs(action.dest, action.decidedBits, index, action.fileCount);
    } else {
      DeleteOutputs(action.dest, 0, 0, 0);
      DeleteOutputs(action.dest, 24, 0, 0);
    }
  }
  // Files whose names took a delay (" DELAY 100ms") are found through the list of created files.
  DeleteCreatedFiles();
}

bool TMainRun::RunPasses() {
  HookLibavConsole();
  uint64_t start = TickCount();
  for (;;) {
    UpdateProgress(1, 0);
    int32_t track = rerunTrack;
    if (track != -1)
      for (TAction& action : options.actions)
        if (action.track == track) action.keepPulldown = true;
    rerunNeeded = false;
    rerunTrack = -1;
    abortPosition = 0;
    TPassResult pass;
    bool ok = RunTracks(options, info, pass);
    abortPosition = pass.abortPosition;
    rerunWanted = rerunNeeded;
    if (!rerunWanted) processingTicks = TickCount() - start;
    UpdateProgress(1, 0);
    if (ok) {
      AfterGoodPass(pass);
    } else {
      exitCode = 1;
      AfterFailedPass();
    }
    std::string sounds = EnvDir("XDG_CONFIG_HOME", ".config");
    if (exitCode == 0) {
      PlaySound(sounds + "/success.wav");
    } else if (!rerunWanted) {
      PlaySound(sounds + "/error.wav");
      if (abortPosition)
        WriteLine(0, "Aborted at file position " + GroupThousands(abortPosition) + ".");
    }
    if (!rerunWanted) return ok;
  }
}

void TMainRun::CopyLog() {
  bool haveDest = !options.actions.empty() && !options.actions.front().dest.empty();
  bool haveSource = !options.sources.empty() && !options.sources.front().empty();
  if (options.logName.empty() && !(haveSource && haveDest)) return;
  std::string logPath = LogFileName();
  CloseLog();
  std::string target = options.logName;
  if (target.empty()) {
    const std::string& dest = options.actions.front().dest;
    std::string stem = options.demux || options.check ? FileStem(options.sources.front())
                                                      : FileStem(dest);
    fs::path dir = fs::path(dest).parent_path();
    target = (dir / (stem + " - Log.txt")).string();
  }
  std::error_code error;
  if (!logPath.empty()) fs::copy_file(logPath, target, fs::copy_options::overwrite_existing, error);
}

int TMainRun::Execute(int argc, char** argv) {
  std::string stateDir = EnvDir("XDG_STATE_HOME", ".local/state");
  std::error_code error;
  fs::create_directories(stateDir, error);
  std::string rawLine = RawCommandLine(argc, argv);
  OpenLog(stateDir + "/log.txt", rawLine);

  InstallTitleResolver();
  if (argc == 1 && ListDiscTitles(".")) return 0;
  if (argc == 2 && ListDiscTitles(RemoveQuotes(argv[1]))) return 0;
  jsonWanted = WantsJson(argc, argv);
  if (jsonWanted) {
    StartJsonRun(json);
    // "-json" alone lists the disc in the current folder, "-json" and a folder that folder.
    std::string folder = argc == 2 ? "." : argc == 3 ? argv[LowerCase(argv[1]) == "-json" ? 2 : 1] : "";
    if (!folder.empty() && ListDiscTitles(RemoveQuotes(folder))) {
      FinishJsonRun(TitlesJson(json, 0));
      return 0;
    }
  }
  if (argc == 1) {
    PrintHelp();
    return 0;
  }
  exitCode = 1;
  bool parsed = ParseCommandLine(rawLine, options);
  // Names are tidied once, before anything is created under them.
  for (TAction& action : options.actions) action.dest = TidyFileName(action.dest);
  if (parsed) {
    InstallCrashHook();
    bool go = true;
    if (options.test) {
      RunSelfTest();
      if (options.sources.empty()) {
        exitCode = 0;
        go = false;
      }
    }
    for (const std::string& src : options.sources)
      for (const TAction& action : options.actions)
        if (go && LowerCase(fs::absolute(src, error).lexically_normal().string()) ==
                      LowerCase(fs::absolute(action.dest, error).lexically_normal().string())) {
          WriteLine(1, "Input and output file names overlap.");
          go = false;
        }
    if (go && Analyse()) {
      PrintListing();
      bool demuxMode = options.demux || options.check;
      bool ok = true;
      if (demuxMode) ok = BuildDemuxActions(options.check);
      if (ok && !options.actions.empty()) {
        if (info.container) {
          ok = AssignTracks();
        } else {
          for (TAction& action : options.actions)
            if (action.track == 0) action.track = info.trackBase + 1;
        }
      }
      if (ok && info.container && info.container->VideoCount() == 0 &&
          info.container->AudioCount() == 0 && !options.actions.empty()) {
        WriteLine(2, "The source file doesn't contain any video/audio tracks.");
        ok = false;
      }
      if (ok) {
        bool work = false;
        for (const TAction& action : options.actions)
          if (FindTrack(info, action.track).kind != TTrackKind::Chapters) work = true;
        if (options.actions.empty()) {
          exitCode = 0;
        } else if (!work) {
          for (const TAction& action : options.actions)
            TDestFile::Create(action.dest, info.chapterText);
          WriteLine(0, "Done.");
          exitCode = 0;
        } else {
          RunPasses();
          passed = true;
        }
      }
    }
  }
  if (jsonWanted)
    FinishJsonRun(SourceJson(info, disc, json, options.sources,
                             passed ? ExistingOutputs(options.actions)
                                                       : std::vector<std::string>{}, passed, exitCode));
  CopyLog();
  return exitCode;
}

}  // namespace

int RunMain(int argc, char** argv) {
  TMainRun run;
  return run.Execute(argc, argv);
}

}  // namespace sonvex
