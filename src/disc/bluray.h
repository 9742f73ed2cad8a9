// Blu-ray playlists (MPLS) and clip information (CLPI): reading them, the filters that leave out
// what isn't a film, the numbered title list, and the turning of a title number into its clip
// files joined with "+".
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "disc/chapters.h"

namespace sonvex {

struct TM2tsPlayItem {
  std::vector<uint32_t> Clips;  // clip number of angle 1, then the other angles
  uint32_t Connection = 0;      // connection_condition
  int64_t InTime = 0;           // 90 kHz ticks (the file holds 45 kHz)
  int64_t OutTime = 0;
  int64_t Start = 0;            // sum of the lengths of the items ahead, in ticks
};

struct TM2tsStream {
  uint32_t Pid = 0;
  uint8_t Kind = 0;  // 0 video, 1 audio, 2 graphics subtitle, 3 text subtitle
  std::string Description;
  std::string Language;  // the language's name
};
using TM2tsStreams = std::vector<TM2tsStream>;

struct TM2tsPlaylist {
  bool Valid = false;    // read and passed all filters
  std::string Name;      // "00800.mpls"
  int64_t Duration = 0;  // milliseconds
  uint32_t Angle = 0;    // 0 without angles; in a list entry the angle number from 1
  std::vector<TM2tsPlayItem> Items;
  TM2tsStreams Streams;  // of the first clip, when asked for
  TChapters Chapters;
};
using TM2tsPlaylists = std::vector<TM2tsPlaylist>;

// Shortest playlist listed as a title: 15 minutes.
constexpr int64_t kMinimumTitleLength = 900000;

// Streams of a clip information file; empty on any fault.
TM2tsStreams ReadClipInfo(const std::string& path);
// One playlist. `Valid` is false on any fault, for a playlist that visits a clip twice, and for
// one shorter than `minimumLength` milliseconds.
TM2tsPlaylist ReadPlaylist(const std::string& path, bool withStreams,
                           int64_t minimumLength = kMinimumTitleLength);
// All valid playlists of "<folder>/PLAYLIST", one entry per angle, duplicates removed.
TM2tsPlaylists ReadPlaylists(const std::string& folder, bool withStreams);
// The same on a file's bytes; `path` is where the file stands, for finding its clips.
TM2tsStreams ParseClipInfo(const std::vector<uint8_t>& data);
TM2tsPlaylist ParsePlaylist(const std::vector<uint8_t>& data, const std::string& path,
                            bool withStreams, int64_t minimumLength = kMinimumTitleLength);
bool SamePlaylist(const TM2tsPlaylist& a, const TM2tsPlaylist& b);
// Index in `list` of title `number` (from 0): longest first, ties to the earlier entry; -1
// outside the list.
int TitleIndex(const TM2tsPlaylists& list, int number);
void PrintPlaylists(const TM2tsPlaylists& list);

// The playlists of the disc that `path` belongs to: "BDMV", the path itself, "../BDMV", "..",
// "../..", the first that gives any.
TM2tsPlaylists FindBluRayPlaylists(const std::string& path, bool withStreams);
// The folder of the clip files for a disc path; the path itself when there is none.
std::string FindBluRayStreamFolder(const std::string& path);
// A playlist's clips as quoted paths in `streamFolder`, joined with "+".
std::string PlaylistSource(const TM2tsPlaylist& playlist, const std::string& streamFolder);

// Prints the title list if `path` holds a Blu-ray disc.
bool DetectBluRay(const std::string& path);
// Replaces `source` by the clips of title `number` (from 1). False if there is no disc, or,
// with `failed` set and a message, if there is no such title.
bool SelectBluRayTitle(std::string& source, int number, bool& failed);

}  // namespace sonvex
