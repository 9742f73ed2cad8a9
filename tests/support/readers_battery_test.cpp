// Every stream reader through the one parser battery, as a table: the reader (in the chain's
// mode and in format detection's strict mode), the stream, and what it must send for it.
#include "ac3/ac3reader.h"
#include "ac3/ac3testutil.h"
#include "codecs/wavreader.h"
#include "dts/dtsreader.h"
#include "dts/dtstestutil.h"
#include "mp2/mp2reader.h"
#include "support/battery.h"
#include "thd/thdbitstream.h"
#include "thd/thdreader.h"

namespace sonvex::test {
namespace {

// The first `units` TrueHD access units of a corpus stream.
Bytes ThdUnits(const std::string& file, int units) {
  Bytes bytes = ReadBytes(Corpus(file));
  size_t at = 0;
  for (int i = 0; i < units && at + 4 <= bytes.size(); i++) at += ThdUnitSize(bytes.data() + at);
  return Slice(bytes, 0, std::min(at, bytes.size()));
}
Bytes Head(const std::string& file, size_t size) {
  Bytes bytes = ReadBytes(Corpus(file));
  return Slice(bytes, 0, std::min(size, bytes.size()));
}

// A WAV file of 24-bit stereo with a LIST chunk ahead of the data, and its payload.
Bytes WavPayload() {
  Bytes payload(3000);
  for (size_t i = 0; i < payload.size(); i++) payload[i] = uint8_t(i * 31 + 5);
  return payload;
}
Bytes WavFile() {
  BitWriter w;
  auto le = [&w](int bytes, uint32_t value) {
    for (int i = 0; i < bytes; i++) w.Put(8, value >> (8 * i) & 0xFF);
  };
  auto tag = [&w](const char* t) {
    for (int i = 0; i < 4; i++) w.Put(8, uint8_t(t[i]));
  };
  tag("RIFF"), le(4, 36 + 18 + 3000), tag("WAVE");
  tag("fmt "), le(4, 16), le(2, 1), le(2, 2), le(4, 48000), le(4, 48000 * 6), le(2, 6), le(2, 24);
  tag("LIST"), le(4, 10);
  for (int i = 0; i < 10; i++) w.Put(8, 'i');
  tag("data"), le(4, 3000);
  return Concat({w.bytes, WavPayload()});
}

struct Row {
  const char* name;
  StageFactory make;
  std::function<Bytes()> stream;
  std::function<Bytes()> expected = nullptr;  // the stream itself when not given
  bool corpus = true;
};

TEST(ReaderBattery, EveryReader) {
  using dtstest::CoreFrame, dtstest::HdFrame, dtstest::kXll;
  auto ac3Chain = [] { return UpStreamRef(TAc3Reader::Create("", "", false)); };
  auto ac3Probe = [] { return UpStreamRef(TAc3Reader::Create()); };
  auto thdChain = [] { return UpStreamRef(TThdReader::Create("", "", false, false)); };
  auto thdProbe = [] { return UpStreamRef(TThdReader::Create()); };
  auto mp2Chain = [] { return UpStreamRef(TMp2Reader::Create("", "", false)); };
  auto mp2Probe = [] { return UpStreamRef(TMp2Reader::Create()); };
  auto dts = [] { return UpStreamRef(TDtsReader::Create()); };
  auto ac3 = [] { return ReadBytes(Corpus("gen/ac3_20_192k.ac3")); };
  auto spx = [] { return ReadBytes(Corpus("public/eac3/csi_miami_5.1_256_spx_small.eac3")); };
  auto wall = [] { return Head("public/eac3/the_great_wall_7.1.eac3", 4608 * 40); };
  auto thd = [] { return ThdUnits("gen/truehd_20_48k.thd", 200); };
  auto mp2 = [] { return Head("gen/mp2_20_224k.mp2", 672 * 40); };
  const Row rows[] = {
      {"AC3", ac3Chain, ac3},
      {"AC3, strict", ac3Probe, ac3},
      {"E-AC3 with SPX", ac3Chain, spx},
      {"E-AC3 with SPX, strict", ac3Probe, spx},
      {"E-AC3 7.1 behind an AC3 core", ac3Chain, wall},
      {"E-AC3 7.1 behind an AC3 core, strict", ac3Probe, wall},
      {"DTS core frames", dts,
       [] {
         Bytes stream;
         for (int i = 0; i < 12; i++)
           stream = Concat({stream, CoreFrame({.fillByte = uint8_t(i * 17 + 1)})});
         return stream;
       },
       nullptr, false},
      {"DTS-HD frames", dts, [] { return Repeat(HdFrame(kXll, 700), 8); }, nullptr, false},
      {"TrueHD", thdChain, thd},
      {"TrueHD, strict", thdProbe, thd},
      {"TrueHD/AC3", [] { return UpStreamRef(TThdReader::Create("", "", true, false)); },
       [] { return ReadBytes(Corpus("public/truehd/dts1_truehd_ac3_interleaved.thdac3")); }},
      {"MP2", mp2Chain, mp2},
      {"MP2, strict", mp2Probe, mp2},
      {"WAV with a LIST chunk", [] { return UpStreamRef(TWavReader::Create()); }, WavFile,
       WavPayload, false},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    if (row.corpus && !HaveCorpus()) continue;
    Bytes stream = row.stream();
    ASSERT_GT(stream.size(), 1000u);
    RunParserBattery(row.make, stream, row.expected ? row.expected() : stream);
  }
}

}  // namespace
}  // namespace sonvex::test
