// Every file a run announces is there after "Done.", under its settled name: twins resolved,
// a delay the file still needs in its name, names tidied before anything was created, and the
// user's own destinations kept beside "-demux". Oracles: ffprobe reading what was written.
#include <gtest/gtest.h>

#include <regex>
#include <string>
#include <vector>

#include "support/e2e.h"

namespace sonvex::test {
namespace {

// The name a "Creating file" line's file has after the run: the twin mark goes, and a delay the
// file still needs stands ahead of the extension ("d.24bit.wav" + 100 -> "d DELAY 100ms.wav").
std::string SettledName(std::string name, int delay) {
  for (const char* twin : {".24bit", ".16bit"}) {
    size_t at = name.find(twin);
    if (at != std::string::npos) name.erase(at, 6);
  }
  if (delay) {
    size_t dot = name.rfind('.');
    name.insert(dot, " DELAY " + std::to_string(delay) + "ms");
  }
  return name;
}

std::vector<std::string> CreatedNames(const RunResult& run) {
  std::vector<std::string> names;
  static const std::regex line(R"re(^(\[\w+\] )?Creating file "(.*)"\.\.\.$)re");
  std::smatch match;
  for (const std::string& text : run.Lines())
    if (std::regex_match(text, match, line)) names.push_back(match[2]);
  return names;
}

struct OutputCase {
  std::vector<std::string> args;  // corpus names are given without "gen/"
  int delay;                      // what each output still needs, in ms
  std::vector<std::string> files;  // what the folder holds afterwards, sorted, logs left out
  std::string probe;               // ffprobe's "bits_per_raw_sample/sample_fmt" of files[0], or ""
};

class SettledOutputs : public ::testing::Test {
protected:
  void SetUp() override {
    SKIP_WITHOUT_CORPUS();
    SKIP_WITHOUT_TOOL("ffmpeg");
    SKIP_WITHOUT_TOOL("ffprobe");
    SKIP_WITHOUT_TOOL("flac");
  }
};

TEST_F(SettledOutputs, EveryCreatedFileIsThereUnderItsSettledName) {
  TempDir source;
  // 8-bit PCM, as WAV and as FLAC: no twins, straight to one output.
  RunShell("ffmpeg -v error -i " + ShellQuote((CorpusDir() / "gen/wav_20_16.wav").string()) +
               " -t 2 -c:a pcm_u8 u8.wav && flac -s --best u8.wav -o u8.flac",
           source.path());
  ASSERT_TRUE(fs::exists(source.path() / "u8.flac"));
  const std::string u8wav = source / "u8.wav", u8flac = source / "u8.flac";
  const std::vector<std::string> six = {"out.C.wav", "out.L.wav",  "out.LFE.wav",
                                        "out.R.wav", "out.SL.wav", "out.SR.wav"};
  const OutputCase cases[] = {
      {{"wav_51_24.wav", "out.wavs"}, 0, six, "24/s32"},
      {{"flac_51_24.flac", "out.wavs"}, 0, six, "24/s32"},
      {{"bd_lpcm_variants.m2ts", "3:", "d.wavs"},
       0,
       {"d.C.wav", "d.L.wav", "d.LFE.wav", "d.R.wav", "d.SL.wav", "d.SR.wav"},
       ""},
      {{"ac3_51_448k.ac3", "d.wav"}, 0, {"d.wav"}, ""},
      // Decoded outputs take their delay into the samples: the twins settle on the plain name.
      {{"ac3_51_448k.ac3", "d.wav", "+100ms"}, 0, {"d.wav"}, ""},
      {{"bd_audio_delay100ms.m2ts", "2:", "dl.wav"}, 0, {"dl.wav"}, ""},
      {{"bd_audio_delay100ms.m2ts", "2:", "dl.flac"}, 0, {"dl.flac"}, ""},
      {{"ac3_51_448k.ac3", "a:b.wav"}, 0, {"ab.wav"}, ""},
      {{u8wav, "e.wav"}, 0, {"e.wav"}, "N/A/u8"},
      {{u8flac, "e.wav"}, 0, {"e.wav"}, "N/A/u8"},
      {{u8wav, "e.flac"}, 0, {"e.flac"}, "8/s16"},
      {{"bd_h264_multi.m2ts", "7:", "x.wav", "-demux"},
       0,
       {"bd_h264_multi - 1 - h264, 1080p24.h264",
        "bd_h264_multi - 2 - AC3, 5.1 channels, 640kbps, 48khz.ac3",
        "bd_h264_multi - 3 - E-AC3, 5.1 channels, 640kbps, 48khz.eac3",
        "bd_h264_multi - 4 - DTS, 5.1 channels, 16 bits, 1,536kbps, 48khz.dts",
        "bd_h264_multi - 5 - TrueHD, 5.1 channels, 48khz.thd",
        "bd_h264_multi - 6 - PCM, 5.1 channels, 24 bits, 6,912kbps, 48khz.pcm",
        "bd_h264_multi - 7 - AC3, 2.0 channels, 192kbps, 48khz.ac3", "x.wav"},
       ""},
  };
  for (const OutputCase& c : cases) {
    TempDir dir;
    std::vector<std::string> args;
    for (const std::string& arg : c.args)
      args.push_back(fs::exists(CorpusDir() / "gen" / arg) ? (CorpusDir() / "gen" / arg).string()
                                                           : arg);
    std::string what = c.args[0] + " " + c.args[1];
    RunResult run = RunSonvex(args, dir.path());
    EXPECT_EQ(run.exitCode, 0) << what << "\n" << run.out << run.err;
    EXPECT_TRUE(run.HasLine("Done.")) << what;
    auto created = CreatedNames(run);
    EXPECT_FALSE(created.empty()) << what;
    for (const std::string& name : created)
      EXPECT_TRUE(fs::exists(dir.path() / SettledName(name, c.delay)))
          << what << ": " << SettledName(name, c.delay) << " is missing";
    std::vector<std::string> files;
    for (const std::string& name : ListFiles(dir.path()))
      if (name.find(" - Log.txt") == std::string::npos) files.push_back(name);
    EXPECT_EQ(files, c.files) << what;
    if (!c.probe.empty()) {
      RunResult probe = RunShell("ffprobe -v error -select_streams a:0 -show_entries "
                                 "stream=bits_per_raw_sample,sample_fmt -of csv=p=0 " +
                                     ShellQuote((dir.path() / c.files[0]).string()),
                                 dir.path());
      std::string fmt = probe.out.substr(0, probe.out.find('\n'));
      size_t comma = fmt.find(',');
      EXPECT_NE(comma, std::string::npos) << what << ": " << probe.out << probe.err;
      if (comma != std::string::npos) { EXPECT_EQ(fmt.substr(comma + 1) + "/" + fmt.substr(0, comma), c.probe) << what; }
    }
  }
}

// The help text lists W64 among the sources: a Sony Wave64 file from ffmpeg is detected and read
// like WAV, sample for sample.
TEST_F(SettledOutputs, Wave64SourceIsReadLikeWav) {
  TempDir dir;
  RunShell("ffmpeg -v error -f lavfi -i 'sine=f=440:r=48000:d=1' -ac 2 -c:a pcm_s24le -f w64 a.w64",
           dir.path());
  RunResult run = RunSonvex({"a.w64", "w.wav"}, dir.path());
  ASSERT_EQ(run.exitCode, 0) << run.out;
  EXPECT_EQ(run.Lines().at(0), "WAV, 2.0 channels, 0:00:01, 24 bits, 48khz");
  auto md5 = [&](const std::string& file) {
    return RunShell("ffmpeg -v error -i " + file + " -f s24le - | md5sum", dir.path()).out;
  };
  EXPECT_EQ(md5("w.wav"), md5("a.w64"));
}

}  // namespace
}  // namespace sonvex::test
