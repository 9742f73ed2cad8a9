// Language names for the codes that discs carry (ISO 639-2 three-letter and ISO 639-1
// two-letter codes), and the cleaning of track descriptions of words that only repeat the
// format or the language.
#pragma once

#include <string>
#include <string_view>

namespace sonvex {

// The rows of ISO 639-2 in code order: "codes|two-letter code|English name".
extern const std::string_view kLanguageRows[484];

// The English name of a three-letter code; an unknown code comes back lower-cased, "" stays "".
std::string LanguageName(const std::string& code);
// The same by a two-letter code (the second field of the rows).
std::string LanguageNameByTwoLetters(const std::string& code);

// Remove the words that repeat format, channels and language, then `extra`, then trim blanks.
void CleanAudioText(std::string& text, const std::string& extra);
// The same with the language words only: the format words are left alone.
void CleanSubtitleText(std::string& text, const std::string& extra);

}  // namespace sonvex
