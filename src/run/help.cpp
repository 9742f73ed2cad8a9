// The help text printed when the program is run without arguments.
#include "framework/console.h"
#include "run/cmdline.h"

namespace sonvex {
namespace {

constexpr const char* kAbilities[] = {
    "- can show information about audio, video and VOB/EVO/(M2)TS files",
    "- can decode and encode various audio formats",
    "- can remux EVO/VOB/(M2)TS files to MKV",
    "- can demux audio, video and subtitle tracks out of EVO/VOB/(M2)TS files",
    "- can apply delays, remove dialog normalisation and extract cores without reencoding",
    "- can remap, downmix, resample and change the speed of audio",
    "- can find and fix gaps and overlaps in audio tracks",
    "- can write chapter lists",
};

constexpr const char* kExamples[] = {
    "sonvex movie.m2ts",
    "sonvex movie.m2ts 2: audio.flac",
    "sonvex movie.evo 3: audio.ac3 -448 +100ms",
    "sonvex part1.evo+part2.evo 2: video.mkv 3: audio.flac",
    "sonvex movie.m2ts -demux",
};

struct HelpOption {
  const char* name;
  const char* text;
};

constexpr HelpOption kOptions[] = {
    {"-448", "bitrate of an encoded AC3 or DTS stream in kbit/s"},
    {"-768", "DTS encoding at 768 kbit/s (1536 by default)"},
    {"-core", "extract the DTS or E-AC3 core"},
    {"+/-100ms", "delay the audio track by this many milliseconds"},
    {"-0,1,2,3,4,5", "remap the channels, listing the source channel of each output channel"},
    {"-blu-ray", "remap the channels from the Blu-ray LPCM order"},
    {"-extensible", "write a WAV file with the extensible header"},
    {"-down6", "mix 7.1 or 6.1 down to 5.1"},
    {"-down2", "mix down to stereo (Dolby Pro Logic II)"},
    {"-mixlfe", "include the LFE channel in a stereo downmix"},
    {"-down16", "reduce the bit depth to 16 bits with dither (also -down14 ... -down23)"},
    {"-slowdown", "change the speed from 25 fps to 23.976 fps (PAL to film)"},
    {"-speedup", "change the speed from 23.976 fps to 25 fps (film to PAL)"},
    {"-resampleTo48000", "resample to this sample rate"},
    {"-quality=4", "resampling quality, 0 (fastest) to 4 (best)"},
    {"-8", "number of channels of a raw PCM source (1 to 8)"},
    {"-16", "bit depth of a raw PCM source, or of the decoded output (16 or 24)"},
    {"-little", "byte order of a raw PCM source (-little or -big)"},
    {"-96000", "sample rate of a raw PCM source"},
    {"-override", "ignore what the source says about itself"},
    {"-sonic/nero/...", "choose the audio decoder (only libav exists on this system)"},
    {"-keepDialnorm", "don't remove the dialog normalisation"},
    {"-demux", "demux all tracks of the source"},
    {"-stripPulldown", "remove the pulldown flags of a video track"},
    {"-keepPulldown", "keep the pulldown flags of a video track"},
    {"-skip2", "skip this many video headers"},
    {"-seekToIFrames", "make every I frame a seek point"},
    {"-24p/30p/60i", "the frame rate to mux video with"},
    {"-check", "check all tracks of the source without writing anything"},
    {"-test", "show which libraries and codecs are available"},
    {"-json", "print the listing and the outcome as one JSON document"},
};

constexpr const char* kTail[] = {
    "Supported source formats:",
    "(1) RAW, (L)PCM",
    "(2) WAV (PCM, DTS and AC3), W64, RF64",
    "(3) AC3, E-AC3",
    "(4) DTS, DTS-ES, DTS-96/24, DTS-HD Hi-Res, DTS-HD Master Audio",
    "(5) MP2",
    "(6) FLAC",
    "(7) TrueHD, MLP, TrueHD/AC3",
    "(8) MPEG2, h264/AVC, VC-1",
    "(9) EVO/VOB/(M2)TS, Blu-ray and HD DVD disc folders",
    "",
    "Decoded audio data can be stored as / encoded to:",
    "RAW, (L)PCM, WAV (PCM only), FLAC, AC3, DTS",
    "",
    "For best AC3 and E-AC3 decoding you need:",
    "libavcodec (built in)",
    "",
    "For best DTS decoding you need:",
    "libavcodec (built in)",
    "",
    "For DTS encoding you need:",
    "libavcodec (built in)",
    "",
    "For video muxing you need:",
    "libavformat (built in)",
};

}  // namespace

void PrintHelp() {
  WriteLine(0, "sonvex v" + VersionText());
  WriteLine(0, "");
  for (const char* line : kAbilities) WriteLine(0, line);
  WriteLine(0, "");
  WriteLine(0, "Usage: sonvex sourcefile[+sourcefile2] [trackno:] [destfile|stdout] [-options]");
  WriteLine(0, "");
  WriteLine(0, "Examples:");
  for (const char* line : kExamples) WriteLine(0, line);
  WriteLine(0, "");
  WriteLine(0, "Options:");
  for (const HelpOption& option : kOptions) {
    std::string name = option.name;
    if (name.size() < 18) name.resize(18, ' ');
    else name += ' ';
    WriteLine(0, name + option.text);
  }
  WriteLine(0, "");
  for (const char* line : kTail) WriteLine(0, line);
}

}  // namespace sonvex
