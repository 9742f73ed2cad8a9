// The sonvex binary on PCM work, end to end: headerless PCM recognised in every candidate
// layout, downmixes against the factors applied to ffmpeg's decode, resampling against sox's
// very high quality rate (the same libsoxr recipe), PAL speed changes, gaps and delays on
// decoded and PCM outputs, "-mono", and bad raw files.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <cstring>
#include <functional>
#include <string>
#include <vector>

#include "support/e2e.h"

namespace sonvex::test {
namespace {

std::string Gen(const std::string& name) { return (CorpusDir() / "gen" / name).string(); }

// Runs ffmpeg with `args` in `dir`; the test fails when ffmpeg does.
void Ffmpeg(const std::string& args, const fs::path& dir) {
  RunResult r = RunShell("ffmpeg -nostdin -hide_banner -loglevel error -y " + args, dir);
  ASSERT_EQ(r.exitCode, 0) << args << "\n" << r.err;
}

// Signed little-endian samples of `bytes` each.
std::vector<int32_t> Samples(const std::string& data, int bytes, size_t offset = 0) {
  std::vector<int32_t> out;
  for (size_t i = offset; i + bytes <= data.size(); i += size_t(bytes)) {
    uint32_t v = 0;
    for (int b = 0; b < bytes; b++) v |= uint32_t(uint8_t(data[i + size_t(b)])) << (8 * b);
    int shift = 32 - 8 * bytes;
    out.push_back(int32_t(v << shift) >> shift);
  }
  return out;
}

// The data chunk of a WAV file (plain or extensible header), with its format fields.
struct Wav {
  uint16_t channels = 0, bits = 0;
  uint32_t rate = 0, mask = 0;
  std::string data;
};
Wav ReadWav(const fs::path& file) {
  std::string all = ReadFile(file);
  Wav wav;
  for (size_t at = 12; at + 8 <= all.size();) {
    std::string id = all.substr(at, 4);
    uint32_t size = 0;
    std::memcpy(&size, all.data() + at + 4, 4);
    if (id == "fmt ") {
      std::memcpy(&wav.channels, all.data() + at + 10, 2);
      std::memcpy(&wav.rate, all.data() + at + 12, 4);
      std::memcpy(&wav.bits, all.data() + at + 22, 2);
      if (size >= 40) std::memcpy(&wav.mask, all.data() + at + 28, 4);
    } else if (id == "data") {
      wav.data = all.substr(at + 8, std::min<size_t>(size, all.size() - at - 8));
      break;
    }
    at += 8 + size + (size & 1);
  }
  return wav;
}

class PcmRun : public ::testing::Test {
protected:
  void SetUp() override {
    SKIP_WITHOUT_CORPUS();
    SKIP_WITHOUT_TOOL("ffmpeg");
  }
  RunResult Sonvex(const std::vector<std::string>& args) { return RunSonvex(args, dir.path()); }
  TempDir dir;
};

TEST_F(PcmRun, HeaderlessPcmListsWithItsLayout) {
  RunResult r = Sonvex({Gen("pcm_s16le_20_48k.raw")});
  ASSERT_EQ(r.exitCode, 0) << r.out << r.err;
  EXPECT_TRUE(r.HasLine("RAW/PCM, 2.0 channels, 0:00:06, 16 bits, 48khz")) << r.out;
  EXPECT_TRUE(r.HasLine("The RAW/PCM file seems to be little endian.")) << r.out;
  EXPECT_TRUE(r.HasLine("The RAW/PCM file seems to have 2 channels.")) << r.out;
}

// One layout made from a real decode: ffmpeg's sample format, channels, leading bytes cut off,
// and what sonvex must find. `lowBitsZero`: that many low bits cleared in each 24-bit sample
// (20-bit audio in 24-bit samples).
struct RawCase {
  const char* source;
  const char* map;  // ffmpeg input options and -map
  const char* format;
  int channels;
  int cut;
  int lowBitsZero;
  const char* listing;
  int skip;  // bytes of the cut file that don't belong to a whole sample
};

// The corpus streams carry a white noise floor (about -60 dB) under their tones, under which
// every reading compresses alike; a low-pass takes it out, so that the decode looks like
// program material, which has little energy at the top of the band.
// Runs sonvex on `full` cut by `cut` bytes (written to "in.raw") and checks the PCM written: the
// decode itself, little-endian, from the first whole sample on (`skip` bytes of the cut file
// belong to no whole sample). Where the sizes leave only the channel count open, the analysis
// answers with the list of counts and the most probable one: that one must be right, and given
// as "-N" it must then be taken. `listing`: empty, or the line the source must list as.
void CheckRawRun(const std::string& full, const std::string& format, int channels, int cut,
                 int skip, const std::string& listing) {
  TempDir work;
  std::string cutFile = full.substr(size_t(cut));
  { std::ofstream(work / "in.raw", std::ios::binary) << cutFile; }
  RunResult r = RunSonvex({work / "in.raw", "out.raw"}, work.path());
  const std::string probable =
      "The most probable number of channels is " + std::to_string(channels) + ".";
  if (r.exitCode == 1 && r.HasLine(probable)) {
    EXPECT_TRUE(r.HasLine("Please specify one of these via command line paramater.")) << r.out;
    r = RunSonvex({work / "in.raw", "out.raw", "-" + std::to_string(channels)}, work.path());
    EXPECT_TRUE(r.HasLine("The suggested number of " + std::to_string(channels) +
                          " channels is probably correct."))
        << r.out;
  }
  EXPECT_EQ(r.exitCode, 0) << r.out << r.err;
  if (r.exitCode != 0) return;
  if (!listing.empty()) {
    EXPECT_TRUE(r.HasLine(listing)) << r.out;
  }
  std::string little = full;
  int bytes = format == "u8" ? 1 : format[1] == '1' ? 2 : 3;
  if (format.substr(format.size() - 2) == "be")
    for (size_t i = 0; i + size_t(bytes) <= little.size(); i += size_t(bytes))
      std::reverse(little.begin() + long(i), little.begin() + long(i) + bytes);
  std::string expected = little.substr(size_t(cut + skip));
  // Big-endian 5.1 and 7.1 are taken for Blu-ray LPCM, stored L R C Ls Rs LFE and
  // L R C Ls Rs Lb Rb LFE, and come out in the program's WAV order for those ("bluray" remap).
  // The remap works on whole frames; otherwise a frame cut short at the end passes as it is.
  static const int kBluray6[] = {0, 1, 2, 5, 3, 4};
  static const int kBluray8[] = {0, 1, 2, 7, 4, 5, 3, 6};
  const size_t frame = size_t(bytes * channels);
  if (format.substr(format.size() - 2) == "be" && (channels == 6 || channels == 8)) {
    expected.resize(expected.size() / frame * frame);
    const int* order = channels == 6 ? kBluray6 : kBluray8;
    std::string stored = expected;
    for (size_t at = 0; at < expected.size(); at += frame)
      for (int c = 0; c < channels; c++)
        expected.replace(at + size_t(c * bytes), size_t(bytes), stored, at + size_t(order[c] * bytes),
                         size_t(bytes));
  } else if (cut == 0) {
    expected.resize(expected.size() / frame * frame);
  }
  std::string out = ReadFile(work.path() / "out.raw");
  EXPECT_EQ(out.size(), expected.size());
  EXPECT_TRUE(out == expected);
}

// Clears the low `bits` bits of every 24-bit sample (20-bit audio in 24-bit samples).
void ClearLowBits(std::string& data, bool bigEndian, int bits) {
  for (size_t i = bigEndian ? 2 : 0; i < data.size(); i += 3)
    data[i] = char(uint8_t(data[i]) & uint8_t(0xFF << bits));
}

// The corpus streams carry a white noise floor (about -60 dB) under their tones, under which
// every reading compresses alike; a low-pass takes it out, so that the decode looks like
// program material, which has little energy at the top of the band.
// Makes each raw file and checks what sonvex makes of it.
void CheckRawCases(const std::vector<RawCase>& cases) {
  for (const RawCase& c : cases) {
    SCOPED_TRACE(std::string(c.format) + " " + std::to_string(c.channels) + " channels, cut " +
                 std::to_string(c.cut));
    TempDir work;
    Ffmpeg(std::string("-stream_loop 9 -i ") + ShellQuote(Gen(c.source)) + " " + c.map + " -t 12 -af lowpass=f=3000,lowpass=f=3000 -ac " +
               std::to_string(c.channels) + " -f " + c.format + " full.raw",
           work.path());
    std::string full = ReadFile(work.path() / "full.raw");
    if (c.lowBitsZero) ClearLowBits(full, false, c.lowBitsZero);
    CheckRawRun(full, c.format, c.channels, c.cut, c.skip, c.listing);
  }
}

// Every candidate layout, made from the decode of a real film's 7.1 E-AC3 track (5 seconds)
// mixed to 1 to 8 channels by ffmpeg: 16, 20 (24-bit samples with the low 4 bits clear) and 24
// bits, both byte orders, and files cut 1 or 2 bytes into a sample. Mono at 24 bits carries eight
// bits of the decoder's rounding noise in every sample, which costs all readings alike; it gets
// 10 seconds, and its channel count may come as the most probable one of a list.
void CheckFilmLayouts(int bits, const std::string& order) {
  static const char* const kLayoutNames[] = {"", "1.0", "2.0", "3", "4", "5", "5.1", "6.1", "7.1"};
  const std::string format = std::string("s") + (bits == 16 ? "16" : "24") + order;
  struct TCut {
    int cut, skip;
  };
  const std::vector<TCut> cuts =
      bits == 16 ? std::vector<TCut>{{0, 0}, {1, 1}} : std::vector<TCut>{{0, 0}, {1, 2}, {2, 1}};
  for (int channels = 1; channels <= 8; channels++) {
    TempDir work;
    const bool longer = bits == 24 && channels == 1;
    Ffmpeg(std::string(longer ? "-stream_loop 1 " : "") + "-i " +
               ShellQuote((CorpusDir() / "public/eac3/the_great_wall_7.1.eac3").string()) +
               " -t " + (longer ? "10" : "5") + " -ac " + std::to_string(channels) + " -f " +
               format + " full.raw",
           work.path());
    std::string full = ReadFile(work.path() / "full.raw");
    if (bits == 20) ClearLowBits(full, order == "be", 4);
    // Cut files are tried with one, two and six channels.
    for (const TCut& cut : cuts) {
      if (cut.cut && channels != 1 && channels != 2 && channels != 6) continue;
      SCOPED_TRACE(std::to_string(bits) + " bits " + order + ", " + std::to_string(channels) +
                   " channels, cut " + std::to_string(cut.cut));
      std::string listing = std::string("RAW/PCM, ") + kLayoutNames[channels] + " channels, 0:00:" +
                            (longer ? "10" : "05") + ", " + (bits == 16 ? "16" : "24") +
                            " bits, 48khz";
      CheckRawRun(full, format, channels, cut.cut, cut.skip, cut.cut ? "" : listing);
    }
  }
}

TEST_F(PcmRun, EveryLayoutOfAFilmTrackIsRecognisedAt16BitsLittleEndian) {
  CheckFilmLayouts(16, "le");
}

TEST_F(PcmRun, EveryLayoutOfAFilmTrackIsRecognisedAt16BitsBigEndian) {
  CheckFilmLayouts(16, "be");
}

TEST_F(PcmRun, EveryLayoutOfAFilmTrackIsRecognisedAt20BitsLittleEndian) {
  CheckFilmLayouts(20, "le");
}

TEST_F(PcmRun, EveryLayoutOfAFilmTrackIsRecognisedAt20BitsBigEndian) {
  CheckFilmLayouts(20, "be");
}

TEST_F(PcmRun, EveryLayoutOfAFilmTrackIsRecognisedAt24BitsLittleEndian) {
  CheckFilmLayouts(24, "le");
}

TEST_F(PcmRun, EveryLayoutOfAFilmTrackIsRecognisedAt24BitsBigEndian) {
  CheckFilmLayouts(24, "be");
}

TEST_F(PcmRun, EveryCandidateLayoutIsRecognisedAt8And16Bits) {
  CheckRawCases({
        {"ac3_51_448k.ac3", "", "s16le", 1, 0, 0, "RAW/PCM, 1.0 channels, 0:00:12, 16 bits, 48khz", 0},
        {"ac3_51_448k.ac3", "", "s16be", 2, 0, 0, "RAW/PCM, 2.0 channels, 0:00:12, 16 bits, 48khz", 0},
        {"ac3_51_448k.ac3", "", "u8", 2, 0, 0, "RAW/PCM, 2.0 channels, 0:00:12, 8 bits, 48khz", 0},
        {"ac3_51_448k.ac3", "", "s16le", 5, 0, 0, "RAW/PCM, 5 channels, 0:00:12, 16 bits, 48khz", 0},
        {"bd_lpcm_variants.m2ts", "-map 0:a:2", "s16le", 7, 0, 0, "RAW/PCM, 6.1 channels, 0:00:12, 16 bits, 48khz", 0},
        {"ac3_51_448k.ac3", "", "s16le", 1, 1, 0, "RAW/PCM, 1.0 channels, 0:00:12, 16 bits, 48khz", 1},
  });
}

// 24-bit samples, also holding 20-bit audio (low 4 bits clear). Eight channels of the corpus's
// 7.1 (eight tones under one noise floor) are not told apart from other counts: not listed.
TEST_F(PcmRun, EveryCandidateLayoutIsRecognisedAt24Bits) {
  CheckRawCases({
        {"truehd_51_48k.thd", "", "s24le", 3, 0, 0, "RAW/PCM, 3 channels, 0:00:12, 24 bits, 48khz", 0},
        {"truehd_51_48k.thd", "", "s24le", 6, 0, 4, "RAW/PCM, 5.1 channels, 0:00:12, 24 bits, 48khz", 0},
        {"truehd_51_48k.thd", "", "s24le", 1, 1, 0, "RAW/PCM, 1.0 channels, 0:00:12, 24 bits, 48khz", 2},
  });
}

TEST_F(PcmRun, OptionsOverrideTheAnalysis) {
  // Read as mono 16-bit although it is stereo: the options stand, nothing is analysed.
  RunResult r = Sonvex({Gen("pcm_s16le_20_48k.raw"), "out.wav", "-1", "-16", "-44100", "-little",
                        "-override"});
  ASSERT_EQ(r.exitCode, 0) << r.out << r.err;
  EXPECT_TRUE(r.HasLine("RAW/PCM, 1.0 channels, 0:00:13, 16 bits, 44.1khz")) << r.out;
  EXPECT_EQ(r.out.find("seems to"), std::string::npos) << r.out;
  Wav wav = ReadWav(dir.path() / "out.wav");
  EXPECT_EQ(wav.channels, 1);
  EXPECT_EQ(wav.rate, 44100u);
  EXPECT_EQ(wav.data, ReadFile(Gen("pcm_s16le_20_48k.raw")));
  // A suggestion that doesn't fit is refused by the analysis.
  RunResult wrong = Sonvex({Gen("pcm_s16le_20_48k.raw"), "out2.wav", "-6"});
  EXPECT_EQ(wrong.exitCode, 1);
  EXPECT_TRUE(wrong.HasLine("The suggested number of 6 channels doesn't seem to fit.")) << wrong.out;
}

TEST_F(PcmRun, BadRawFilesEndWithAMessage) {
  struct Bad {
    const char* name;
    std::function<std::string()> make;
  } cases[] = {
      {"three.raw", [] { return std::string("\1\2\3"); }},
      {"noise.raw",
       [] {
         std::string s(3 << 20, '\0');
         uint64_t x = 88172645463325252ull;
         for (char& c : s) x ^= x << 13, x ^= x >> 7, x ^= x << 17, c = char(x >> 56);
         return s;
       }},
      {"silence.raw", [] { return std::string(1 << 20, '\0'); }},
  };
  for (const Bad& c : cases) {
    SCOPED_TRACE(c.name);
    { std::ofstream(dir / c.name, std::ios::binary) << c.make(); }
    RunResult r = Sonvex({dir / c.name, "out.wav"});
    EXPECT_EQ(r.exitCode, 1) << r.out;
    EXPECT_TRUE(r.HasLine("The format of the source file could not be detected.")) << r.out;
    EXPECT_FALSE(fs::exists(dir.path() / "out.wav"));
  }
}

// ffmpeg's decode of a source's first audio stream as 24-bit samples (the low byte of s32).
std::vector<int32_t> Decode24(const std::string& source, const std::string& map,
                              const fs::path& dir) {
  Ffmpeg("-i " + ShellQuote(source) + " " + map + " -f s32le -c:a pcm_s32le ref.raw", dir);
  std::vector<int32_t> s = Samples(ReadFile(dir / "ref.raw"), 4);
  for (int32_t& v : s) v = int32_t(std::lround(v / 256.0));
  return s;
}

// The factors applied to a decode: output channel k of frame f = sum of factor/256 * input,
// clipped to 24 bits.
using TMatrix = std::vector<std::vector<std::pair<int, double>>>;
std::vector<int32_t> Apply(const std::vector<int32_t>& in, int channels, const TMatrix& m) {
  std::vector<int32_t> out;
  for (size_t f = 0; f + size_t(channels) <= in.size(); f += size_t(channels)) {
    for (const auto& row : m) {
      double sum = 0;
      for (auto [c, factor] : row) sum += factor / 256 * in[f + size_t(c)];
      out.push_back(int32_t(std::clamp(std::lround(sum), -8388608L, 8388607L)));
    }
  }
  return out;
}

struct DownmixCase {
  const char* source;
  const char* map;
  std::vector<std::string> options;
  int channels;
  std::vector<TMatrix> matrices;  // applied in turn, each clipping
  uint32_t mask;
  int bound;  // LSB of 24 bits
};

const TMatrix kDown2 = {{{0, 128}, {2, 91}, {4, 111}, {5, 64}},
                        {{1, 128}, {2, 91}, {4, -64}, {5, -111}}};
const TMatrix kDown2Lfe = {{{0, 128}, {2, 91}, {3, 91}, {4, 111}, {5, 64}},
                           {{1, 128}, {2, 91}, {3, 91}, {4, -64}, {5, -111}}};
const TMatrix kDown6 = {{{0, 256}}, {{1, 256}}, {{2, 256}}, {{3, 256}},
                        {{4, 256}, {6, 181}}, {{5, 256}, {7, 181}}};

// Each contribution through a factor is dithered back to 24 bits (TPDF of +-1 LSB, then
// rounding): at most 1.5 LSB each. The AC3 decode (float) adds the dither of the decoder's own
// reduction to 24 bits, scaled by the factors.
TEST_F(PcmRun, DownmixesMatchTheFactorsOnFfmpegsDecode) {
  const DownmixCase cases[] = {
      {"truehd_51_48k.thd", "", {"-down2"}, 6, {kDown2}, 3, 6},
      {"truehd_51_48k.thd", "", {"-down2", "-mixlfe"}, 6, {kDown2Lfe}, 3, 8},
      {"wav_51_24.wav", "", {"-down2"}, 6, {kDown2}, 3, 6},
      {"ac3_51_448k.ac3", "", {"-down2", "-mixlfe"}, 6, {kDown2Lfe}, 3, 12},
      {"bd_lpcm_variants.m2ts", "-map 0:a:2", {"-down6"}, 8, {kDown6}, 0x3F, 2},
      {"bd_lpcm_variants.m2ts", "-map 0:a:2", {"-down2"}, 8, {kDown6, kDown2}, 3, 10},
  };
  for (const DownmixCase& c : cases) {
    SCOPED_TRACE(std::string(c.source) + " " + c.options[0] + (c.options.size() > 1 ? " -mixlfe" : ""));
    TempDir work;
    std::vector<std::string> args = {Gen(c.source)};
    if (std::string(c.source).find(".m2ts") != std::string::npos) args.push_back("4:");
    args.push_back("out.wav");
    args.insert(args.end(), c.options.begin(), c.options.end());
    RunResult r = RunSonvex(args, work.path());
    ASSERT_EQ(r.exitCode, 0) << r.out << r.err;
    fs::path file = work.path() / "out.wav";
    if (!fs::exists(file)) file = work.path() / "out.24bit.wav";
    Wav wav = ReadWav(file);
    EXPECT_EQ(wav.channels, c.matrices.back().size());
    EXPECT_EQ(wav.bits, 24);
    if (wav.mask) {
      EXPECT_EQ(wav.mask, c.mask);
    }
    std::vector<int32_t> expected = Decode24(Gen(c.source), c.map, work.path());
    int channels = c.channels;
    for (const TMatrix& m : c.matrices) {
      expected = Apply(expected, channels, m);
      channels = int(m.size());
    }
    std::vector<int32_t> got = Samples(wav.data, 3);
    ASSERT_EQ(got.size(), expected.size());
    int worst = 0;
    size_t where = 0;
    for (size_t i = 0; i < got.size(); i++) {
      int d = std::abs(got[i] - expected[i]);
      if (d > worst) worst = d, where = i;
    }
    EXPECT_LE(worst, c.bound) << "sample " << where;
    RecordProperty(std::string("worst_") + c.source, worst);
  }
}

struct ResampleCase {
  const char* source;
  const char* track;  // "" for a bare file
  uint32_t from, to;
};

// Against `sox ... rate -v` (libsoxr's very high quality, linear phase) written at 32 bits so
// that sox adds no dither: the peak difference stays below -100 dBFS, and the length is
// round(input * to / from) exactly.
TEST_F(PcmRun, ResamplingKeepsTheLengthAndMatchesSox) {
  SKIP_WITHOUT_TOOL("sox");
  const ResampleCase cases[] = {
      {"bd_lpcm_variants.m2ts", "5:", 96000, 48000},
      {"wav_20_24.wav", "", 48000, 44100},
      {"wav_20_16_44k.wav", "", 44100, 48000},
  };
  for (const ResampleCase& c : cases) {
    SCOPED_TRACE(c.source);
    TempDir work;
    std::vector<std::string> args = {Gen(c.source)};
    if (*c.track) args.push_back(c.track);
    args.insert(args.end(), {"out.wav", "-resampleTo" + std::to_string(c.to), "-quality=4"});
    RunResult r = RunSonvex(args, work.path());
    ASSERT_EQ(r.exitCode, 0) << r.out << r.err;
    EXPECT_TRUE(r.out.find("] Resampling to " + std::string(c.to == 48000 ? "48" : "44.1") + "khz...\n") !=
                    std::string::npos)
        << r.out;
    Wav wav = ReadWav(work.path() / "out.wav");
    EXPECT_EQ(wav.rate, c.to);
    EXPECT_EQ(wav.bits, 24);
    std::string map = *c.track ? "-map 0:a:3" : "";
    Ffmpeg("-i " + ShellQuote(Gen(c.source)) + " " + map + " -c:a pcm_s32le in.wav", work.path());
    RunResult sox = RunShell("sox in.wav -b 32 -e signed-integer ref.wav rate -v " +
                                 std::to_string(c.to),
                             work.path());
    ASSERT_EQ(sox.exitCode, 0) << sox.err;
    std::vector<int32_t> in = Samples(ReadWav(work.path() / "in.wav").data, 4);
    const size_t frames = in.size() / wav.channels;
    const size_t length = size_t(std::trunc((long double)frames * c.to / c.from + 0.5L));
    std::vector<int32_t> got = Samples(wav.data, 3);
    EXPECT_EQ(got.size(), length * wav.channels);
    std::vector<int32_t> ref = Samples(ReadWav(work.path() / "ref.wav").data, 4);
    double worst = 0;
    for (size_t i = 0; i < std::min(got.size(), ref.size()); i++)
      worst = std::max(worst, std::abs(got[i] - ref[i] / 256.0));
    double db = 20 * std::log10((worst + 1e-9) / 8388608.0);
    EXPECT_LT(db, -100.0) << "peak difference " << worst << " LSB";
    RecordProperty(std::string("peak_db_") + c.source, std::to_string(db));
  }
}

// PAL speedup (23.976 to 25 fps: the same samples played 25/23.976 times faster) keeps the
// nominal rate and shortens the stream; slowdown brings it back.
TEST_F(PcmRun, SpeedupAndSlowdownGiveTheLengthsOfTheirRates) {
  RunResult up = Sonvex({Gen("wav_20_24.wav"), "fast.wav", "-speedup"});
  ASSERT_EQ(up.exitCode, 0) << up.out << up.err;
  EXPECT_TRUE(up.HasLine("[a01] Applying PAL speedup...")) << up.out;
  Wav fast = ReadWav(dir.path() / "fast.wav");
  Wav original = ReadWav(Gen("wav_20_24.wav"));
  const long double n = original.data.size() / 6;
  const long double upRate = 48000.0L * 24 / 1.001L / 25;
  const size_t fastFrames = size_t(std::trunc(n * upRate / 48000 + 0.5L));
  EXPECT_EQ(fast.rate, 48000u);
  EXPECT_EQ(fast.data.size(), fastFrames * 6);
  RunResult down = Sonvex({dir / "fast.wav", "slow.wav", "-slowdown"});
  ASSERT_EQ(down.exitCode, 0) << down.out << down.err;
  EXPECT_TRUE(down.HasLine("[a01] Reversing PAL speedup...")) << down.out;
  const long double downRate = 48000.0L / 24 * 1.001L * 25;
  const size_t slowFrames = size_t(std::trunc((long double)fastFrames * downRate / 48000 + 0.5L));
  EXPECT_EQ(ReadWav(dir.path() / "slow.wav").data.size(), slowFrames * 6);
  EXPECT_EQ(slowFrames, size_t(n));
}

// 200 ms of AC3 missing after 5.12 s. Decoded to WAV, the first run reports the gap and writes
// "g.wav.gaps"; the second run inserts exactly 9,600 frames there: the 200 ms of audio before
// the hole, repeated (the realizer fills with the latest second of real audio).
TEST_F(PcmRun, GapsOnADecodedTrackAreFilledOnTheSecondRun) {
  const std::vector<std::string> args = {Gen("bd_gap_long_200ms.m2ts"), "2:", "g.wav"};
  RunResult first = Sonvex(args);
  ASSERT_EQ(first.exitCode, 0) << first.out << first.err;
  EXPECT_TRUE(first.HasLine("[a02] Audio has a gap of 200ms at playtime 0:00:05.")) << first.out;
  ASSERT_TRUE(fs::exists(dir.path() / "g.wav.gaps"));
  Wav before = ReadWav(dir.path() / "g.wav");
  RunResult second = Sonvex(args);
  ASSERT_EQ(second.exitCode, 0) << second.out << second.err;
  EXPECT_TRUE(second.HasLine("[a02] Realizing RAW/PCM gaps...")) << second.out;
  Wav after = ReadWav(dir.path() / "g.wav");
  const size_t frame = size_t(before.channels) * before.bits / 8;
  ASSERT_EQ(after.data.size(), before.data.size() + 9600 * frame);
  size_t at = 0;
  while (at < before.data.size() && before.data[at] == after.data[at]) at++;
  at = at / frame * frame;
  // Where the gap file puts it: the time the reader saw the drift, less the drift. The hole is
  // after 5.12 s of audio; the reader sees it by the time stamp of a later PES packet.
  std::string record = ReadFile(dir.path() / "g.wav.gaps");
  ASSERT_EQ(record.size(), 16u);
  int64_t time = 0, drift = 0;
  std::memcpy(&time, record.data(), 8);
  std::memcpy(&drift, record.data() + 8, 8);
  EXPECT_EQ(drift, 2000000);
  EXPECT_EQ(at / frame, size_t((time - drift) * 480 / 100000));
  EXPECT_NEAR(double(at) / frame, 5.12 * 48000, 0.1 * 48000);
  EXPECT_EQ(after.data.substr(at, 9600 * frame), before.data.substr(at - 9600 * frame, 9600 * frame));
  EXPECT_TRUE(after.data.substr(at + 9600 * frame) == before.data.substr(at));
}

// A ".gaps" file with one overlap of 100 ms at 3 s, on a WAV source: exactly 4,800 frames go.
TEST_F(PcmRun, OverlapOnPcmRemovesExactlyItsSamples) {
  fs::copy_file(Gen("wav_20_24.wav"), dir.path() / "in.wav");
  const int64_t entry[2] = {30000000, -1000000};
  { std::ofstream(dir / "o.wav.gaps", std::ios::binary).write(reinterpret_cast<const char*>(entry), 16); }
  RunResult r = Sonvex({"in.wav", "o.wav"});
  ASSERT_EQ(r.exitCode, 0) << r.out << r.err;
  EXPECT_TRUE(r.HasLine("[a01] Audio gap description file detected, will be used for processing..."))
      << r.out;
  std::string in = ReadWav(dir.path() / "in.wav").data, out = ReadWav(dir.path() / "o.wav").data;
  ASSERT_EQ(out.size(), in.size() - 4800 * 6);
  const size_t at = 3 * 48000 * 6;
  EXPECT_TRUE(out.substr(0, at) == in.substr(0, at));
  EXPECT_TRUE(out.substr(at) == in.substr(at + 4800 * 6));
}

TEST_F(PcmRun, DelayOnWavAddsOrDropsExactSamples) {
  std::string in = ReadWav(Gen("wav_20_24.wav")).data;
  RunResult later = Sonvex({Gen("wav_20_24.wav"), "later.wav", "+100ms"});
  ASSERT_EQ(later.exitCode, 0) << later.out << later.err;
  std::string out = ReadWav(dir.path() / "later.wav").data;
  ASSERT_EQ(out.size(), in.size() + 4800 * 6);
  EXPECT_EQ(out.substr(0, 4800 * 6), std::string(4800 * 6, '\0'));
  EXPECT_TRUE(out.substr(4800 * 6) == in);
  RunResult earlier = Sonvex({Gen("wav_20_24.wav"), "earlier.wav", "-100ms"});
  ASSERT_EQ(earlier.exitCode, 0) << earlier.out << earlier.err;
  EXPECT_EQ(ReadWav(dir.path() / "earlier.wav").data.size(), in.size() - 4800 * 6);
}

// "-mono": left and right at half level each, one 24-bit channel with the centre mask.
TEST_F(PcmRun, MonoMixesLeftAndRight) {
  RunResult r = Sonvex({Gen("wav_20_24.wav"), "m.wav", "-mono"});
  ASSERT_EQ(r.exitCode, 0) << r.out << r.err;
  Wav wav = ReadWav(dir.path() / "m.wav");
  EXPECT_EQ(wav.channels, 1);
  EXPECT_EQ(wav.bits, 24);
  if (wav.mask) {
    EXPECT_EQ(wav.mask, 4u);
  }
  std::vector<int32_t> in = Samples(ReadWav(Gen("wav_20_24.wav")).data, 3);
  std::vector<int32_t> out = Samples(wav.data, 3);
  ASSERT_EQ(out.size() * 2, in.size());
  int worst = 0;
  for (size_t i = 0; i < out.size(); i++)
    worst = std::max(worst, int(std::abs(out[i] - std::lround((in[2 * i] + in[2 * i + 1]) / 2.0))));
  EXPECT_LE(worst, 4);  // two dithered halves of at most 1.5 LSB each, then the rounding
}

}  // namespace
}  // namespace sonvex::test
