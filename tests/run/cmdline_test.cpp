// The command line: tokenizer, option table, plain tokens and the checks behind the walk.
#include "run/cmdline.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>

#include "framework/console.h"
#include "run/naming.h"

namespace sonvex {
namespace {

namespace fs = std::filesystem;

class CommandLine : public ::testing::Test {
protected:
  void SetUp() override {
    dir = fs::temp_directory_path() / ("sonvex_cmdline_" + std::to_string(::getpid()));
    fs::create_directories(dir);
    for (const char* name : {"a.ac3", "b.ac3", "with blank.ac3"})
      std::ofstream(dir / name) << "x";
    SetLogHook([this](int level, const std::string& text) { lines.push_back(text); });
  }
  void TearDown() override {
    SetLogHook(nullptr);
    SetConsoleOff(false);
    fs::remove_all(dir);
  }
  std::string Path(const char* name) { return (dir / name).string(); }
  bool Parse(const std::string& args) { return ParseCommandLine("sonvex " + args, options); }

  fs::path dir;
  TOptions options;
  std::vector<std::string> lines;
};

TEST(Tokenizer, QuotesGluedTrackMarksAndJoins) {
  EXPECT_EQ(Tokenize("  sonvex  \"my file.evo\" 2:out.ac3  "),
            (std::vector<std::string>{"sonvex", "\"my file.evo\"", "2:", "out.ac3"}));
  EXPECT_EQ(Tokenize("p \"x y.dts\"-640"), (std::vector<std::string>{"p", "\"x y.dts\"", "-640"}));
  EXPECT_EQ(Tokenize("a.evo+\"b c.evo\"", '+'), (std::vector<std::string>{"a.evo", "\"b c.evo\""}));
  // A colon behind a digit with a blank already behind it stays one token.
  EXPECT_EQ(Tokenize("p src 3: out.ac3").size(), 4u);
}

TEST_F(CommandLine, TrackMarksDestinationsAndOptionsGoToTheRightAction) {
  ASSERT_TRUE(Parse(Path("a.ac3") + " 2: x.flac -16 /LIBAV 3:y.ac3 -448 -24 +100ms -nero -sonic"));
  ASSERT_EQ(options.actions.size(), 2u);
  EXPECT_EQ(options.actions[0].track, 2);
  EXPECT_EQ(options.actions[0].bits, 16);
  EXPECT_TRUE(options.actions[0].useLibav);
  EXPECT_EQ(options.actions[1].dest, "y.ac3");
  EXPECT_EQ(options.actions[1].bitrate, 448);
  EXPECT_EQ(options.actions[1].bits, 24) << "-24 is a bit depth, not a bitrate";
  EXPECT_EQ(options.actions[1].delay, 100);
  EXPECT_TRUE(options.actions[1].useSonic);
  EXPECT_FALSE(options.actions[1].useNero) << "the last decoder flag wins";
}

TEST_F(CommandLine, SourceWithTwoDestinationsAndGlobalOptions) {
  ASSERT_TRUE(Parse("-100mb " + Path("a.ac3") + "+" + Path("b.ac3") +
                    " one.wav -50ms two.flac -ignoreDiscon -log=\"my.log\""));
  EXPECT_EQ(options.megabytes, 100);
  EXPECT_EQ(options.sources.size(), 2u);
  ASSERT_EQ(options.actions.size(), 2u);
  EXPECT_EQ(options.actions[0].delay, -50) << "an option delay is negative";
  EXPECT_EQ(options.actions[1].track, 0);
  EXPECT_TRUE(options.ignoreDiscontinuity);
  EXPECT_EQ(options.logName, "my.log");
}

TEST_F(CommandLine, DemuxMakesAPlaceholderThatCollectsOptions) {
  ASSERT_TRUE(Parse(Path("a.ac3") + " -demux -keepDialnorm"));
  ASSERT_EQ(options.actions.size(), 1u);
  EXPECT_EQ(options.actions[0].dest, "%globaloptions%");
  EXPECT_TRUE(options.actions[0].keepDialnorm);
}

TEST_F(CommandLine, QuotedSourceWithBlank) {
  ASSERT_TRUE(Parse("\"" + Path("with blank.ac3") + "\" 1:\"out file.wav\""));
  EXPECT_EQ(options.sources.front(), Path("with blank.ac3"));
  EXPECT_EQ(options.actions.front().dest, "out file.wav");
}

TEST_F(CommandLine, RemapsAndSampleRates) {
  ASSERT_TRUE(Parse(Path("a.ac3") + " o.wav -0,2,1,5,3,4 -96000 -6 -quality=2 -resampleTo44100"));
  EXPECT_EQ(options.actions[0].remap, "0,2,1,5,3,4");
  EXPECT_EQ(options.actions[0].sampleRate, 96000);
  EXPECT_EQ(options.actions[0].channels, 6);
  EXPECT_EQ(options.actions[0].quality, 2);
  EXPECT_EQ(options.actions[0].resampleTo, 44100);
}

struct Refusal {
  const char* args;
  const char* message;
};

TEST_F(CommandLine, RefusalsSayWhy) {
  const Refusal refusals[] = {
      {"+100ms", "Please specify the source and dest files first and then the delay."},
      {"-100ms", "Please specify the source and dest files first and then the options."},
      {"%A o.wav -frobnicate", "Command line parameter \"frobnicate\" is unknown."},
      {"%A o.wav -0,1,2,3,4,5;6", "Command line parameter \"0,1,2,3,4,5;6\" has an incorrect format."},
      {"%A o.wav -0,1,2,3,4;5", "Command line parameter \"0,1,2,3,4;5\" is unknown."},
      {"%A o.wav -0,1,2,3,4,4", "Command line parameter \"0,1,2,3,4,4\" has an incorrect format."},
      {"%A 0: o.wav", "The source file doesn't contain a track with the number 0."},
      {"%A 2:", "Destination file name is missing for track number 2."},
      {"missing.ac3 o.wav", "Source file \"missing.ac3\" not found."},
      {"-check", "No source file was specified."},
      {"%A 3)", "HD DVD / Blu-Ray disc structure not found."},
      {"%A o.wav 3)", "The parameter \"3)\" can only be 1st or 2nd parameter."},
  };
  for (const Refusal& r : refusals) {
    std::string args = r.args;
    if (size_t at = args.find("%A"); at != std::string::npos) args.replace(at, 2, Path("a.ac3"));
    options = TOptions{};
    lines.clear();
    EXPECT_FALSE(Parse(args)) << args;
    ASSERT_FALSE(lines.empty()) << args;
    EXPECT_EQ(lines.back(), r.message) << args;
  }
}

TEST_F(CommandLine, NoLongerSupportedParametersOnlyWarn) {
  ASSERT_TRUE(Parse(Path("a.ac3") + " o.wav -keep24"));
  EXPECT_EQ(lines, std::vector<std::string>{"The \"keep24\" parameter is no longer supported."});
}

TEST_F(CommandLine, StdoutDestinationTurnsTheConsoleOff) {
  ASSERT_TRUE(Parse(Path("a.ac3") + " stdout.ac3"));
  EXPECT_TRUE(ConsoleOff());
}

TEST(Naming, FormatDuration) {
  EXPECT_EQ(FormatDuration(0), "1 second");
  EXPECT_EQ(FormatDuration(1499), "1 second");
  EXPECT_EQ(FormatDuration(42000), "42 seconds");
  EXPECT_EQ(FormatDuration(60000), "exactly 1 minute");
  EXPECT_EQ(FormatDuration(61000), "1 minute, 1 second");
  EXPECT_EQ(FormatDuration(185000), "3 minutes, 5 seconds");
  EXPECT_EQ(FormatDuration(7200000), "exactly 2 hours");
  EXPECT_EQ(FormatDuration(3600000 + 59 * 60000 + 31000), "exactly 2 hours");
  EXPECT_EQ(FormatDuration(3600000 + 60000 + 29000), "1 hour, 1 minute");
}

TEST(Naming, DemuxTextsAndTidyNames) {
  EXPECT_EQ(DemuxVideoText("h264/AVC, 1080p24 /1.001 (16:9)"), "h264, 1080p24");
  EXPECT_EQ(DemuxAudioText("TrueHD/AC3, 5.1 channels, 640kbit/s, 48khz, dialnorm: -27dB"),
            "TrueHD+AC3, 5.1 channels, 640kbps, 48khz");
  EXPECT_EQ(DemuxAudioText("RAW/PCM, 2.0 channels"), "PCM, 2.0 channels");
  EXPECT_EQ(TidyFileName("dir:x/a?b*c\"d.ac3"), "dir:x/abcd.ac3");
  EXPECT_TRUE(ExtensionIn(".TrueHD", ".thd|.truehd"));
  EXPECT_FALSE(ExtensionIn(".th", ".thd|.truehd"));
}

}  // namespace
}  // namespace sonvex
