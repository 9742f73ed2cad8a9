// Disc folders in the main run: listing the titles of a disc, turning a title number (or a
// playlist file given as the source) into its joined clips, and finding the playlist and clip
// facts of an analysed source: its chapters, the languages and names of its tracks.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

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
  std::map<int32_t, std::string> languages;  // language names by track id
  std::map<int32_t, std::string> names;      // track names by track id
};

// Looks for the playlist and clip information of `sources` (a container of tag `format`).
TDiscFacts FindDiscFacts(const std::vector<std::string>& sources, const std::string& format);

}  // namespace sonvex
