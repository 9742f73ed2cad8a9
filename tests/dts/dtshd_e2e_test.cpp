// DTS beyond the plain stream through the real binary, as a table: .dtshd container files,
// DTS-HD without core, the Hi-Res bit rate, a damaged frame size, and DTS in a transport stream
// without descriptors. Oracles: the raw streams beside the .dtshd files, ffmpeg's -bsf:a dca_core,
// the reference WAVs, ffprobe.
#include <gtest/gtest.h>

#include "dtstestutil.h"
#include "support/e2e_table.h"

namespace sonvex::dtstest {
namespace {

fs::path DtsDir() { return CorpusDir() / "public/dts"; }
const std::string kDts = "{corpus}/public/dts/";
const char* const kNotClean = "This track is not clean. Processing aborted.";

// A stream of DTS-HD substreams only: the cores cut out of a Master Audio stream.
void MakeCoreless(const fs::path& dir) {
  auto stream = ReadBytes(DtsDir() / "xll_51_24_48_768.dts");
  std::vector<uint8_t> coreless;
  for (size_t at = 0; at < stream.size();) {
    uint32_t core = DtsCoreSize(stream.data() + at);
    size_t next = at + core;
    while (next + 4 <= stream.size() && !DtsSyncAt(stream.data(), stream.size(), next, kDtsCoreSync)) next++;
    if (next + 4 > stream.size()) next = stream.size();
    coreless.insert(coreless.end(), stream.begin() + long(at + core), stream.begin() + long(next));
    at = next;
  }
  WriteBytes(dir / "hd.dtsma", coreless);
}

// The frame size of frame 20 of a DTS-ES stream made larger or smaller by `delta`.
std::function<void(const fs::path&)> DamageFrameSize(int delta) {
  return [delta](const fs::path& dir) {
    auto stream = ReadBytes(DtsDir() / "dts_es_61.dts");
    uint32_t frame = DtsCoreSize(stream.data());
    uint8_t* p = stream.data() + frame * 20;
    uint32_t size = DtsCoreSize(p) - 1 + uint32_t(delta ? delta : int(frame));
    p[5] = uint8_t((p[5] & 0xFC) | (size >> 12));
    p[6] = uint8_t(size >> 4);
    p[7] = uint8_t((p[7] & 0x0F) | (size & 15) << 4);
    WriteBytes(dir / "x.dts", stream);
  };
}

std::string Core(const std::string& source) {
  return "$ ffmpeg -v error -i " + source + " -c copy -bsf:a dca_core -f dts -";
}

TEST(DtsEndToEnd, Table) {
  SKIP_WITHOUT_CORPUS();
  const std::string ts = "{corpus}/public/ts/dts_in_ts.ts";
  const std::string xbr = kDts + "xbr_51_24_48_3840";
  std::vector<TE2eCase> cases = {
      // Hi-Res lists the core's coded rate (ffprobe's rate of ffmpeg's dca_core) grown by the
      // extension's share of the stream, with the product in 64 bits: in 32 bits it wraps to 1,774.
      {.name = "Hi-Res bit rate in 64 bits",
       .args = {xbr + ".dtshd"},
       .lines = {"DTS Hi-Res, 5.1 channels, 0:00:00, 24 bits, 3,908kbit/s, 48khz"},
       .before = {"ffmpeg -v error -i " + xbr + ".dtshd -c copy -bsf:a dca_core -f dts core.dts && "
                  "test $(( $(ffprobe -v error -f dts -show_entries stream=bit_rate -of csv=p=0 core.dts)"
                  " * $(stat -c %s " + xbr + ".dts) / $(stat -c %s core.dts) / 1000 )) = 3908"},
       .tools = {"ffmpeg", "ffprobe"}},
      {.name = "DTS-HD without core listing",
       .args = {"hd.dtsma"},
       .lines = {"DTS Master Audio, 5.1 channels, 24 bits, 48khz"},
       .before = {"test \"$(ffprobe -v error -f dts -show_entries stream=profile,channels,sample_rate "
                  "-of csv=p=0 hd.dtsma)\" = 'DTS-HD MA,48000,6'"},
       .tools = {"ffprobe"},
       .make = MakeCoreless},
      {.name = "DTS-HD without core copy",
       .args = {"hd.dtsma", "copy.dtsma"},
       .same = {{"copy.dtsma", "hd.dtsma"}},
       .make = MakeCoreless},
      // DTS in a TS, stream type 6 with no descriptor: found by its payload.
      {.name = "DTS in TS listing",
       .args = {ts},
       .lines = {"1: DTS, 5.1 channels, 24 bits, 768kbit/s, 48khz"},
       .before = {"ffprobe -v error -select_streams a:0 -show_entries stream=codec_name,channels,"
                  "sample_rate,bit_rate -of csv=p=0 " + ts + " | grep -qx dts,48000,6,768000"},
       .tools = {"ffprobe"}},
      {.name = "DTS in TS demux",
       .args = {ts, "1:", "out.dts", "-keepDialnorm", "-dontPatchDts"},
       .same = {{"out.dts", "$ ffmpeg -v error -i " + ts + " -map 0:a:0 -c copy -f dts -"}},
       .tools = {"ffmpeg"}},
  };
  // Every .dtshd copies to its raw stream, and its core is ffmpeg's.
  int stems = 0;
  for (const auto& entry : fs::directory_iterator(DtsDir())) {
    fs::path raw = fs::path(entry.path()).replace_extension(".dts");
    if (entry.path().extension() != ".dtshd" || !fs::exists(raw)) continue;
    std::string source = entry.path().string();
    stems++;
    cases.push_back({.name = source,
                     .args = {source, "copy.dts", "-keepDialnorm", "-dontPatchDts"},
                     .same = {{"copy.dts", raw.string()}}});
    cases.push_back({.name = source + " core",
                     .args = {source, "core.dts", "-core", "-keepDialnorm", "-dontPatchDts"},
                     .same = {{"core.dts", Core(source)}},
                     .tools = {"ffmpeg"}});
  }
  EXPECT_GE(stems, 7);
  // A frame size damaged in the middle of the stream, larger or smaller: the "not clean" pair.
  for (int delta : {-64, 64, 0})
    cases.push_back({.name = "damaged frame size " + std::to_string(delta),
                     .args = {"x.dts", "y.dts"},
                     .exitCode = 1,
                     .messages = {kNotClean},
                     .absent = {"y.dts"},
                     .make = DamageFrameSize(delta)});
  RunE2eTable(cases);
}

// Samples of a WAV file's data chunk as signed values, channel after channel interleaved.
struct Wav {
  uint32_t channels = 0, bits = 0;
  std::vector<int32_t> samples;
};
Wav ReadWav(const fs::path& path) {
  Wav wav;
  auto bytes = ReadBytes(path);
  size_t at = 12;
  while (at + 8 <= bytes.size()) {
    std::string id(bytes.begin() + long(at), bytes.begin() + long(at) + 4);
    uint32_t size = uint32_t(bytes[at + 4] | bytes[at + 5] << 8 | bytes[at + 6] << 16 | bytes[at + 7] << 24);
    if (id == "fmt ") {
      wav.channels = bytes[at + 10] | bytes[at + 11] << 8;
      wav.bits = bytes[at + 22] | bytes[at + 23] << 8;
    } else if (id == "data") {
      uint32_t width = wav.bits / 8;
      size = std::min<uint32_t>(size, uint32_t(bytes.size() - at - 8));
      for (size_t i = at + 8; i + width <= at + 8 + size; i += width) {
        int32_t v = 0;
        for (uint32_t b = 0; b < width; b++) v |= int32_t(bytes[i + b]) << (8 * b);
        v = int32_t(uint32_t(v) << (32 - wav.bits)) >> (32 - wav.bits);
        wav.samples.push_back(v);
      }
      break;
    }
    at += 8 + size + (size & 1);
  }
  return wav;
}

// The lossless files decode to the reference WAVs bit for bit (they begin 1024 samples in).
TEST(DtsEndToEnd, LosslessDecodeEqualsTheReferenceWavs) {
  SKIP_WITHOUT_CORPUS();
  TempDir dir;
  struct Case {
    const char* stem;
    std::vector<const char*> order;  // the reference channels in WAV order
  };
  const Case cases[] = {
      {"xll_51_24_48_768", {"L", "R", "C", "LFE", "Ls", "Rs"}},
      {"xll_71_24_48_768_0", {"L", "R", "C", "LFE", "Lsr", "Rsr", "Lss", "Rss"}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.stem);
    RunResult r = RunSonvex({(DtsDir() / (std::string(c.stem) + ".dtshd")).string(), "out.wav"},
                            dir.path());
    ASSERT_EQ(r.exitCode, 0) << r.out << r.err;
    Wav decoded = ReadWav(dir / "out.wav");
    ASSERT_EQ(decoded.channels, c.order.size());
    for (size_t ch = 0; ch < c.order.size(); ch++) {
      Wav ref = ReadWav(DtsDir() / "reference" / (std::string(c.stem) + "_" + c.order[ch] + ".wav"));
      ASSERT_EQ(ref.channels, 1u);
      int32_t shift = int32_t(decoded.bits) - int32_t(ref.bits);
      size_t frames = decoded.samples.size() / decoded.channels;
      ASSERT_GE(frames, 1024 + ref.samples.size()) << c.order[ch];
      for (size_t i = 0; i < ref.samples.size(); i++) {
        int32_t got = decoded.samples[(1024 + i) * decoded.channels + ch];
        int32_t want = shift >= 0 ? ref.samples[i] * (1 << shift) : ref.samples[i];
        ASSERT_EQ(got, want) << c.order[ch] << " sample " << i;
      }
    }
    fs::remove(dir / "out.wav");
  }
}

}  // namespace
}  // namespace sonvex::dtstest
