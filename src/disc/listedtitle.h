// The facts of each title a disc listing prints (number, playlist, angle, length, clips, tracks),
// handed to a recorder beside the text lines, for listings that machines read.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

namespace sonvex {

struct TListedTitle {
  int32_t number = 0;       // as "n)" in the listing and on the command line
  std::string playlist;     // Blu-ray: "00800.mpls"; empty for HD DVD
  int32_t angle = 0;        // 0 for a title without angles
  int64_t durationMs = 0;
  std::vector<std::string> clips;   // file names, in play order
  std::string name;                 // HD DVD title name
  std::vector<std::string> tracks;  // the track lines of the listing, without the "- "
};

// Sets the receiver of the listed titles; nullptr (the default) records nothing.
void SetTitleRecorder(std::function<void(const TListedTitle&)> recorder);
void RecordTitle(const TListedTitle& title);

}  // namespace sonvex
