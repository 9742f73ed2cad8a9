// DTS beyond the plain stream: .dtshd container files, DTS-HD without core, the Hi-Res bit rate,
// a damaged frame size, and DTS in a transport stream without descriptors. Oracles: the raw
// streams beside the .dtshd files, ffmpeg's -bsf:a dca_core, the reference WAVs, ffprobe.
#include <gtest/gtest.h>

#include "dtstestutil.h"

namespace sonvex::dtstest {
namespace {

fs::path DtsDir() { return CorpusDir() / "public/dts"; }

void WriteBytes(const fs::path& path, const std::vector<uint8_t>& bytes) {
  std::ofstream(path, std::ios::binary | std::ios::trunc)
      .write(reinterpret_cast<const char*>(bytes.data()), std::streamsize(bytes.size()));
}

std::vector<std::string> DtshdStems() {
  std::vector<std::string> stems;
  for (const auto& entry : fs::directory_iterator(DtsDir()))
    if (entry.path().extension() == ".dtshd" && fs::exists(fs::path(entry.path()).replace_extension(".dts")))
      stems.push_back(entry.path().stem().string());
  std::sort(stems.begin(), stems.end());
  return stems;
}

// Every .dtshd copies to its raw stream, and its core is ffmpeg's.
TEST(DtsHdFile, CopiesToTheRawStreamAndGivesFfmpegsCore) {
  SKIP_WITHOUT_CORPUS();
  SKIP_WITHOUT_TOOL("ffmpeg");
  TempDir dir;
  auto stems = DtshdStems();
  ASSERT_GE(stems.size(), 7u);
  for (const std::string& stem : stems) {
    SCOPED_TRACE(stem);
    std::string source = (DtsDir() / (stem + ".dtshd")).string();
    RunResult r = RunSonvex({source, stem + ".dts", "-keepDialnorm", "-dontPatchDts"}, dir.path());
    EXPECT_EQ(r.exitCode, 0) << r.out << r.err;
    EXPECT_EQ(ReadBytes(dir / (stem + ".dts")), ReadBytes(DtsDir() / (stem + ".dts")));
    r = RunSonvex({source, stem + ".core.dts", "-core", "-keepDialnorm", "-dontPatchDts"},
                  dir.path());
    EXPECT_EQ(r.exitCode, 0) << r.out << r.err;
    ASSERT_EQ(std::system(("ffmpeg -v error -y -i '" + source + "' -c copy -bsf:a dca_core -f dts '" +
                           (dir / (stem + ".ff.dts")) + "'")
                              .c_str()),
              0);
    EXPECT_EQ(ReadBytes(dir / (stem + ".core.dts")), ReadBytes(dir / (stem + ".ff.dts")));
  }
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
TEST(DtsHdFile, LosslessDecodeEqualsTheReferenceWavs) {
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

// Hi-Res lists the core's coded rate (ffprobe's rate of ffmpeg's dca_core) grown by the
// extension's share of the stream, with the product in 64 bits: in 32 bits it wraps to 1,774.
TEST(DtsHdFile, HiResBitRateIsTakenIn64Bits) {
  SKIP_WITHOUT_CORPUS();
  SKIP_WITHOUT_TOOL("ffmpeg");
  TempDir dir;
  std::string source = (DtsDir() / "xbr_51_24_48_3840.dtshd").string();
  ASSERT_EQ(std::system(("ffmpeg -v error -y -i '" + source + "' -c copy -bsf:a dca_core -f dts '" +
                         dir / "core.dts" + "'")
                            .c_str()),
            0);
  uint64_t coreRate = std::stoull(ProbeFacts(dir / "core.dts")["bit_rate"]);
  ASSERT_EQ(coreRate, 1536000u);
  uint64_t rate = coreRate * fs::file_size(DtsDir() / "xbr_51_24_48_3840.dts") /
                  fs::file_size(dir / "core.dts");
  ASSERT_EQ(rate / 1000, 3908u);
  RunResult r = RunSonvex({source}, dir.path());
  EXPECT_TRUE(r.HasLine("DTS Hi-Res, 5.1 channels, 0:00:00, 24 bits, 3,908kbit/s, 48khz")) << r.out;
}

// A stream of DTS-HD substreams only (the cores cut out of a Master Audio stream): listed with
// ffprobe's facts and copied byte for byte.
TEST(DtsHdFile, StreamWithoutCoreIsListedAndCopied) {
  SKIP_WITHOUT_CORPUS();
  SKIP_WITHOUT_TOOL("ffprobe");
  TempDir dir;
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
  auto facts = ProbeFacts((dir / "hd.dtsma"));
  ASSERT_EQ(facts["profile"], "DTS-HD MA");
  ASSERT_EQ(facts["channels"], "6");
  ASSERT_EQ(facts["sample_rate"], "48000");
  RunResult r = RunSonvex({"hd.dtsma"}, dir.path());
  EXPECT_TRUE(r.HasLine("DTS Master Audio, 5.1 channels, 24 bits, 48khz")) << r.out << r.err;
  r = RunSonvex({"hd.dtsma", "copy.dtsma"}, dir.path());
  EXPECT_EQ(r.exitCode, 0) << r.out << r.err;
  EXPECT_EQ(ReadBytes(dir / "copy.dtsma"), coreless);
}

// A frame size damaged in the middle of the stream, larger or smaller: the "not clean" pair.
TEST(DtsHdFile, DamagedFrameSizeEndsTheRun) {
  SKIP_WITHOUT_CORPUS();
  TempDir dir;
  auto stream = ReadBytes(DtsDir() / "dts_es_61.dts");
  uint32_t frame = DtsCoreSize(stream.data());
  ASSERT_GT(stream.size(), frame * 40);
  for (int delta : {-64, 64, int(frame)}) {
    SCOPED_TRACE(delta);
    auto damaged = stream;
    uint8_t* p = damaged.data() + frame * 20;
    uint32_t size = DtsCoreSize(p) - 1 + uint32_t(delta);
    p[5] = uint8_t((p[5] & 0xFC) | (size >> 12));
    p[6] = uint8_t(size >> 4);
    p[7] = uint8_t((p[7] & 0x0F) | (size & 15) << 4);
    WriteBytes(dir / "x.dts", damaged);
    RunResult r = RunSonvex({"x.dts", "y.dts"}, dir.path());
    EXPECT_EQ(r.exitCode, 1);
    std::string all = r.out + r.err;
    EXPECT_NE(all.find("This track is not clean. Processing aborted."), std::string::npos) << all;
    EXPECT_FALSE(fs::exists(dir / "y.dts"));
  }
}

// DTS in a TS, stream type 6 with no descriptor: listed with ffprobe's facts, demuxed as
// ffmpeg -c copy gives it.
TEST(DtsInTs, PrivateStreamWithoutDescriptorIsFoundByItsPayload) {
  SKIP_WITHOUT_CORPUS();
  SKIP_WITHOUT_TOOL("ffmpeg");
  TempDir dir;
  std::string source = (CorpusDir() / "public/ts/dts_in_ts.ts").string();
  std::string facts = Capture("ffprobe -v error -select_streams a:0 -show_entries "
                              "stream=codec_name,channels,sample_rate,bit_rate -of csv=p=0 '" +
                              source + "'");
  ASSERT_EQ(facts.substr(0, facts.find('\n')), "dts,48000,6,768000");
  RunResult r = RunSonvex({source}, dir.path());
  EXPECT_EQ(r.exitCode, 0);
  EXPECT_TRUE(r.HasLine("1: DTS, 5.1 channels, 24 bits, 768kbit/s, 48khz")) << r.out << r.err;
  r = RunSonvex({source, "1:", "out.dts", "-keepDialnorm", "-dontPatchDts"}, dir.path());
  ASSERT_EQ(r.exitCode, 0) << r.out << r.err;
  ASSERT_EQ(std::system(("ffmpeg -v error -y -i '" + source + "' -map 0:a:0 -c copy -f dts '" +
                         (dir / "ff.dts") + "'")
                            .c_str()),
            0);
  EXPECT_EQ(ReadBytes(dir / "out.dts"), ReadBytes(dir / "ff.dts"));
}

}  // namespace
}  // namespace sonvex::dtstest
