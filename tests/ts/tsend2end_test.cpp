// The sonvex binary on transport streams: listing with -logPids, -demux and -check, a track to a
// file, and the damaged-stream messages with their exit codes. Oracles: ffmpeg's "-c copy"
// payloads from the corpus tables.
#include <gtest/gtest.h>

#include <unistd.h>

#include <filesystem>

#include "framework/details.h"
#include "ts/tscorpus.h"

namespace sonvex::tstest {
namespace {

namespace fs = std::filesystem;

struct RunResult {
  std::string output;
  int code = -1;
};

class TsEndToEnd : public ::testing::Test {
protected:
  void SetUp() override {
    if (!fs::exists(CorpusDir() + "/gen/MANIFEST.tsv")) GTEST_SKIP() << "corpus folder absent";
    // The process id keeps runs of other builds on this machine out of the folder.
    dir = fs::temp_directory_path() /
          ("sonvex_ts_e2e_" + std::to_string(::getpid()) + "_" +
           std::string(::testing::UnitTest::GetInstance()->current_test_info()->name()));
    fs::remove_all(dir);
    fs::create_directories(dir);
  }
  void TearDown() override {
    std::error_code error;
    fs::remove_all(dir, error);
  }
  // Runs the binary in the test's folder; arguments are passed as they are written.
  RunResult Sonvex(const std::string& arguments) {
    std::string text = RunCommand("cd '" + dir.string() + "' && '" + SONVEX_BINARY + "' " + arguments +
                                  " 2>&1; echo \"exit=$?\"");
    RunResult run;
    size_t at = text.rfind("exit=");
    run.code = at == std::string::npos ? -1 : std::atoi(text.c_str() + at + 5);
    run.output = text.substr(0, at);
    return run;
  }
  std::string Copy(const std::string& name) {
    fs::copy_file(CorpusDir() + "/gen/" + name, dir / name);
    return name;
  }
  std::string FileMd5(const std::string& name) { return Md5Hex(ReadWholeFile((dir / name).string())); }
  // The one file in the folder whose name ends with `suffix`.
  std::string Find(const std::string& suffix) {
    std::string found;
    for (const auto& entry : fs::directory_iterator(dir)) {
      std::string name = entry.path().filename().string();
      if (name.size() >= suffix.size() && name.compare(name.size() - suffix.size(), suffix.size(), suffix) == 0)
        found = name;
    }
    return found;
  }
  std::string ReferenceMd5(const std::string& container, const std::string& id) {
    for (auto& row : ReadTable("DEMUX_REFERENCE.tsv"))
      if (row["container"] == container && row["id"] == id) return row["md5_es"];
    return "";
  }
  // A copy of a corpus file with one change made by `edit` (packets of 192 bytes).
  std::string Damaged(const std::string& name, const std::string& as,
                      const std::function<void(std::vector<uint8_t>&)>& edit) {
    auto data = ReadWholeFile(CorpusDir() + "/gen/" + name);
    edit(data);
    std::FILE* file = std::fopen((dir / as).c_str(), "wb");
    std::fwrite(data.data(), 1, data.size(), file);
    std::fclose(file);
    return as;
  }
  fs::path dir;
};

TEST_F(TsEndToEnd, ListingWithPidLines) {
  RunResult run = Sonvex(CorpusDir() + "/gen/bd_h264_multi.m2ts -logPids");
  EXPECT_EQ(run.code, 0);
  EXPECT_NE(run.output.find("PID: 256/4352 ($81), \"AC-3\", eng, AC3"), std::string::npos) << run.output;
  EXPECT_NE(run.output.find("PID: 256/4356 ($80), jpn, RAW/PCM"), std::string::npos);
  EXPECT_NE(run.output.find("M2TS, 1 video track, 6 audio tracks"), std::string::npos);
  EXPECT_NE(run.output.find("6: RAW/PCM, 5.1 channels, 24 bits"), std::string::npos);
}

TEST_F(TsEndToEnd, TrackToFileIsFfmpegsPayload) {
  RunResult run = Sonvex(CorpusDir() + "/gen/bd_h264_multi.m2ts 2: out.ac3");
  ASSERT_EQ(run.code, 0) << run.output;
  EXPECT_NE(run.output.find("[a02] Extracting audio track number 2..."), std::string::npos);
  EXPECT_EQ(FileMd5("out.ac3"), ReferenceMd5("bd_h264_multi.m2ts", "0x1100"));
}

TEST_F(TsEndToEnd, DemuxWritesEveryAudioTrackOfATs) {
  RunResult run = Sonvex(Copy("ts_h264_eac3_ac3_aac.ts") + " -demux");
  ASSERT_EQ(run.code, 0) << run.output;
  std::string eac3 = Find(".eac3"), ac3 = Find(".ac3");
  ASSERT_FALSE(eac3.empty()) << run.output;
  ASSERT_FALSE(ac3.empty()) << run.output;
  EXPECT_EQ(FileMd5(eac3), ReferenceMd5("ts_h264_eac3_ac3_aac.ts", "0x101"));
  EXPECT_EQ(FileMd5(ac3), ReferenceMd5("ts_h264_eac3_ac3_aac.ts", "0x102"));
}

TEST_F(TsEndToEnd, CheckWritesNothing) {
  RunResult run = Sonvex(Copy("ts_h264_eac3_ac3_aac.ts") + " -check");
  ASSERT_EQ(run.code, 0) << run.output;
  EXPECT_TRUE(Find(".ac3").empty());
  EXPECT_TRUE(Find(".eac3").empty());
  EXPECT_TRUE(Find(".h264").empty());
}

TEST_F(TsEndToEnd, ContinuityBreakStopsUnlessIgnored) {
  std::string name = Damaged("bd_audio_delay100ms.m2ts", "cc.m2ts", [](std::vector<uint8_t>& d) {
    // The counter of one AC3 packet in the middle jumps; the payload stays whole.
    std::vector<size_t> ac3;
    for (size_t i = 0; (i + 1) * 192 <= d.size(); i++)
      if (((d[i * 192 + 5] & 0x1F) << 8 | d[i * 192 + 6]) == 0x1100) ac3.push_back(i);
    uint8_t& control = d[ac3[ac3.size() / 2] * 192 + 7];
    control = uint8_t((control & 0xF0) | ((control + 5) & 0x0F));
  });
  RunResult run = Sonvex(name + " 2: out.ac3");
  EXPECT_EQ(run.code, 1);
  EXPECT_NE(run.output.find("[a02] This TS/M2TS file seems to be damaged (discontinuity).\n"
                            "[a02] You can use the \"-ignoreDiscon\" switch to make sonvex ignore discontinuities.\n"
                            "[a02] Doing that might result in artifacts during playback, though."),
            std::string::npos)
      << run.output;

  RunResult ignoring = Sonvex(name + " 2: out2.ac3 -ignoreDiscontinuity");
  EXPECT_EQ(ignoring.code, 0) << ignoring.output;
  EXPECT_NE(ignoring.output.find("[a02] This TS/M2TS file seems to be damaged (discontinuity)."), std::string::npos);
  EXPECT_EQ(ignoring.output.find("-ignoreDiscon\" switch"), std::string::npos);
  // The same bytes as the whole stream: the payload was intact, only its counter jumped.
  RunResult clean = Sonvex(CorpusDir() + "/gen/bd_audio_delay100ms.m2ts 2: clean.ac3");
  ASSERT_EQ(clean.code, 0);
  EXPECT_EQ(FileMd5("out2.ac3"), FileMd5("clean.ac3"));
}

TEST_F(TsEndToEnd, DamagedPacketsEndTheRun) {
  struct Case {
    const char* name;
    size_t offset;  // within the middle packet
    uint8_t bits;
    const char* message;
  } cases[] = {
      {"sync.m2ts", 4, 0x01, "This TS/M2TS file seems to be damaged (sync byte missing)."},
      {"tei.m2ts", 5, 0x80, "This TS/M2TS file seems to be damaged (transport error indicated)."},
  };
  for (const Case& c : cases) {
    std::string name = Damaged("bd_audio_delay100ms.m2ts", c.name, [&](std::vector<uint8_t>& d) {
      d[d.size() / 192 / 2 * 192 + c.offset] ^= c.bits;
    });
    RunResult run = Sonvex(name + " 2: out.ac3");
    EXPECT_EQ(run.code, 1) << c.name;
    EXPECT_NE(run.output.find(c.message), std::string::npos) << run.output;
    EXPECT_FALSE(fs::exists(dir / "out.ac3"));
  }
}

// A PES header whose data length is too small for its fields loses only its own packet: the
// run says so once, with the packet's file position, reads on, and the track is whole but for
// that packet's payload.
TEST_F(TsEndToEnd, DamagedPesHeaderDropsOnePacket) {
  size_t at = 0, payload = 0;
  std::string name = Damaged("bd_audio_delay100ms.m2ts", "pes.m2ts", [&](std::vector<uint8_t>& d) {
    for (size_t p = d.size() / 192 / 2 * 192; p + 192 <= d.size(); p += 192) {
      const uint8_t* ts = &d[p + 4];
      uint32_t pid = uint32_t(ts[1] & 0x1F) << 8 | ts[2];
      if (pid != 0x1100 || !(ts[1] & 0x40)) continue;
      size_t pes = 4 + ((ts[3] & 0x20) ? ts[4] + 1u : 0u);
      if (ts[pes] != 0 || ts[pes + 1] != 0 || ts[pes + 2] != 1 || (ts[pes + 3] != 0xBD && ts[pes + 3] != 0xFD)) continue;
      payload = (size_t(ts[pes + 4]) << 8 | ts[pes + 5]) - 3 - ts[pes + 8];
      d[p + 4 + pes + 8] = 0;  // the PTS no longer fits in the header
      at = p;
      return;
    }
  });
  ASSERT_GT(payload, 0u);
  RunResult good = Sonvex("'" + CorpusDir() + "/gen/bd_audio_delay100ms.m2ts' 2: good.ac3");
  ASSERT_EQ(good.code, 0) << good.output;
  RunResult run = Sonvex(name + " 2: out.ac3");
  ASSERT_EQ(run.code, 0) << run.output;
  EXPECT_NE(run.output.find("\nDone.\n"), std::string::npos) << run.output;
  const std::string text = "[a02] The source file is invalid: a damaged PES packet at file position " +
                           GroupThousands(int64_t(at)) + " was skipped.\n";
  size_t first = run.output.find(text);
  EXPECT_NE(first, std::string::npos) << run.output;
  EXPECT_EQ(run.output.find("The source file is invalid", first + text.size()), std::string::npos);
  EXPECT_EQ(fs::file_size(dir / "out.ac3") + payload, fs::file_size(dir / "good.ac3"));
}

TEST_F(TsEndToEnd, TruncatedFileGivesItsWholeFrames) {
  std::string name = Damaged("bd_audio_delay100ms.m2ts", "cut.m2ts", [](std::vector<uint8_t>& d) {
    d.resize(d.size() / 2 + 100);  // ends inside a packet
  });
  RunResult run = Sonvex(name + " 2: out.ac3");
  ASSERT_EQ(run.code, 0) << run.output;
  auto whole = ReadWholeFile(CorpusDir() + "/gen/ac3_51_448k.ac3");
  auto part = ReadWholeFile((dir / "out.ac3").string());
  // Whole 1792 byte frames: the delayer's frames in front, then a prefix of the stream.
  ASSERT_EQ(part.size() % 1792, 0u);
  ASSERT_GT(part.size(), whole.size() / 3);
  EXPECT_LT(part.size(), whole.size());
}

}  // namespace
}  // namespace sonvex::tstest
