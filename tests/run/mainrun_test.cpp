// The program end to end: help, refusals with their exact words and exit codes, the log copy.
#include <gtest/gtest.h>

#include "support/e2e.h"

namespace sonvex {
namespace {

using namespace sonvex::test;

TEST(MainRun, NoArgumentsPrintsTheHelpAndSucceeds) {
  TempDir dir;
  RunResult r = RunSonvex({}, dir.path());
  EXPECT_EQ(r.exitCode, 0);
  auto lines = r.Lines();
  ASSERT_GT(lines.size(), 40u);
  EXPECT_EQ(lines[0].rfind("sonvex v", 0), 0u);
  EXPECT_EQ(lines[2], "- can show information about audio, video and VOB/EVO/(M2)TS files");
  EXPECT_TRUE(r.HasLine("Options:"));
  EXPECT_TRUE(r.HasLine("For video muxing you need:"));
  // The log file was made with its three header lines.
  std::string log = ReadFile(dir.path() / ".state/sonvex/log.txt");
  EXPECT_EQ(log.rfind("sonvex v", 0), 0u);
  EXPECT_NE(log.find("\ncommand line: "), std::string::npos);
  EXPECT_NE(log.find("\n" + std::string(78, '-') + "\n"), std::string::npos);
}

struct Failure {
  std::vector<std::string> args;
  std::string message;
  std::string logCopy;  // where the log must be copied, empty for nowhere
};

TEST(MainRun, RefusalsEndWithTheirMessageExitCodeOneAndTheLogCopy) {
  TempDir dir;
  { std::ofstream(dir / "empty.ac3"); }
  {
    std::ofstream garbage(dir / "garbage.bin", std::ios::binary);
    for (uint32_t i = 0; i < 300000; i++) garbage.put(char((i * 7919u) >> 3));
  }
  fs::create_directories(dir.path() / "nodisc");
  fs::create_directories(dir.path() / "out");
  const Failure failures[] = {
      {{"missing.ac3", "out.wav"}, "Source file \"missing.ac3\" not found.", ""},
      {{"empty.ac3", "out/x.wav", "-bogus"}, "Command line parameter \"bogus\" is unknown.",
       "out/x - Log.txt"},
      {{"nodisc", "out.wav"}, "HD DVD / Blu-Ray disc structure not found.", ""},
      {{"empty.ac3", "out/e.wav"}, "The format of the source file could not be detected.",
       "out/e - Log.txt"},
      {{"garbage.bin", "out/g.wav"}, "The format of the source file could not be detected.",
       "out/g - Log.txt"},
      {{"empty.ac3", "EMPTY.AC3"}, "Input and output file names overlap.", "EMPTY - Log.txt"},
      {{"garbage.bin", "-log=mine.txt"}, "The format of the source file could not be detected.",
       "mine.txt"},
  };
  for (const Failure& f : failures) {
    RunResult r = RunSonvex(f.args, dir.path());
    EXPECT_EQ(r.exitCode, 1) << f.message;
    auto lines = r.Lines();
    ASSERT_FALSE(lines.empty()) << f.message;
    EXPECT_EQ(lines.back(), f.message);
    if (!f.logCopy.empty()) {
      std::string copy = ReadFile(dir.path() / f.logCopy);
      EXPECT_NE(copy.find(f.message), std::string::npos) << "log copy " << f.logCopy;
    }
  }
  // A refused run leaves no destination behind, only the copies of its log.
  for (const std::string& name : ListFiles(dir.path() / "out"))
    EXPECT_NE(name.find(" - Log.txt"), std::string::npos) << name;
}

TEST(MainRun, StdoutWavIsReadableFromAPipe) {
  SKIP_WITHOUT_CORPUS();
  SKIP_WITHOUT_TOOL("ffmpeg");
  TempDir dir;
  std::string thd = ShellQuote((CorpusDir() / "gen/truehd_51_48k.thd").string());
  std::string decode = " | ffmpeg -v error -f wav -i - -f s24le - | md5sum";
  RunResult ours = RunShell(ShellQuote(SONVEX_BINARY) + " " + thd + " stdout.wav 2>/dev/null" + decode,
                            dir.path());
  RunResult reference = RunShell("ffmpeg -v error -i " + thd + " -f s24le - | md5sum", dir.path());
  EXPECT_EQ(ours.out, reference.out);
  // The data went to the pipe, the messages to standard error: no file was made.
  EXPECT_FALSE(fs::exists(dir.path() / "stdout.wav"));
}

TEST(MainRun, AFailedPassRemovesOnlyWhatItCreated) {
  SKIP_WITHOUT_CORPUS();
  TempDir dir;
  std::string ac3 = (CorpusDir() / "gen/ac3_20_192k.ac3").string();
  // An existing file named as a destination that the pass refuses stays as it was.
  { std::ofstream(dir / "precious.m2ts") << "keep me"; }
  RunResult refused = RunSonvex({ac3, "precious.m2ts"}, dir.path());
  EXPECT_EQ(refused.exitCode, 1);
  EXPECT_EQ(ReadFile(dir.path() / "precious.m2ts"), "keep me");
  // A pass that fails after creating its file (the writer creates it at the first full MiB)
  // leaves nothing behind: damage near the end of a long stream stops the AC3 reader.
  std::string data;
  for (int i = 0; i < 10; i++) data += ReadFile(ac3);
  for (size_t i = data.size() - 50000; i < data.size() - 49900; i++) data[i] = char(~data[i]);
  { std::ofstream(dir / "damaged.ac3", std::ios::binary) << data; }
  RunResult failed = RunSonvex({"damaged.ac3", "out.ac3", "+100ms"}, dir.path());
  EXPECT_EQ(failed.exitCode, 1);
  EXPECT_TRUE(failed.HasLine("[a01] This track is not clean. Processing aborted."));
  for (const std::string& name : ListFiles(dir.path()))
    EXPECT_TRUE(name == "precious.m2ts" || name == "damaged.ac3" || name.find("Log.txt") != std::string::npos)
        << name;
}

// The shell hands "-log=my log.txt" over as one argument, however the user quoted it; the
// rejoined line must still read as the option, not as a destination.
TEST(MainRun, AnOptionValueWithABlankStaysAnOption) {
  SKIP_WITHOUT_CORPUS();
  TempDir dir;
  std::string ac3 = ShellQuote((CorpusDir() / "gen/ac3_20_192k.ac3").string());
  for (const std::string option : {"-log=\"my log.txt\"", "\"-log=my log.txt\""}) {
    fs::remove(dir.path() / "my log.txt");
    RunResult r = RunShell(ShellQuote(SONVEX_BINARY) + " " + ac3 + " o.ac3 " + option, dir.path());
    EXPECT_EQ(r.exitCode, 0) << option << "\n" << r.out;
    EXPECT_TRUE(r.HasLine("Done.")) << option;
    EXPECT_NE(ReadFile(dir.path() / "my log.txt").find("Done."), std::string::npos) << option;
  }
}

// A ".mkv" destination adds an action per audio track to the list its own action lives in.
// With freed memory scrubbed, reading the moved action again crashed; the sanitizer build
// catches the same read without the scrubbing.
TEST(MainRun, MkvSideActionsAreAddedWithoutReadingFreedMemory) {
  SKIP_WITHOUT_CORPUS();
  TempDir dir;
  std::string m2ts = ShellQuote((CorpusDir() / "gen/bd_h264_multi.m2ts").string());
  RunResult r = RunShell("GLIBC_TUNABLES=glibc.malloc.tcache_count=0:glibc.malloc.perturb=165 " +
                             ShellQuote(SONVEX_BINARY) + " " + m2ts + " out.mkv",
                         dir.path());
  EXPECT_LE(r.exitCode, 1) << r.out << r.err;
  EXPECT_EQ(r.out.find("sonvex crashed..."), std::string::npos);
  EXPECT_EQ(r.err.find("sonvex crashed..."), std::string::npos) << r.err;
  EXPECT_EQ(r.err.find("AddressSanitizer"), std::string::npos) << r.err;
  EXPECT_TRUE(r.HasLine("Track 1 is used for destination file \"out.mkv\".")) << r.out;
}

// "-keepDialnorm" holds for both parts of a TrueHD/AC3 track.
TEST(MainRun, KeepDialnormHoldsForTheAc3PartOfTrueHd) {
  SKIP_WITHOUT_CORPUS();
  TempDir dir;
  std::string thd = (CorpusDir() / "public/truehd/dts1_truehd_ac3_interleaved.thdac3").string();
  if (!fs::exists(thd)) GTEST_SKIP() << "no TrueHD/AC3 sample";
  RunResult removed = RunSonvex({thd, "d.ac3"}, dir.path());
  ASSERT_EQ(removed.exitCode, 0) << removed.out;
  ASSERT_NE(removed.out.find("Removing dialog normalization..."), std::string::npos) << removed.out;
  for (const char* dest : {"k.ac3", "k.thd"}) {
    RunResult kept = RunSonvex({thd, dest, "-keepDialnorm"}, dir.path());
    EXPECT_EQ(kept.exitCode, 0) << dest << kept.out;
    EXPECT_EQ(kept.out.find("Removing dialog normalization..."), std::string::npos) << dest << kept.out;
  }
}

}  // namespace
}  // namespace sonvex
