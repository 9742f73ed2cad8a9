// Chapter text and title times.
#include "disc/chapters.h"

#include <cstdio>

namespace sonvex {

std::string ChaptersToText(const TChapters& chapters) {
  std::string text;
  char line[96];
  for (size_t i = 0; i < chapters.size(); i++) {
    int64_t time = chapters[i].Time < 0 ? 0 : chapters[i].Time;
    int64_t seconds = time / 1000;
    std::snprintf(line, sizeof line, "CHAPTER%02zu=%02lld:%02lld:%02lld.%03lld\r\n", i + 1,
                  static_cast<long long>(seconds / 3600), static_cast<long long>(seconds / 60 % 60),
                  static_cast<long long>(seconds % 60), static_cast<long long>(time % 1000));
    text += line;
    std::snprintf(line, sizeof line, "CHAPTER%02zuNAME=", i + 1);
    text += line + chapters[i].Name + "\r\n";
  }
  return text;
}

std::string TitleTimeText(int64_t milliseconds) {
  int64_t seconds = (milliseconds + 500) / 1000;
  char text[48];
  std::snprintf(text, sizeof text, "%lld:%02lld:%02lld", static_cast<long long>(seconds / 3600),
                static_cast<long long>(seconds / 60 % 60), static_cast<long long>(seconds % 60));
  return text;
}

}  // namespace sonvex
