// Transport streams of the corpus at stage level: the listing of each file against ffprobe's
// streams and start times, each audio track demuxed against ffmpeg's "-c copy" payload, and
// Blu-ray LPCM against ffmpeg's decode.
#include <gtest/gtest.h>

#include <cmath>
#include <set>

#include "framework/smallstages.h"
#include "support/capture.h"
#include "ts/pesparser.h"
#include "ts/tscorpus.h"
#include "ts/tsdemuxer.h"
#include "ts/tsparser.h"
#include "ts/tspcmreader.h"

namespace sonvex::tstest {
namespace {

bool ListedCodec(const std::string& codec) {
  return codec == "h264" || codec == "hevc" || codec == "vc1" || codec == "mpeg2video" || codec == "ac3" ||
         codec == "eac3" || codec == "dts" || codec == "truehd" || codec == "mlp" ||
         codec == "pcm_bluray" || codec == "mp2" || codec == "mp1";
}

TEST(TsCorpus, ListingAgreesWithFfprobe) {
  SKIP_WITHOUT_CORPUS();
  auto files = TransportStreamFiles();
  ASSERT_GE(files.size(), 10u);
  for (const std::string& file : files) {
    SCOPED_TRACE(file);
    auto data = ReadWholeFile(file);
    auto parser = TTsParser::Create(false);
    parser->SetUpStream(TFileSimulator::Create());
    parser->SetSilent(true);
    bool ok = PushFile(*parser, data);
    auto container = parser->ContainerDetails();

    std::vector<ProbedStream> expected;
    // Private data (type 6) is listed as ffprobe lists it, by probing the payload: DTS and AC3
    // are found that way.
    for (const auto& s : ProbeStreams(file))
      if (ListedCodec(s.codec) &&
          (s.tag != 6 || s.codec == "dts" || s.codec == "ac3" || s.codec == "eac3"))
        expected.push_back(s);
    bool tiny = file.find("avchd_tiny") != std::string::npos;
    bool pmtChange = file.find("pmtchange") != std::string::npos;
    bool nonIdrStart = file.find("intra_first") != std::string::npos;
    if (tiny) {
      // Seven packets: the PMT is there, but no PES packet completes, so no track is reported.
      expected.clear();
    }
    if (pmtChange) {
      // Both PMT versions are read (the types of the PIDs don't change). The PIDs of this cut
      // hold one to four PES packets each, too few for most readers to know their format: what
      // is listed is ffprobe's, nothing more, and the stage stays sound.
      ASSERT_TRUE(ok);
      TTrackEntry e;
      std::set<int32_t> known;
      for (const auto& s : expected) known.insert(s.pid);
      for (int32_t i = 0; container->GetVideo(i, e); i++) EXPECT_TRUE(known.count(e.id));
      for (int32_t i = 0; container->GetAudio(i, e); i++) EXPECT_TRUE(known.count(e.id));
      continue;
    }
    ASSERT_TRUE(ok);
    // The container is announced with its first track: no track, no container.
    ASSERT_EQ(container->IsValid(), !expected.empty());
    if (expected.empty()) continue;
    bool m2ts = data.size() > 4 && data[4] == 0x47;
    EXPECT_EQ(container->Format(), m2ts ? "m2ts" : "ts");

    // Tracks in PID order within each kind, and the same set of PIDs as ffprobe's.
    std::vector<int32_t> videoPids, audioPids, wantVideo, wantAudio;
    std::map<int32_t, int32_t> delays;
    TTrackEntry e;
    // The time stamp part of each delay: a reader adds its own initial delay (frames it found
    // ahead of the first stamp), which ffprobe's start time does not hold.
    auto stampDelay = [](const TTrackEntry& entry) {
      auto initial = Query<IInitialDelay>(entry.details);
      return entry.delay - (initial && initial->HasTimestamps() ? initial->InitialDelay() : 0);
    };
    for (int32_t i = 0; container->GetVideo(i, e); i++) videoPids.push_back(e.id), delays[e.id] = stampDelay(e);
    for (int32_t i = 0; container->GetAudio(i, e); i++) audioPids.push_back(e.id), delays[e.id] = stampDelay(e);
    for (const auto& s : expected) (s.type == "video" ? wantVideo : wantAudio).push_back(s.pid);
    EXPECT_EQ(videoPids, wantVideo);
    EXPECT_EQ(audioPids, wantAudio);

    // Delays relative to the earliest track match the start times to the millisecond. A video
    // that starts on a non-IDR frame begins, for ffprobe, at its first decodable frame: that
    // delay is the video reader's to find, so such a video is left out of the comparison.
    if (nonIdrStart) std::erase_if(expected, [](const ProbedStream& s) { return s.type == "video"; });
    const ProbedStream* base = &expected[0];
    for (const auto& s : expected)
      if (s.start < base->start) base = &s;
    for (const auto& s : expected) {
      ASSERT_TRUE(delays.count(s.pid));
      double want = (s.start - base->start) * 1000;
      double have = delays[s.pid] - delays[base->pid];
      EXPECT_LE(std::fabs(have - want), 1.0) << "PID " << s.pid << ": " << have << " ms, ffprobe " << want << " ms";
    }
  }
}

// One track through TTsDemuxer and TPesParser: the payload bytes as ffmpeg's "-c copy" gives them.
std::vector<uint8_t> Demux(const std::vector<uint8_t>& data, int32_t pid, bool& ok) {
  auto demuxer = TTsDemuxer::Create(uint32_t(pid), 1, false);
  auto pes = TPesParser::Create(false);
  auto capture = TCapture::Create();
  demuxer->SetUpStream(pes);
  pes->SetUpStream(capture);
  demuxer->SetSilent(true);
  ok = PushFile(*demuxer, data);
  return capture->bytes;
}

TEST(TsCorpus, AudioTracksDemuxByteIdenticalToFfmpegCopy) {
  SKIP_WITHOUT_CORPUS();
  int checked = 0;
  for (auto& row : ReadTable("DEMUX_REFERENCE.tsv")) {
    std::string container = row["container"];
    if (row["codec"] == "h264" || row["codec"] == "aac" || container.find('+') != std::string::npos)
      continue;
    SCOPED_TRACE(container + " " + row["id"]);
    auto data = ReadWholeFile(CorpusDir() + "/gen/" + container);
    ASSERT_FALSE(data.empty());
    bool ok = false;
    auto bytes = Demux(data, int32_t(std::stoul(row["id"], nullptr, 16)), ok);
    EXPECT_TRUE(ok);
    if (row["codec"] == "truehd") {
      // A file cut from a longer one may begin inside a TrueHD sequence: ffmpeg's copy starts at
      // the first access unit with a major sync, and so does the TrueHD reader behind this chain.
      static const uint8_t kMajorSync[] = {0xF8, 0x72, 0x6F, 0xBA};
      auto sync = std::search(bytes.begin(), bytes.end(), kMajorSync, kMajorSync + 4);
      ASSERT_NE(sync, bytes.end());
      size_t skipped = size_t(sync - bytes.begin()) - 4;
      EXPECT_LT(skipped, 2000u);
      bytes.erase(bytes.begin(), bytes.begin() + long(skipped));
    }
    EXPECT_EQ(bytes.size(), std::stoul(row["es_bytes"]));
    EXPECT_EQ(Md5Hex(bytes), row["md5_es"]);
    checked++;
  }
  EXPECT_GE(checked, 15);
}

TEST(TsCorpus, JoinedFilesDemuxAcrossTheSeam) {
  SKIP_WITHOUT_CORPUS();
  for (auto& row : ReadTable("DEMUX_REFERENCE.tsv")) {
    std::string container = row["container"];
    if (container.find('+') == std::string::npos || row["codec"] == "h264") continue;
    SCOPED_TRACE(container + " " + row["id"]);
    auto part1 = ReadWholeFile(CorpusDir() + "/gen/bd_join_part1.m2ts");
    auto part2 = ReadWholeFile(CorpusDir() + "/gen/bd_join_part2.m2ts");
    auto demuxer = TTsDemuxer::Create(uint32_t(std::stoul(row["id"], nullptr, 16)), 1, false);
    auto pes = TPesParser::Create(false);
    auto capture = TCapture::Create();
    demuxer->SetUpStream(pes);
    pes->SetUpStream(capture);
    demuxer->SetSilent(true);
    ASSERT_TRUE(demuxer->InitContainer("?", 0, 0));
    ASSERT_TRUE(demuxer->Write(0, false, part1.data(), uint32_t(part1.size()), -1, false));
    demuxer->NotifySeam(true, 0);
    demuxer->NotifySeam(false, 0);
    ASSERT_TRUE(demuxer->Write(0, false, part2.data(), uint32_t(part2.size()), -1, false));
    ASSERT_TRUE(demuxer->Finish());
    EXPECT_EQ(Md5Hex(capture->bytes), row["md5_es"]);
  }
}

TEST(TsCorpus, BluRayLpcmGivesThePcmOfFfmpegsDecode) {
  SKIP_WITHOUT_CORPUS();
  auto data = ReadWholeFile(CorpusDir() + "/gen/bd_lpcm_variants.m2ts");
  ASSERT_FALSE(data.empty());
  int checked = 0;
  for (auto& row : ReadTable("REFERENCE_DECODES.tsv")) {
    if (row["file"] != "bd_lpcm_variants.m2ts") continue;
    SCOPED_TRACE(row["id"]);
    auto demuxer = TTsDemuxer::Create(uint32_t(std::stoul(row["id"], nullptr, 16)), 1, false);
    auto pes = TPesParser::Create(false);
    auto reader = TTsPcmReader::Create();
    auto capture = TCapture::Create();
    demuxer->SetUpStream(pes);
    pes->SetUpStream(reader);
    reader->SetUpStream(capture);
    demuxer->SetSilent(true);
    ASSERT_TRUE(PushFile(*demuxer, data));
    ASSERT_EQ(capture->audioInits.size(), 1u);
    const auto& init = capture->audioInits[0];
    EXPECT_EQ(init.format, "pcm");
    EXPECT_TRUE(init.bigEndian);
    EXPECT_EQ(init.channels, std::stoul(row["channels"]));
    EXPECT_EQ(init.sampleRate, std::stoul(row["sample_rate"]));
    // ffmpeg's reference is little-endian and in WAV channel order; Blu-ray puts the LFE last
    // (5.1: L R C Ls Rs LFE; 7.1: L R C Ls Rls Rrs Rs LFE). The chain remaps later on.
    static const uint32_t kWavFromBluray6[] = {0, 1, 2, 5, 3, 4};
    static const uint32_t kWavFromBluray8[] = {0, 1, 2, 7, 4, 5, 3, 6};
    uint32_t width = init.bits / 8, channels = init.channels;
    std::vector<uint8_t> pcm(capture->bytes.size());
    for (size_t frame = 0; (frame + 1) * width * channels <= pcm.size(); frame++)
      for (uint32_t c = 0; c < channels; c++) {
        uint32_t from = channels == 6 ? kWavFromBluray6[c] : channels == 8 ? kWavFromBluray8[c] : c;
        const uint8_t* in = capture->bytes.data() + (frame * channels + from) * width;
        uint8_t* out = pcm.data() + (frame * channels + c) * width;
        for (uint32_t b = 0; b < width; b++) out[b] = in[width - 1 - b];
      }
    EXPECT_EQ(pcm.size() / width / init.channels, std::stoul(row["samples"]));
    EXPECT_EQ(Md5Hex(pcm), row["md5_pcm"]);
    checked++;
  }
  EXPECT_EQ(checked, 4);
}

}  // namespace
}  // namespace sonvex::tstest
