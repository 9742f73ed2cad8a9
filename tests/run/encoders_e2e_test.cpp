// ".ac3" and ".dts" destinations through the real binary: re-encodes of corpus streams read back
// by ffprobe and ffmpeg (bit rate, rate, layout, every AC-3 CRC), by this program's own reader,
// channel placement of a different sine per channel, frame counts, quality against ffmpeg's
// encode of the same music, and the refusals that come before anything is written.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstring>

#include "codecs/oracle.h"

namespace sonvex::codecstest {
namespace {

std::string Probe(const std::string& file, const std::string& entries) {
  auto out = RunCommand("ffprobe -v error -select_streams a:0 -show_entries " + entries +
                        " -of default=nw=1 '" + file + "'");
  return std::string(out.begin(), out.end());
}

std::vector<float> DecodeFloat(const std::string& file) {
  auto bytes = RunCommand("ffmpeg -nostdin -v error -i '" + file + "' -f f32le -");
  std::vector<float> samples(bytes.size() / 4);
  std::memcpy(samples.data(), bytes.data(), samples.size() * 4);
  return samples;
}

bool FfmpegRuns(const std::string& args, const fs::path& dir) {
  return RunShell("ffmpeg -nostdin -v error -y " + args, dir).exitCode == 0;
}

// Re-encodes that go end to end, with what ffprobe must read from the result.
struct Reencode {
  const char* source;  // under the corpus, with " 3:" behind it for a track of a container
  const char* dest;
  const char* option;  // "" for none
  const char* facts;   // ffprobe's stream entries
};

TEST(EncodersEndToEnd, ReencodedStreamsReadBackClean) {
  SKIP_WITHOUT_CORPUS();
  SKIP_WITHOUT_TOOL("ffprobe");
  const Reencode cases[] = {
      {"gen/eac3_51_640k.eac3", "x.ac3", "-448",
       "codec_name=ac3\nsample_rate=48000\nchannels=6\nchannel_layout=5.1(side)\nbit_rate=448000\n"},
      {"gen/truehd_51_48k.thd", "x.ac3", "",
       "codec_name=ac3\nsample_rate=48000\nchannels=6\nchannel_layout=5.1(side)\nbit_rate=448000\n"},
      {"gen/dts_51_768k.dts", "x.ac3", "-640",
       "codec_name=ac3\nsample_rate=48000\nchannels=6\nchannel_layout=5.1(side)\nbit_rate=640000\n"},
      {"gen/wav_20_16.wav", "x.dts", "-768",
       "codec_name=dts\nsample_rate=48000\nchannels=2\nchannel_layout=stereo\nbit_rate=768000\n"},
      {"gen/wav_51_24.wav", "x.dts", "",
       "codec_name=dts\nsample_rate=48000\nchannels=6\nchannel_layout=5.1(side)\nbit_rate=1536000\n"},
      {"gen/wav_20_16_44k.wav", "x.ac3", "-640",
       "codec_name=ac3\nsample_rate=44100\nchannels=2\nchannel_layout=stereo\nbit_rate=640000\n"},
      {"gen/flac_51_24.flac", "x.dts", "-1536",
       "codec_name=dts\nsample_rate=48000\nchannels=6\nchannel_layout=5.1(side)\nbit_rate=1536000\n"},
      {"gen/ac3_20_192k.ac3", "x.ac3", "-448",  // another bit rate: decoded and encoded again
       "codec_name=ac3\nsample_rate=48000\nchannels=2\nchannel_layout=stereo\nbit_rate=448000\n"},
      {"gen/bd_lpcm_variants.m2ts 3:", "x.dts", "-768",  // Blu-ray LPCM 5.1, 24 bits
       "codec_name=dts\nsample_rate=48000\nchannels=6\nchannel_layout=5.1(side)\nbit_rate=768000\n"},
      {"gen/mp2_20_224k.mp2", "x.ac3", "-192",
       "codec_name=ac3\nsample_rate=48000\nchannels=2\nchannel_layout=stereo\nbit_rate=192000\n"},
  };
  for (const Reencode& c : cases) {
    TempDir dir;
    std::string source = c.source, track;
    if (size_t blank = source.find(' '); blank != std::string::npos)
      track = source.substr(blank + 1), source.resize(blank);
    std::vector<std::string> args = {CorpusPath(source)};
    if (!track.empty()) args.push_back(track);
    args.push_back(dir / c.dest);
    if (*c.option) args.push_back(c.option);
    RunResult r = RunSonvex(args, dir.path());
    ASSERT_EQ(r.exitCode, 0) << c.source << "\n" << r.out << r.err;
    const std::string out = dir / c.dest;
    EXPECT_EQ(Probe(out, "stream=codec_name,sample_rate,channels,channel_layout,bit_rate"), c.facts)
        << c.source;
    // Every AC-3 frame passes libavcodec's CRC checks.
    EXPECT_EQ(RunShell("ffmpeg -nostdin -v error -err_detect crccheck+explode -i '" + out +
                           "' -f null -",
                       dir.path())
                  .exitCode,
              0)
        << c.source;
    // This program's reader lists the stream and checks it through as clean.
    RunResult check = RunSonvex({out, "-check"}, dir.path());
    EXPECT_EQ(check.exitCode, 0) << c.source << "\n" << check.out << check.err;
    std::string family = fs::path(c.dest).extension() == ".ac3" ? "AC3, " : "DTS, ";
    EXPECT_EQ(check.out.rfind(family, 0), 0u) << check.out;
    EXPECT_EQ((check.out + check.err).find("not clean"), std::string::npos);
  }
}

// Frames: ceil(samples / 1536) for AC3 and ceil(samples / 512) for DTS, as ffprobe counts them.
TEST(EncodersEndToEnd, FrameCounts) {
  SKIP_WITHOUT_CORPUS();
  SKIP_WITHOUT_TOOL("ffprobe");
  TempDir dir;
  ASSERT_TRUE(FfmpegRuns("-f lavfi -i 'sine=f=440:r=48000' -af atrim=end_sample=1000 -c:a "
                         "pcm_s16le short.wav",
                         dir.path()));
  struct Count {
    std::string source, dest;
    const char* frames;
  } cases[] = {
      {CorpusPath("gen/wav_51_24.wav"), "a.ac3", "nb_read_frames=188\n"},  // 288000 samples
      {CorpusPath("gen/wav_51_24.wav"), "a.dts", "nb_read_frames=563\n"},
      {dir / "short.wav", "b.ac3", "nb_read_frames=1\n"},
      {dir / "short.wav", "b.dts", "nb_read_frames=2\n"},
  };
  for (const Count& c : cases) {
    RunResult r = RunSonvex({c.source, dir / c.dest}, dir.path());
    ASSERT_EQ(r.exitCode, 0) << r.out << r.err;
    // The format is named: two frames are too few for ffprobe's guess.
    std::string format = fs::path(c.dest).extension().string().substr(1);
    EXPECT_EQ(Probe(dir / c.dest, "stream=nb_read_frames -count_frames -f " + format), c.frames)
        << c.dest;
  }
}

// Energy of one frequency in one channel of interleaved samples (Goertzel).
double Energy(const std::vector<float>& x, uint32_t channels, uint32_t channel, double frequency,
              double rate) {
  const double w = 2 * M_PI * frequency / rate, k = 2 * std::cos(w);
  double s1 = 0, s2 = 0;
  for (size_t i = channel; i < x.size(); i += channels) {
    double s0 = x[i] + k * s1 - s2;
    s2 = s1;
    s1 = s0;
  }
  return s1 * s1 + s2 * s2 - k * s1 * s2;
}

// Each channel gets its own sine; after encoding and ffmpeg's decode each sine must stand in its
// own channel, at least 20 dB above every other sine there. The LFE sine stays below 120 Hz.
struct Placement {
  const char* layout;  // ffmpeg's name, for the source
  std::vector<double> frequencies;
  const char* dest;
};

TEST(EncodersEndToEnd, EachChannelStaysInItsPlace) {
  SKIP_WITHOUT_TOOL("ffmpeg");
  const Placement cases[] = {
      {"5.1(side)", {500, 700, 900, 60, 1100, 1300}, "y.ac3"},
      {"5.1(side)", {500, 700, 900, 60, 1100, 1300}, "y.dts"},
      {"5.1", {500, 700, 900, 60, 1100, 1300}, "y.ac3"},
      {"5.1", {500, 700, 900, 60, 1100, 1300}, "y.dts"},
      {"stereo", {500, 700}, "y.ac3"},
      {"stereo", {500, 700}, "y.dts"},
      {"mono", {500}, "y.ac3"},
      {"mono", {500}, "y.dts"},
      // Beyond the three classic layouts, AC3 only: 3.0, 4.0 and 5.0.
      {"3.0", {500, 700, 900}, "y.ac3"},
      {"quad", {500, 700, 1100, 1300}, "y.ac3"},
      {"5.0(side)", {500, 700, 900, 1100, 1300}, "y.ac3"},
  };
  for (const Placement& c : cases) {
    TempDir dir;
    std::string expression;
    for (double f : c.frequencies)
      expression += (expression.empty() ? "" : "|") + std::string("0.3*sin(") +
                    std::to_string(int(f)) + "*2*PI*t)";
    ASSERT_TRUE(FfmpegRuns("-f lavfi -i \"aevalsrc='" + expression + "':c=" + c.layout +
                               ":s=48000:d=1\" -c:a pcm_s24le x.wav",
                           dir.path()));
    RunResult r = RunSonvex({dir / "x.wav", dir / c.dest}, dir.path());
    ASSERT_EQ(r.exitCode, 0) << c.layout << c.dest << "\n" << r.out << r.err;
    const uint32_t channels = uint32_t(c.frequencies.size());
    auto decoded = DecodeFloat(dir / c.dest);
    ASSERT_GT(decoded.size(), 40000u * channels);
    for (uint32_t ch = 0; ch < channels; ch++) {
      double own = Energy(decoded, channels, ch, c.frequencies[ch], 48000);
      for (uint32_t other = 0; other < channels; other++) {
        if (other == ch) continue;
        double stray = Energy(decoded, channels, ch, c.frequencies[other], 48000);
        EXPECT_GT(own, 100 * stray) << c.layout << " " << c.dest << ": channel " << ch
                                    << " holds the sine of channel " << other;
      }
    }
  }
}

// 7.1 to AC3 and DTS: the message, then the back and side pairs mixed into the surround pair
// (the down6 mix of the PCM stages): each front sine in its own channel, each surround channel
// holding the sines of its side only.
TEST(EncodersEndToEnd, SevenOneIsMixedToFiveOne) {
  SKIP_WITHOUT_TOOL("ffmpeg");
  const std::vector<double> f = {500, 700, 900, 60, 1100, 1300, 1500, 1700};
  // Decoded channel -> the source sines it must hold.
  const std::vector<std::vector<size_t>> holds = {{0}, {1}, {2}, {3}, {4, 6}, {5, 7}};
  for (const char* dest : {"y.ac3", "y.dts"}) {
    TempDir dir;
    std::string expression;
    for (double frequency : f)
      expression += (expression.empty() ? "" : "|") + std::string("0.3*sin(") +
                    std::to_string(int(frequency)) + "*2*PI*t)";
    ASSERT_TRUE(FfmpegRuns("-f lavfi -i \"aevalsrc='" + expression +
                               "':c=7.1:s=48000:d=1\" -c:a pcm_s24le x.wav",
                           dir.path()));
    RunResult r = RunSonvex({dir / "x.wav", dir / dest}, dir.path());
    std::string output = r.out + r.err;
    if (output.find("Internal error - unknown audio output format!") != std::string::npos)
      GTEST_SKIP() << "the down6 mix of the PCM stages isn't in this build";
    ASSERT_EQ(r.exitCode, 0) << output;
    const std::string family = fs::path(dest).extension() == ".ac3" ? "AC3" : "DTS";
    EXPECT_NE(output.find(family + " encoding only supports 6 channels. Will mix the surround "
                                   "channels."),
              std::string::npos)
        << output;
    auto decoded = DecodeFloat(dir / dest);
    ASSERT_GT(decoded.size(), 40000u * 6);
    for (size_t ch = 0; ch < 6; ch++) {
      double weakestOwn = INFINITY, strongestStray = 0;
      for (size_t source = 0; source < f.size(); source++) {
        double e = Energy(decoded, 6, uint32_t(ch), f[source], 48000);
        bool own = std::find(holds[ch].begin(), holds[ch].end(), source) != holds[ch].end();
        if (own)
          weakestOwn = std::min(weakestOwn, e);
        else
          strongestStray = std::max(strongestStray, e);
      }
      EXPECT_GT(weakestOwn, 100 * strongestStray) << dest << ": channel " << ch;
    }
  }
}

// SNR of a decode against the source, at the lag (0 to 2048 samples, found on the first
// channel) where the two fit best: the encoders' own delay.
double Snr(const std::vector<float>& source, const std::vector<float>& decoded, uint32_t channels) {
  const size_t window = 16384;
  size_t bestLag = 0;
  double bestError = INFINITY;
  for (size_t lag = 0; lag <= 2048; lag++) {
    double error = 0;
    for (size_t i = 0; i < window; i++) {
      double d = source[i * channels] - decoded[(i + lag) * channels];
      error += d * d;
    }
    if (error < bestError) bestError = error, bestLag = lag;
  }
  double signal = 0, noise = 0;
  const size_t frames = std::min(source.size() / channels, decoded.size() / channels - bestLag);
  for (size_t i = 0; i < frames * channels; i++) {
    double d = source[i] - decoded[i + bestLag * channels];
    signal += double(source[i]) * source[i];
    noise += d * d;
  }
  return 10 * std::log10(signal / noise);
}

// Real film sound (the corpus's 5.1 AC3 sample, decoded by ffmpeg to 24 bits), encoded by sonvex
// and by ffmpeg with the same bit rate: sonvex's SNR is at least ffmpeg's (0.01 dB of rounding
// allowed).
TEST(EncodersEndToEnd, QualityAtLeastFfmpegs) {
  SKIP_WITHOUT_CORPUS();
  SKIP_WITHOUT_TOOL("ffmpeg");
  TempDir dir;
  ASSERT_TRUE(FfmpegRuns("-i '" + CorpusPath("public/ac3/monsters_inc_5.1_448_small.ac3") +
                             "' -c:a pcm_s24le music.wav",
                         dir.path()));
  auto source = DecodeFloat(dir / "music.wav");
  struct Quality {
    const char* dest;
    const char* option;
    const char* peer;
  } cases[] = {
      {"ours.ac3", "-640", "-c:a ac3 -b:a 640k theirs.ac3"},
      {"ours.dts", "-1536", "-c:a dca -strict -2 -b:a 1536k theirs.dts"},
  };
  for (const Quality& c : cases) {
    RunResult r = RunSonvex({dir / "music.wav", dir / c.dest, c.option}, dir.path());
    ASSERT_EQ(r.exitCode, 0) << r.out << r.err;
    ASSERT_TRUE(FfmpegRuns("-i music.wav " + std::string(c.peer), dir.path()));
    std::string theirs = "theirs" + fs::path(c.dest).extension().string();
    double ours = Snr(source, DecodeFloat(dir / c.dest), 6);
    double peer = Snr(source, DecodeFloat(dir / theirs), 6);
    EXPECT_GT(peer, 10.0) << "the measurement itself went wrong";
    EXPECT_GE(ours, peer - 0.01) << c.dest << ": " << ours << " dB against ffmpeg's " << peer;
  }
}

// The lag (in sample frames, within +-6000) at which `b` best repeats `a`, on the first channel.
long BestLag(const std::vector<float>& a, const std::vector<float>& b, uint32_t channels) {
  const long window = 8192, start = 6000;
  long best = 0;
  double bestError = INFINITY;
  for (long lag = -6000; lag <= 6000; lag++) {
    double error = 0;
    for (long i = start; i < start + window; i++) {
      double d = a[size_t(i) * channels] - b[size_t(i + lag) * channels];
      error += d * d;
    }
    if (error < bestError) bestError = error, best = lag;
  }
  return best;
}

// A delay ahead of the encoder: +100 ms puts 4,800 sample frames of silence in front of the
// music, -100 ms drops its first 4,800; the frame counts follow.
TEST(EncodersEndToEnd, DelayMovesTheAudioBySamples) {
  SKIP_WITHOUT_CORPUS();
  SKIP_WITHOUT_TOOL("ffmpeg");
  TempDir dir;
  ASSERT_TRUE(FfmpegRuns("-i '" + CorpusPath("public/ac3/monsters_inc_5.1_448_small.ac3") +
                             "' -c:a pcm_s24le music.wav",
                         dir.path()));
  const long samples = long(DecodeFloat(dir / "music.wav").size() / 6);
  ASSERT_EQ(RunSonvex({dir / "music.wav", dir / "plain.ac3", "-640"}, dir.path()).exitCode, 0);
  auto plain = DecodeFloat(dir / "plain.ac3");
  for (const auto& [delay, shift] : {std::pair{"+100ms", 4800L}, std::pair{"-100ms", -4800L}}) {
    RunResult r = RunSonvex({dir / "music.wav", dir / "moved.ac3", "-640", delay}, dir.path());
    ASSERT_EQ(r.exitCode, 0) << r.out << r.err;
    if (!fs::exists(dir / "moved.ac3"))
      GTEST_SKIP() << "the PCM delayer isn't in this build: the delay went into the file name";
    EXPECT_EQ(BestLag(plain, DecodeFloat(dir / "moved.ac3"), 6), shift) << delay;
    EXPECT_EQ(Probe(dir / "moved.ac3", "stream=nb_read_frames -count_frames"),
              "nb_read_frames=" + std::to_string((samples + shift + 1535) / 1536) + "\n")
        << delay;
    fs::remove(dir / "moved.ac3");
  }
}

// Refusals before the pass: the message, exit code 1, no output (the log's copy only) and no
// "Encoding..." line.
struct Refused {
  const char* source;  // "quad.wav" and "low.wav" are made by the test
  const char* dest;
  const char* option;
  const char* message;
};

TEST(EncodersEndToEnd, RefusalsLeaveNothing) {
  SKIP_WITHOUT_CORPUS();
  SKIP_WITHOUT_TOOL("ffmpeg");
  TempDir dir;
  ASSERT_TRUE(FfmpegRuns("-f lavfi -i 'sine=r=48000:d=0.2' -af 'pan=quad|c0=c0|c1=c0|c2=c0|c3=c0' "
                         "-c:a pcm_s16le quad.wav",
                         dir.path()));
  ASSERT_TRUE(FfmpegRuns("-f lavfi -i 'sine=r=32000:d=0.2' -c:a pcm_s16le low.wav", dir.path()));
  const std::string wav = CorpusPath("gen/wav_20_16.wav");
  const Refused cases[] = {
      {wav.c_str(), "x.ac3", "-500", "This bitrate isn't supported by the AC3 encoder."},
      {wav.c_str(), "x.ac3", "-768", "This bitrate isn't supported by the AC3 encoder."},
      {wav.c_str(), "x.dts", "-640", "This bitrate isn't supported by the DTS encoder."},
      {"quad.wav", "x.dts", "", "The DTS encoder didn't accept this channel configuration."},
      {"low.wav", "x.dts", "", "The DTS encoder didn't accept this sample rate."},
  };
  for (const Refused& c : cases) {
    std::vector<std::string> args = {c.source, dir / c.dest};
    if (*c.option) args.push_back(c.option);
    RunResult r = RunSonvex(args, dir.path());
    std::string output = r.out + r.err;
    EXPECT_EQ(r.exitCode, 1) << output;
    EXPECT_NE(output.find(c.message), std::string::npos) << output;
    EXPECT_EQ(output.find("Encoding"), std::string::npos) << output;
    EXPECT_EQ(ListFiles(dir.path()),
              (std::vector<std::string>{"low.wav", "quad.wav", "x - Log.txt"}));
  }
}

TEST(EncodersEndToEnd, SelfTestListsTheEncoders) {
  TempDir dir;
  RunResult r = RunSonvex({"-test"}, dir.path());
  EXPECT_TRUE(r.HasLine("libav AC3 encoder is available")) << r.out;
  EXPECT_TRUE(r.HasLine("libav DTS encoder is available")) << r.out;
}

}  // namespace
}  // namespace sonvex::codecstest
