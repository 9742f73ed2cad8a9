// The language table, chapter text and the cleaning of descriptions.
#include "disc/languages.h"

#include <gtest/gtest.h>

#include "disc/chapters.h"

namespace sonvex {
namespace {

TEST(Languages, TableShapeAndOrder) {
  size_t twoLetter = 0;
  for (size_t i = 0; i < std::size(kLanguageRows); i++) {
    std::string_view row = kLanguageRows[i];
    ASSERT_EQ(std::count(row.begin(), row.end(), '|'), 2) << row;
    if (row.find("||") == std::string_view::npos) twoLetter++;
    if (i) { EXPECT_LT(kLanguageRows[i - 1].substr(0, 3), row.substr(0, 3)) << row; }
  }
  EXPECT_EQ(std::size(kLanguageRows), 484u);
  EXPECT_EQ(twoLetter, 185u);
  EXPECT_EQ(kLanguageRows[0], "aar|aa|Afar");
  EXPECT_EQ(kLanguageRows[483], "zza||Zaza");
}

TEST(Languages, Names) {
  struct Case {
    const char* code;
    const char* name;
  };
  const Case threeLetters[] = {{"eng", "English"}, {"ENG", "English"}, {"ger", "German"},
                               {"deu", "German"},  {"gre", "Modern Greek"}, {"ell", "Modern Greek"},
                               {"scc", "Serbian"}, {"hrv", "Croatian"},    {"ace", "Achinese"},
                               {"jpn", "Japanese"}, {"chi", "Chinese"},    {"zho", "Chinese"},
                               {"XYZ", "xyz"},     {"", ""}};
  for (const Case& c : threeLetters) EXPECT_EQ(LanguageName(c.code), c.name) << c.code;
  const Case twoLetters[] = {{"en", "English"}, {"de", "German"}, {"ja", "Japanese"},
                             {"jp", "Japanese"}, {"fr", "French"}, {"qq", "qq"}};
  for (const Case& c : twoLetters) EXPECT_EQ(LanguageNameByTwoLetters(c.code), c.name) << c.code;
}

TEST(Languages, CleaningLeavesWhatTheAuthorsAdded) {
  struct Case {
    const char* text;
    const char* extra;
    const char* audio;
    const char* subtitle;
  };
  const Case cases[] = {
      {"English Dolby Digital Plus 5.1 Commentary", "English", "Commentary", "Dolby Digital Plus  Commentary"},
      {"  Francais 2.0  ", "French", "", ""},
      {"DTS-HD Master  Audio", "", "Master  Audio", "DTS-HD Master  Audio"},
      {"english", "", "english", "english"},
      {"Castillian Spanish", "Spanish", "", ""},
      {"Director Polski", "Polish", "Director Polski", "Director Polski"},
  };
  for (const Case& c : cases) {
    std::string audio = c.text, subtitle = c.text;
    CleanAudioText(audio, c.extra);
    CleanSubtitleText(subtitle, c.extra);
    EXPECT_EQ(audio, c.audio) << c.text;
    EXPECT_EQ(subtitle, c.subtitle) << c.text;
  }
}

TEST(Chapters, TextWithCrLf) {
  EXPECT_EQ(ChaptersToText({}), "");
  EXPECT_EQ(ChaptersToText({{3723004, "Opening"}, {0, ""}}),
            "CHAPTER01=01:02:03.004\r\nCHAPTER01NAME=Opening\r\n"
            "CHAPTER02=00:00:00.000\r\nCHAPTER02NAME=\r\n");
  TChapters many(100, {1000, ""});
  std::string text = ChaptersToText(many);
  EXPECT_NE(text.find("CHAPTER100=00:00:01.000\r\nCHAPTER100NAME=\r\n"), std::string::npos);
}

TEST(Chapters, TitleTimeRoundsToSeconds) {
  EXPECT_EQ(TitleTimeText(5995030), "1:39:55");
  EXPECT_EQ(TitleTimeText(900000), "0:15:00");
  EXPECT_EQ(TitleTimeText(499), "0:00:00");
  EXPECT_EQ(TitleTimeText(500), "0:00:01");
  EXPECT_EQ(TitleTimeText(36000000 * 3), "30:00:00");
}

}  // namespace
}  // namespace sonvex
