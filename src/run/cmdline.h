// The command line: argv rejoined into one line, the program's own tokenizer, the walk over the
// arguments that fills TOptions, and the help text.
#pragma once

#include <functional>
#include <string>
#include <vector>

#include "run/options.h"

namespace sonvex {

// argv rejoined with blanks, quoting arguments that hold a blank.
std::string RawCommandLine(int argc, char** argv);
// Splits at `separator` outside double quotes; quotes stay part of the token; runs of separators
// count as one. With a blank as separator, the line is first trimmed and prepared: a track mark
// glued to a name ("1:name") is taken apart, and a quoted path with a glued "-640" too.
std::vector<std::string> Tokenize(const std::string& line, char separator = ' ');
// Fills `options`; on an error it prints the reason at level 2 and returns false.
bool ParseCommandLine(const std::string& rawLine, TOptions& options);
void PrintHelp();

// Resolves a disc title to a "+" list of quoted file names. Returns false when the folder holds
// no disc structure; `reported` tells whether the resolver has already said why.
using TitleResolver = std::function<bool(const std::string& folder, int title,
                                         std::string& sources, bool& reported)>;
void SetTitleResolver(TitleResolver resolver);

// Helpers shared by the run.
std::string RemoveQuotes(const std::string& text);
std::string TrimControl(const std::string& text);  // cuts characters up to 32 from both ends
std::string LowerCase(std::string text);
bool ParseNumber(const std::string& text, int64_t& value);  // whole string, decimal, optional sign

}  // namespace sonvex
