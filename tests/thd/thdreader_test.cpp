// TThdReader on the TrueHD and MLP streams of real encoders, on damaged and foreign data, and
// on synthetic variations of real units.
#include "thd/thdreader.h"

#include <sstream>

#include "framework/bitreader.h"
#include "support/battery.h"
#include "thd/thdbitstream.h"
#include "thd/thdtestutil.h"

namespace sonvex::thdtest {
namespace {

struct TUnitSpan {
  size_t offset, size;
  bool majorSync;
};

// The access units of a clean TrueHD or MLP stream, by their length fields.
std::vector<TUnitSpan> WalkUnits(const std::vector<uint8_t>& bytes) {
  std::vector<TUnitSpan> units;
  for (size_t at = 0; at + 8 <= bytes.size();) {
    size_t size = ThdUnitSize(bytes.data() + at);
    uint32_t word = Be32(bytes.data() + at + 4);
    if (size < 4 || at + size > bytes.size()) break;
    units.push_back({at, size, word == kThdMajorSync || word == kMlpMajorSync});
    at += size;
  }
  return units;
}

// Rewrites the check word of the major sync at the front of `unit`.
void FixMajorSync(uint8_t* unit) {
  uint32_t end = MajorSyncEnd(unit);
  uint16_t crc = MajorSyncCrc(unit, 4, end - 2);
  unit[end - 2] = uint8_t(crc >> 8);
  unit[end - 1] = uint8_t(crc);
}

// One row of the MANIFEST_STREAMS table of the generated corpus: channels and sample rate.
bool ManifestFacts(const std::string& file, uint32_t& channels, uint32_t& rate, uint32_t& frames) {
  std::ifstream table(CorpusPath("gen/MANIFEST_STREAMS.tsv"));
  std::string line;
  while (std::getline(table, line)) {
    std::vector<std::string> cells;
    std::stringstream row(line);
    std::string cell;
    while (std::getline(row, cell, '\t')) cells.push_back(cell);
    if (cells.size() < 22 || cells[0] != file) continue;
    channels = uint32_t(std::stoul(cells[6]));
    rate = uint32_t(std::stoul(cells[8]));
    frames = uint32_t(std::stoul(cells[20]));
    return true;
  }
  return false;
}

TEST(ThdReader, ListsCorpusStreamsAndCopiesThemBitExact) {
  SKIP_WITHOUT_CORPUS();
  struct {
    const char* file;
    const char* listing;
    const char* tag;
  } rows[] = {
      {"gen/truehd_20_48k.thd", "TrueHD, 2.0 channels, 48khz, dialnorm: -2dB", "thd"},
      {"gen/truehd_51_48k.thd", "TrueHD, 5.1 channels, 48khz, dialnorm: -2dB", "thd"},
      {"gen/mlp_20_48k.mlp", "MLP, 2.0 channels, 16 bits, 48khz", "mlp"},
      {"public/truehd/fba_2ch.mlp", "TrueHD, 2.0 channels, 48khz", "thd"},
      {"public/truehd/fba_192k.mlp", "TrueHD, 5.1 channels, 192khz, dialnorm: -27dB", "thd"},
      {"public/truehd/fba_atmos_obj.mlp", "TrueHD, 7.1 channels, 48khz", "thd"},
      {"public/truehd/fba_spliced.mlp", "TrueHD, 2.0 channels, 48khz, dialnorm: -27dB", "thd"},
      {"public/truehd/fbb_6ch.mlp", "MLP, 5.1 channels, 24 bits, 48khz", "mlp"},
      {"public/truehd/fbb_copy.mlp", "MLP, 2.0 channels, 24 bits, 48khz", "mlp"},
      {"public/truehd/dts1_truehd_ac3_interleaved.thdac3", "TrueHD/AC3, 7.1 channels, 48khz",
       "thd/ac3"},
  };
  for (auto& row : rows) {
    SCOPED_TRACE(row.file);
    auto bytes = ReadBytes(CorpusPath(row.file));
    ASSERT_FALSE(bytes.empty());
    auto reader = TThdReader::Create("", "", false, false);
    bool ok = false;
    auto capture = Drive(reader, bytes, 16384, ok);
    ASSERT_TRUE(ok);
    auto details = reader->AudioDetails();
    EXPECT_EQ(details->Description(), row.listing);
    EXPECT_EQ(details->Format(), row.tag);
    EXPECT_TRUE(capture->bytes == bytes) << "the stream isn't copied bit for bit";

    // Format detection's strict prober takes the same streams.
    auto prober = TThdReader::Create();
    size_t head = std::min<size_t>(bytes.size(), 200000);
    Drive(prober, Slice(bytes, 0, head), 16384, ok);
    EXPECT_TRUE(ok);
    EXPECT_EQ(prober->AudioDetails()->Description(), row.listing);

    uint32_t channels = 0, rate = 0, frames = 0;
    std::string name = fs::path(row.file).filename();
    if (ManifestFacts(name, channels, rate, frames)) {
      EXPECT_EQ(details->Channels(), channels);
      EXPECT_EQ(details->SampleRate(), rate);
      EXPECT_EQ(capture->blocks.size(), frames) << "one block per access unit";
    }
  }
}

// Damage is reported once; output resumes at the next major sync.
TEST(ThdReader, DamageIsReportedOnceAndScannedOver) {
  SKIP_WITHOUT_CORPUS();
  auto bytes = ReadBytes(CorpusPath("gen/truehd_20_48k.thd"));
  auto units = WalkUnits(bytes);
  ASSERT_GT(units.size(), 1000u);
  // Pick two units without major sync, far apart, each with a major sync some units later.
  size_t first = 100, second = 600;
  while (units[first].majorSync) first++;
  while (units[second].majorSync) second++;
  auto nextSync = [&](size_t i) {
    while (!units[i].majorSync) i++;
    return i;
  };
  size_t resumeFirst = nextSync(first), resumeSecond = nextSync(second);
  ASSERT_LT(resumeFirst, second);

  auto damaged = bytes;
  damaged[units[first].offset + 2] ^= 0x10;  // input timing: the header parity fails
  damaged[units[second].offset] &= 0xF0;     // length field 0 ...
  damaged[units[second].offset + 1] = 1;     // ... or 1 word: no unit at all

  std::vector<uint8_t> expected;
  for (size_t i = 0; i < units.size(); i++) {
    if ((i >= first && i < resumeFirst) || (i >= second && i < resumeSecond)) continue;
    expected.insert(expected.end(), bytes.begin() + long(units[i].offset),
                    bytes.begin() + long(units[i].offset + units[i].size));
  }

  for (size_t piece : {size_t(333), size_t(65536)}) {
    TLogLines log;
    bool ok = false;
    auto reader = TThdReader::Create("", "", false, false);
    auto capture = Drive(reader, damaged, piece, ok);
    EXPECT_TRUE(ok);
    EXPECT_EQ(log.lines, (std::vector<std::pair<int, std::string>>{{1, "This track is not clean."}}));
    EXPECT_TRUE(capture->bytes == expected);
  }

  // Format detection's prober gives up at the first damage.
  bool ok = true;
  auto strict = TThdReader::Create();
  Drive(strict, damaged, 4096, ok);
  EXPECT_FALSE(ok);
}

TEST(ThdReader, RefusesStreamsWithoutMajorSync) {
  auto garbage = RandomBytes(150000, 7);
  TLogLines log;
  bool ok = true;
  auto reader = TThdReader::Create("", "", false, false);
  auto capture = Drive(reader, garbage, 4096, ok);
  EXPECT_FALSE(ok);
  EXPECT_EQ(log.Count("No valid TrueHD frames found in the first 100 KB of the stream."), 1);
  EXPECT_TRUE(capture->bytes.empty());

  // Below the limit the stream ends without a word until Finish.
  TLogLines log2;
  auto small = TThdReader::Create("", "", false, false);
  capture = Drive(small, RandomBytes(100000, 8), 4096, ok);
  EXPECT_FALSE(ok);
  EXPECT_EQ(log2.Count("The stream doesn't seem to contain any valid TrueHD frames."), 1);
  EXPECT_EQ(log2.lines.size(), 1u);
}

// AC-3 frames in front of the first major sync: only the last goes out, right before it.
TEST(ThdReader, OnlyTheLastAc3FrameBeforeTheFirstMajorSyncIsKept) {
  SKIP_WITHOUT_CORPUS();
  auto ac3 = ReadBytes(CorpusPath("gen/ac3_20_192k.ac3"));
  auto thd = ReadBytes(CorpusPath("gen/truehd_20_48k.thd"));
  const size_t frame = 768;  // 192 kbit/s at 48 kHz
  auto units = WalkUnits(thd);
  std::vector<uint8_t> stream = Slice(ac3, 0, 3 * frame);
  std::vector<uint8_t> tail = Slice(thd, 0, units[40].offset);
  stream.insert(stream.end(), tail.begin(), tail.end());
  // One more AC-3 frame in the middle passes where it stands.
  auto middle = Slice(ac3, 3 * frame, 4 * frame);
  stream.insert(stream.end(), middle.begin(), middle.end());
  tail = Slice(thd, units[40].offset, units[80].offset);
  stream.insert(stream.end(), tail.begin(), tail.end());

  std::vector<uint8_t> expected = Slice(ac3, 2 * frame, 3 * frame);
  tail = Slice(thd, 0, units[40].offset);
  expected.insert(expected.end(), tail.begin(), tail.end());
  expected.insert(expected.end(), middle.begin(), middle.end());
  tail = Slice(thd, units[40].offset, units[80].offset);
  expected.insert(expected.end(), tail.begin(), tail.end());

  for (size_t piece : {size_t(100), size_t(100000)}) {
    bool ok = false;
    auto reader = TThdReader::Create("", "", false, false);
    auto capture = Drive(reader, stream, piece, ok);
    ASSERT_TRUE(ok);
    EXPECT_EQ(reader->AudioDetails()->Description(),
              "TrueHD/AC3, 2.0 channels, 48khz, dialnorm: -2dB");
    EXPECT_TRUE(capture->bytes == expected);
    ASSERT_EQ(capture->blocks.size(), 82u);
    EXPECT_EQ(capture->blocks[0], frame);
  }
}

TEST(ThdReader, MlpWrongOrderLayoutsCarryTheirChannelOrder) {
  SKIP_WITHOUT_CORPUS();
  auto bytes = ReadBytes(CorpusPath("gen/mlp_20_48k.mlp"));
  auto units = WalkUnits(bytes);
  auto stream = Slice(bytes, 0, units[20].offset);
  struct {
    uint8_t index;
    const char* layout;
    const char* order;
    uint32_t channels;
  } rows[] = {{18, "4.1", "0,1,4,2,3,5", 5},
              {19, "5.0", "0,1,4,2,3,5", 5},
              {20, "5.1", "0,1,4,5,2,3", 6},
              {17, "5.1", "", 6}};
  for (auto& row : rows) {
    auto patched = stream;
    patched[11] = uint8_t((patched[11] & 0xE0) | row.index);
    FixMajorSync(patched.data());
    bool ok = false;
    auto reader = TThdReader::Create("", "", false, false);
    auto capture = Drive(reader, patched, 4096, ok);
    ASSERT_TRUE(ok);
    auto details = reader->AudioDetails();
    EXPECT_EQ(details->ChannelLayout(), row.layout);
    EXPECT_EQ(details->ChannelOrder(), row.order);
    EXPECT_EQ(capture->audioInits.at(0).channels, row.channels);
  }
}

TEST(ThdReader, NoChannelsIsNotSupported) {
  SKIP_WITHOUT_CORPUS();
  auto bytes = ReadBytes(CorpusPath("gen/truehd_20_48k.thd"));
  auto units = WalkUnits(bytes);
  auto stream = Slice(bytes, 0, units[20].offset);
  stream[10] &= 0xE0;  // no channel in the 8-channel assignment
  stream[11] = 0;
  FixMajorSync(stream.data());
  TLogLines log;
  bool ok = true;
  auto capture = Drive(TThdReader::Create("", "", false, false), stream, 4096, ok);
  EXPECT_FALSE(ok);
  EXPECT_EQ(log.Count("This channel format is currently not supported."), 1);
  EXPECT_TRUE(capture->audioInits.empty());
}

// Units before the first time stamp move the start back by 40 samples each.
TEST(ThdReader, InitialDelayInStepsOfFortySamples) {
  SKIP_WITHOUT_CORPUS();
  auto bytes = ReadBytes(CorpusPath("gen/truehd_20_48k.thd"));
  auto units = WalkUnits(bytes);
  auto reader = TThdReader::Create("", "", false, false);
  auto capture = TCapture::Create();
  reader->AppendUpStream(capture);
  ASSERT_TRUE(reader->InitAudio("thd", 0, 0, 0, false, 0));
  // 48 units (40 ms) without stamps, then the rest with one.
  ASSERT_TRUE(reader->Write(0, false, bytes.data(), uint32_t(units[48].offset), -1, false));
  EXPECT_FALSE(reader->HasTimestamps());
  ASSERT_TRUE(reader->Write(0, false, bytes.data() + units[48].offset,
                            uint32_t(units[100].offset - units[48].offset), 900000, false));
  ASSERT_TRUE(reader->Finish());
  EXPECT_TRUE(reader->HasTimestamps());
  EXPECT_EQ(reader->InitialDelay(), -40);
  EXPECT_EQ(capture->positions.at(48), 900000);
}


// 42 s of TrueHD stamped every 20 ms, with a 200 ms jump of the stamps at 5.12 s.
TEST(ThdReader, GapInTheUnitTimeIsReportedAndWritten) {
  SKIP_WITHOUT_CORPUS();
  auto bytes = ReadBytes(CorpusPath("gen/truehd_20_48k.thd"));
  auto units = WalkUnits(bytes);
  ASSERT_EQ(units.size(), 7200u);
  TempDir scratch;
  std::string gapFile = scratch / "track.gaps";
  for (bool withData : {false, true}) {
    TLogLines log;
    auto reader = TThdReader::Create(gapFile, withData ? std::string(32, '\0') : "", false, false);
    auto capture = TCapture::Create();
    reader->AppendUpStream(capture);
    ASSERT_TRUE(reader->InitAudio("thd", 0, 0, 0, false, 0));
    for (int64_t k = 0; k < 2100; k++) {
      size_t first = size_t(k % 300) * 24;
      size_t end = first + 24 < units.size() ? units[first + 24].offset : bytes.size();
      int64_t stamp = k * 200000 + (k >= 256 ? 2000000 : 0);
      ASSERT_TRUE(reader->Write(0, false, bytes.data() + units[first].offset,
                                uint32_t(end - units[first].offset), stamp, false));
    }
    ASSERT_TRUE(reader->Finish());
    EXPECT_EQ(capture->blocks.size(), 2100u * 24);
    if (withData) {
      EXPECT_FALSE(fs::exists(gapFile)) << "given gap data, no file is touched";
      continue;
    }
    EXPECT_EQ(log.Count("Audio has a gap of 200ms at playtime 0:00:05."), 1);
    EXPECT_EQ(log.Count("The audio file was demuxed without making use of the gap/overlap "
                        "information."),
              1);
    auto file = ReadBytes(gapFile);
    ASSERT_EQ(file.size(), 16u);
    EXPECT_EQ(int64_t(Le64(file.data())), 53200000);     // 5.32 s of play time
    EXPECT_EQ(int64_t(Le64(file.data() + 8)), 2000000);  // 200 ms of drift
    fs::remove(gapFile);
  }
}


// The Blu-ray TrueHD/AC3 payload repeated to 37 s, each AC-3 frame stamped with its play time,
// and a 200 ms jump of the stamps at 5.12 s: the drift is measured on the AC-3 frames.
TEST(ThdReader, GapInTheAc3TimeOfAnInterleavedTrack) {
  SKIP_WITHOUT_CORPUS();
  auto payload = ReadBytes(CorpusPath("public/truehd/dts1_truehd_ac3_interleaved.thdac3"));
  // Where each AC-3 frame (1792 bytes, 448 kbit/s: 32 ms) starts.
  std::vector<size_t> frames;
  for (size_t at = 0; at + 8 <= payload.size();) {
    bool ac3 = payload[at] == 0x0B && payload[at + 1] == 0x77;
    if (ac3) frames.push_back(at);
    at += ac3 ? 1792 : ThdUnitSize(payload.data() + at);
  }
  ASSERT_EQ(frames.size(), 29u);
  TempDir scratch;
  std::string gapFile = scratch / "track.gaps";
  TLogLines log;
  auto reader = TThdReader::Create(gapFile, "", true, false);
  auto capture = TCapture::Create();
  reader->AppendUpStream(capture);
  ASSERT_TRUE(reader->InitAudio("thd/ac3", 0, 0, 0, false, 0));
  int64_t k = 0;
  for (int copy = 0; copy < 40; copy++) {
    for (size_t i = 0; i < frames.size(); i++, k++) {
      size_t end = i + 1 < frames.size() ? frames[i + 1] : payload.size();
      int64_t stamp = k * 320000 + (k >= 160 ? 2000000 : 0);
      ASSERT_TRUE(reader->Write(0, false, payload.data() + frames[i],
                                uint32_t(end - frames[i]), stamp, false));
    }
  }
  ASSERT_TRUE(reader->Finish());
  EXPECT_EQ(reader->Ac3FramesSent(), 40 * 29);
  EXPECT_EQ(log.Count("Audio has a gap of 200ms at playtime 0:00:05."), 1);
  auto file = ReadBytes(gapFile);
  ASSERT_EQ(file.size(), 16u);
  EXPECT_EQ(int64_t(Le64(file.data())), 53200000);
  EXPECT_EQ(int64_t(Le64(file.data() + 8)), 2000000);
}

}  // namespace
}  // namespace sonvex::thdtest
