// "-json" end to end with the sonvex binary: every corpus source gives one document that the
// schema in docs/ accepts and that agrees with the text listing of the same source and with
// ffprobe (codecs, channels, rates, frame rates, durations within one frame); every corpus disc
// lists its titles as ORACLES.tsv gives them; progress lines, messages and the outcome of a pass
// stay off standard output; every option the command line accepts is documented.
// Documents are read with jq, checked against the schema with python3-jsonschema.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <map>
#include <regex>
#include <set>

#include "disc/disctestutil.h"
#include "run/cmdline.h"
#include "support/e2e.h"

namespace sonvex::test {
namespace {

fs::path SourceDir() { return fs::path(SONVEX_SOURCE_DIR); }

// Standard error of a "-json" run without its progress lines: the messages alone.
std::string Messages(const std::string& err) {
  std::string kept;
  for (const std::string& line : RunResult{0, err, ""}.Lines())
    if (line.rfind("{\"progress\": ", 0) != 0) kept += line + "\n";
  return kept;
}

std::vector<std::vector<std::string>> Rows(const std::string& text) {
  std::vector<std::vector<std::string>> rows;
  std::istringstream in(text);
  for (std::string line; std::getline(in, line);) {
    if (line.empty()) continue;
    rows.emplace_back();
    std::istringstream cells(line);
    for (std::string cell; std::getline(cells, cell, '\t');) rows.back().push_back(cell);
    if (!line.empty() && line.back() == '\t') rows.back().push_back("");
  }
  return rows;
}

// jq's rows of `filter` over the document in `file`, as tab-separated cells.
std::vector<std::vector<std::string>> Jq(const fs::path& file, const std::string& filter) {
  return Rows(RunShell("jq -r " + ShellQuote(filter) + " " + ShellQuote(file.string()), file.parent_path()).out);
}

// RunShell of commands joined by pipes and ";": all their output is captured.
RunResult Pipeline(const std::string& commands, const fs::path& dir) {
  return RunShell("sh -c " + ShellQuote(commands), dir);
}

// The first cell of jq's answer, empty if there is none.
std::string Jq1(const fs::path& file, const std::string& filter) {
  auto rows = Jq(file, filter);
  return rows.empty() || rows[0].empty() ? "" : rows[0][0];
}

// Validates every "*.json" in `dir` against the schema; the lines name the documents that fail.
std::string SchemaFailures(const fs::path& dir) {
  std::string script =
      "import json,sys,glob,jsonschema\n"
      "schema=json.load(open(sys.argv[1]))\n"
      "for name in sorted(glob.glob(sys.argv[2]+'/*.json')):\n"
      "  try: jsonschema.validate(json.load(open(name)), schema)\n"
      "  except Exception as e: print(name, str(e).splitlines()[0])\n";
  std::ofstream(dir / "validate.py") << script;
  RunResult r = RunShell("python3 validate.py " + ShellQuote((SourceDir() / "docs/sonvex.schema.json").string()) +
                             " " + ShellQuote(dir.string()), dir);
  return r.out + r.err;
}

// ffprobe's codec names for the format tags of the listing (a tag starts with its key); ffprobe
// names TrueHD in a ".mlp" file "mlp".
constexpr std::pair<const char*, const char*> kCodecs[] = {
    {"ac3", "ac3"}, {"eac3", "eac3"}, {"dts", "dts"},     {"thd", "truehd"}, {"thd", "mlp"}, {"mlp", "mlp"},
    {"pcm", "pcm_"}, {"wav", "pcm_"}, {"mp2", "mp2"},     {"flac", "flac"},  {"h264", "h264"},
    {"h265", "hevc"}, {"hevc", "hevc"}, {"mpeg2", "mpeg2video"}, {"vc1", "vc1"}};

bool SameCodec(std::string tag, const std::string& probed) {
  if (size_t slash = tag.find('/'); slash != std::string::npos && tag.compare(0, 3, "thd") != 0)
    tag = tag.substr(slash + 1);  // "evo/pcm"
  for (const auto& [key, name] : kCodecs)
    if (tag.rfind(key, 0) == 0 && probed.rfind(name, 0) == 0) return true;
  return false;
}

// ffprobe reads only the AC3 part of a TrueHD/AC3 stream without a container.
const std::set<std::string> kFfprobeBlind = {"dts1_truehd_ac3_interleaved.thdac3"};

// A TS that starts on a non-IDR frame: its listed length is 100 ms (5 fields) shorter than the
// video stream ffprobe measures; a question for the TS reader, not for the JSON listing.
const std::set<std::string> kLengthDiffers = {"h264_intra_first_mp2x2.ts"};

// The corpus folders whose files are listed; the text listing and ffprobe are the oracles.
constexpr const char* kSourceFolders[] = {"gen", "gen/evo", "public/ac3", "public/dts", "public/eac3",
                                          "public/m2ts", "public/truehd", "public/ts", "public/vob",
                                          "public/video", "public/sup"};

class JsonListingOfFolder : public ::testing::TestWithParam<const char*> {};

TEST_P(JsonListingOfFolder, AgreesWithTextListingAndFfprobe) {
  SKIP_WITHOUT_CORPUS();
  SKIP_WITHOUT_TOOL("jq");
  SKIP_WITHOUT_TOOL("ffprobe");
  TempDir dir;
  int checked = 0, compared = 0;
  for (const auto& entry : fs::directory_iterator(CorpusDir() / GetParam())) {
    std::string ext = entry.path().extension().string();
    if (!entry.is_regular_file() || ext == ".tsv" || ext == ".txt" || ext == ".md" || ext == ".license")
      continue;
    std::string source = entry.path().string();
    SCOPED_TRACE(source);
    RunResult text = RunSonvex({source}, dir.path());
    RunResult json = RunSonvex({source, "-json"}, dir.path());
    fs::path doc = dir.path() / (std::to_string(checked++) + ".json");
    std::ofstream(doc) << json.out;
    ASSERT_EQ(json.exitCode, text.exitCode);
    // Standard output is the document; everything the text run printed went to standard error.
    EXPECT_EQ(Messages(json.err), text.out + text.err);
    EXPECT_EQ(Jq1(doc, ".exit_code"), std::to_string(text.exitCode));
    auto tracks = Jq(doc, ".tracks[]? | [.number, .kind, .codec, .description, .channels, .sample_rate,"
                          " .frame_rate, .width, .height, .duration_ms] | map(. // \"\" | tostring) | @tsv");
    auto container = Jq(doc, ".container // empty | [.description, .duration_ms] | map(tostring) | @tsv");
    if (!container.empty()) {
      EXPECT_EQ(text.Lines().at(0), container[0][0]);
    }
    for (const auto& t : tracks) {
      ASSERT_EQ(t.size(), 10u);
      if (t[1] == "joined" || t[1] == "chapters") continue;
      EXPECT_TRUE(container.empty() ? text.HasLine(t[3]) : text.HasLine(t[0] + ": " + t[3])) << t[3];
    }
    // Each track of the listing is one of ffprobe's streams, each stream taken once (ffprobe
    // also shows streams that no listing has, such as a TrueHD/AC3 track's AC3 part). Sources
    // that ffprobe can't read, or reads wrongly, are not compared.
    auto probed = Rows(Pipeline("ffprobe -v quiet -show_entries stream=codec_type,codec_name,channels,"
                                "sample_rate,width,height,avg_frame_rate -of json " + ShellQuote(source) +
                                " | jq -r '.streams[] | [.codec_type, .codec_name, .channels, .sample_rate,"
                                " .avg_frame_rate, .width, .height] | map(. // \"\" | tostring) | @tsv'",
                                dir.path()).out);
    if (probed.empty() || kFfprobeBlind.count(entry.path().filename().string())) continue;
    compared++;
    std::vector<bool> used(probed.size());
    for (const auto& t : tracks) {
      if (t[1] != "audio" && t[1] != "video") continue;
      bool found = false;
      for (size_t at = 0; !found && at < probed.size(); at++) {
        const auto& p = probed[at];
        if (used[at] || p.size() < 7 || p[0] != t[1] || !SameCodec(t[2], p[1])) continue;
        if (t[1] == "audio") {
          found = p[2] == t[4] && p[3] == t[5];
        } else {
          // ffprobe counts the frames that 3:2 pulldown flags show: 5 for every 4 coded. It
          // gives no rate for a single frame.
          int num = 0, den = 1;
          std::sscanf(p[4].c_str(), "%d/%d", &num, &den);
          double rate = double(num) / std::max(den, 1) * (t[3].find("pulldown") != std::string::npos ? 0.8 : 1);
          found = p[5] == t[7] && p[6] == t[8] && (t[6].empty() || num == 0 || std::abs(std::stod(t[6]) - rate) < 0.01);
        }
        used[at] = found;
      }
      EXPECT_TRUE(found) << "track " << t[0] << " " << t[2] << " " << t[4] << " ch " << t[5] << " Hz";
    }
    // Durations within one frame (the longest packet, plus the rounding to whole ms): of a bare
    // stream its packets summed, of a container its first video (else audio) stream.
    std::string duration = !container.empty() ? container[0][1] : tracks.empty() ? "" : tracks[0][9];
    if (duration.empty() || duration == "null" || kLengthDiffers.count(entry.path().filename().string())) continue;
    std::string q = ShellQuote(source);
    auto probe = Rows(Pipeline(
        (container.empty() ? "ffprobe -v quiet -show_entries packet=duration_time -of csv=p=0 " + q +
                                 " | awk '{s+=$1} END {print s}'"
                           : "(ffprobe -v quiet -select_streams v:0 -show_entries stream=duration -of csv=p=0 " +
                                 q + "; ffprobe -v quiet -select_streams a:0 -show_entries stream=duration"
                                 " -of csv=p=0 " + q + "; ffprobe -v quiet -show_entries format=duration -of csv=p=0 " + q +
                                 ") | cut -d, -f1 | grep '^[0-9]' | head -1") +
            "; ffprobe -v quiet -read_intervals %+1 -show_entries packet=duration_time -of csv=p=0 " + q +
            " | cut -d, -f1 | grep '^[0-9]' | sort -g | tail -1",
        dir.path()).out);
    ASSERT_EQ(probe.size(), 2u) << "ffprobe found no duration";
    double frame = std::stod(probe[1][0]) * 1000 + 1;
    EXPECT_NEAR(std::stod(duration), std::stod(probe[0][0]) * 1000, frame);
  }
  EXPECT_GT(compared, 0);
  EXPECT_EQ(SchemaFailures(dir.path()), "");
}

INSTANTIATE_TEST_SUITE_P(Corpus, JsonListingOfFolder, ::testing::ValuesIn(kSourceFolders),
                         [](const auto& info) {
                           std::string name = info.param;
                           std::replace(name.begin(), name.end(), '/', '_');
                           return name;
                         });

// The disc folders: ORACLES.tsv holds each title's playlist, angle, length and clips.
TEST(JsonListing, DiscTitlesAgreeWithOracles) {
  SKIP_WITHOUT_CORPUS();
  SKIP_WITHOUT_TOOL("jq");
  fs::path discs = CorpusDir() / "gen" / "disc";
  std::map<std::string, std::string> oracle;
  for (const auto& row : Rows(ReadFile(discs / "ORACLES.tsv")))
    if (row.size() >= 2) oracle[row[0]] = row[1];
  TempDir dir;
  int folders = 0;
  auto list = [&](const fs::path& folder, const std::string& key) {
    SCOPED_TRACE(folder.string());
    RunResult r = RunSonvex({folder.string(), "-json"}, dir.path());
    fs::path doc = dir.path() / ("disc" + std::to_string(folders++) + ".json");
    std::ofstream(doc) << r.out;
    if (oracle[key + ".is_disc"] == "0") {  // a folder that lists nothing is not a disc
      EXPECT_EQ(r.exitCode, 1);
      EXPECT_EQ(Jq1(doc, ".errors[0]"), oracle[key + ".select_bad"]);
      return;
    }
    ASSERT_EQ(r.exitCode, 0);
    auto titles = Jq(doc, ".titles[] | [.number, .playlist, .angle, .duration_ms, .name, (.clips | join(\"+\")),"
                          " (.tracks | join(\"|\"))] | map(. // \"\" | tostring) | @tsv");
    RunResult text = RunSonvex({folder.string()}, dir.path());
    EXPECT_EQ(Messages(r.err), text.out + text.err);
    if (key.empty()) {  // no oracle: the text listing has a "n) " line for each title
      auto lines = text.Lines();
      EXPECT_EQ(titles.size(), size_t(std::count_if(lines.begin(), lines.end(), [](const std::string& l) {
                  return std::regex_search(l, std::regex("^[0-9]+\\) "));
                })));
      return;
    }
    ASSERT_EQ(std::to_string(titles.size()), oracle[key + ".titles"]);
    for (const auto& t : titles) {
      std::string k = key + ".t" + t[0] + ".";
      bool bluray = key.rfind("bd.", 0) == 0;
      EXPECT_EQ(t[1], bluray ? oracle[k + "playlist"] : "");
      EXPECT_EQ(t[2], oracle.count(k + "angle") && oracle[k + "angle"] != "0" ? oracle[k + "angle"] : "");
      EXPECT_EQ(t[3], oracle[k + "duration_ms"]);
      EXPECT_EQ(t[4], oracle.count(k + "name") ? oracle[k + "name"] : "");
      EXPECT_EQ(t[5], oracle[k + (bluray ? "clips" : "files")]);
    }
  };
  for (const auto& entry : fs::directory_iterator(discs)) {
    std::string name = entry.path().filename().string();
    if (!entry.is_directory() || name == "expected" || name == "_media") continue;
    list(entry.path(), (name.rfind("hd-", 0) == 0 ? "hd." : "bd.") + name);
  }
  for (const char* tree : {"bdpl-disc1", "bdpl-disc3", "bdpl-disc5", "bdpl-disc7", "bdpl-disc10", "bdpl-disc12"})
    list(disctest::WrapPublicDisc(CorpusDir() / "public" / "bluray" / tree, dir), "");
  EXPECT_EQ(SchemaFailures(dir.path()), "");
}

// A pass: the document names each file written with its size, reports the gap that the source
// holds, and progress comes as one line per whole percent on standard error.
TEST(JsonListing, PassOutcomeAndProgress) {
  SKIP_WITHOUT_CORPUS();
  SKIP_WITHOUT_TOOL("jq");
  TempDir dir;
  RunResult r = RunSonvex({(CorpusDir() / "gen" / "bd_gap_long_200ms.m2ts").string(), "2:", "audio.ac3", "-json"},
                          dir.path());
  ASSERT_EQ(r.exitCode, 0) << r.err;
  fs::path doc = dir.path() / "pass.json";
  std::ofstream(doc) << r.out;
  EXPECT_EQ(Jq1(doc, ".outputs[] | select(.name == \"audio.ac3\") | .size"),
            std::to_string(fs::file_size(dir / "audio.ac3")));
  // The corpus's README: one 200 ms hole after 5.12 s of audio; the message rounds to seconds.
  auto gaps = Jq(doc, ".gaps[] | [.time_ms, .length_ms] | map(tostring) | @tsv");
  ASSERT_EQ(gaps.size(), 1u);
  EXPECT_NEAR(std::stoi(gaps[0][0]), 5120, 500);
  EXPECT_EQ(gaps[0][1], "200");
  EXPECT_EQ(Jq1(doc, ".exit_code"), "0");
  std::vector<int> percents;
  std::smatch m;
  for (const std::string& line : RunResult{0, r.err, ""}.Lines())
    if (std::regex_match(line, m, std::regex("\\{\"progress\": ([0-9]+)\\}"))) percents.push_back(std::stoi(m[1]));
  ASSERT_FALSE(percents.empty());
  EXPECT_EQ(percents.back(), 100);
  for (size_t i = 1; i < percents.size(); i++)
    if (percents[i] != 0) {
      EXPECT_GT(percents[i], percents[i - 1]);  // a new pass starts again at 0
    }
  EXPECT_EQ(r.err.find('\r'), std::string::npos);  // no bar
  EXPECT_EQ(SchemaFailures(dir.path()), "");
}

// Every option the parser compares a word against is in the man page, and in the help text unless
// it is one the help leaves out on purpose (diagnostics, and options kept only so that old command
// lines still run).
TEST(JsonListing, EveryAcceptedOptionIsDocumented) {
  std::string parser = ReadFile(SourceDir() / "src/run/cmdline.cpp");
  std::string man = ReadFile(SourceDir() / "docs/sonvex.1");
  man = std::regex_replace(man, std::regex("\\\\-"), "-");
  TempDir dir;
  std::string help = RunSonvex({}, dir.path()).out;
  const std::set<std::string> notInHelp = {"log=", "ignorediscon", "logpids", "logdts", "downmix", "mono",
                                           "check16bit", "dontrepairdts", "dontpatchdts", "oldmediatype",
                                           "debug", "arcsoft", "libav", "orbitlee", "keep24", "allowdrc", "mb"};
  std::regex word("(?:NoCase\\(opt, |low == |low\\.rfind\\(|EndsNoCase\\(opt, )\"([^\"]+)\"");
  int found = 0;
  for (std::sregex_iterator it(parser.begin(), parser.end(), word), end; it != end; ++it, found++) {
    std::string option = LowerCase((*it)[1]);
    std::string spelled = option == "mb" ? "0mb" : "-" + option;
    EXPECT_NE(LowerCase(man).find(spelled), std::string::npos) << option << " missing in the man page";
    // The help text joins alternatives with "/": "-24p/30p/60i".
    if (!notInHelp.count(option)) {
      EXPECT_TRUE(LowerCase(help).find(spelled) != std::string::npos ||
                  LowerCase(help).find("/" + option) != std::string::npos)
          << option << " missing in the help text";
    }
  }
  EXPECT_GT(found, 40);
}

}  // namespace
}  // namespace sonvex::test
