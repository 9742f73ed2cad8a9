// The chapter record of a disc title and its text form ("CHAPTER01=00:00:00.000").
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace sonvex {

struct TChapter {
  int64_t Time = 0;  // milliseconds from the title's start
  std::string Name;
};
using TChapters = std::vector<TChapter>;

// Two lines for each chapter, each ending with CR LF; an empty list gives an empty text.
std::string ChaptersToText(const TChapters& chapters);
// "h:mm:ss" of a length in milliseconds, rounded to the second.
std::string TitleTimeText(int64_t milliseconds);

}  // namespace sonvex
