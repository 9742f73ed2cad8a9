// HD DVD advanced playlists ("VPLST000.XPL"): titles with their EVO clips, tracks and chapters,
// the filters that leave out menus, logos and trailers, the numbered title list, and the turning
// of a title number into its EVO files joined with "+".
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "disc/chapters.h"
#include "disc/hdvti.h"

namespace sonvex {

struct TXplVideoTrack {
  int32_t Track = 0, Angle = 0;
  std::string Name;  // the format's name ("VC-1")
  std::string Aspect, Description;
  bool Interlaced = false;
  uint32_t Width = 0, Height = 0;
};

struct TXplAudioTrack {
  int32_t Track = 0, Stream = 0;
  std::string Name;  // the format's name ("E-AC3")
  std::string Language, Extra, Text, Description;
  uint32_t Channels = 0, Bits = 0, Bitrate = 0, SampleRate = 0;
};

struct TXplSubtitleTrack {
  int32_t Track = 0, Stream = 0;
  std::string Name, Language, Extra, Text, Description;
  bool Forced = false, BigCharacters = false, ForChildren = false;
};

struct TXplClip {
  int64_t Duration = 0;  // milliseconds
  std::string Description;
  std::string FileName;  // EVO name without folders
  std::vector<TXplVideoTrack> Video;
  std::vector<TXplAudioTrack> Audio;
  std::vector<TXplSubtitleTrack> Subtitles;
};

struct TXplTitle {
  uint32_t Number = 0;
  std::string Name;
  int64_t Duration = 0;          // milliseconds
  std::vector<uint32_t> Clips;   // indexes into TXpl::Clips
  TChapters Chapters;
};

struct TXpl {
  std::vector<TXplTitle> Titles;
  std::vector<TXplClip> Clips;
};

// "hh:mm:ss:ff" at 60 frames per second, in milliseconds.
int64_t ParseXplTime(const std::string& text);
// Whether a title or clip name marks a menu, logo or trailer.
bool IsFixedNonFilmClip(const std::string& fileName);
bool HoldsNonFilmClipPart(const std::string& fileName);
bool IsNonFilmTitleName(const std::string& name);

// Empty on any fault. `vti` (may be empty) fills in the video and audio formats.
TXpl ReadXpl(const std::string& path, const std::vector<TVti>& vti);
// The same on the file's text; `path` is where it stands, for finding the EVO files.
TXpl ParseXpl(const std::string& text, const std::string& path, const std::vector<TVti>& vti);
// Index of title `number` (from 0): longest first, ties to the earlier; -1 outside the list.
int XplTitleIndex(const TXpl& xpl, int number);
void PrintTitles(const TXpl& xpl);

// The playlist of the disc that `path` belongs to, with or without the VTI's help.
TXpl FindHdDvdPlaylist(const std::string& path, bool withVti);
// The EVO folder of a disc path; the path itself when there is none.
std::string FindHdDvdEvoFolder(const std::string& path);

bool DetectHdDvd(const std::string& path);
bool SelectHdDvdTitle(std::string& source, int number, bool& failed);

}  // namespace sonvex
