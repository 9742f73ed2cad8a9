// Disc folders in the main run: listing the titles of a disc, turning a title number (or a
// playlist file given as the source) into its joined clips, and finding the playlist and clip
// facts of an analysed source: its chapters, the languages and names of its tracks.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "framework/details.h"

namespace sonvex {

// Prints the titles if `folder` holds an HD DVD or a Blu-ray structure.
bool ListDiscTitles(const std::string& folder);
// Makes the command line resolve "n)" titles and ".mpls" sources through the disc readers.
void InstallTitleResolver();
// Whether a source names a Blu-ray playlist file, which runs as a title of its own.
bool IsPlaylistSource(const std::string& source);

// What a disc says of the tracks of an analysed source.
struct TDiscFacts {
  std::string titleName;    // HD DVD title name, shown behind the container line
  std::string chapterText;  // "CHAPTER01=..." text, empty without chapters
  std::string chapterLine;  // "Chapters, 21 chapters"
  // Language names and track names by kind (1 audio, 2 subtitle) and track id.
  std::map<std::pair<int, int32_t>, std::string> languages;
  std::map<std::pair<int, int32_t>, std::string> names;
};

// Looks for the HD DVD or Blu-ray playlist and the clip information of the analysed `sources`.
TDiscFacts FindDiscFacts(const std::vector<std::string>& sources,
                         const IContainerFormatDetails& container);

}  // namespace sonvex
