// The machine-readable form of what a run prints: a small JSON writer (string escaping, UTF-8
// kept valid), the listing of a source or of a disc's titles, and the outcome of a pass. With
// "-json" this document is all that goes to standard output.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "disc/listedtitle.h"
#include "run/runtracks.h"
#include "run/titles.h"

namespace sonvex {

// Writes one JSON document; commas and nesting are kept by the writer itself.
class TJsonWriter {
public:
  // `key` is nullptr for an element of an array.
  TJsonWriter& Open(const char* key, char bracket);
  TJsonWriter& Close();
  TJsonWriter& Field(const char* key, const std::string& value);
  TJsonWriter& Field(const char* key, const char* value) { return Field(key, std::string(value)); }
  TJsonWriter& Field(const char* key, int64_t value);
  TJsonWriter& Field(const char* key, double value);
  TJsonWriter& Flag(const char* key, bool value);
  const std::string& Text() const { return out; }

private:
  void Separate(const char* key);
  std::string out;
  std::vector<char> closers;
  bool first = true;
};

// A JSON string literal of `text`; bytes that are not UTF-8 become U+FFFD.
std::string JsonString(const std::string& text);

// What "-json" collects while the run goes on: the messages the run printed, and disc titles.
struct TJsonRun {
  std::string containerLine;                    // as the listing printed them
  std::map<int32_t, std::string> trackLines;    // by track number, without "n: "
  std::vector<TListedTitle> titles;
  std::vector<std::string> warnings;  // level 1
  std::vector<std::string> errors;    // level 2
};

// Sends the console lines to standard error and collects the messages and listed titles;
// progress as JSON lines.
void StartJsonRun(TJsonRun& run);

// Whether "-json" is one of the arguments (disc titles are listed before the line is parsed).
bool WantsJson(int argc, char** argv);
// The files of the actions that are there after a pass, under their settled names.
std::vector<std::string> ExistingOutputs(const std::vector<TAction>& actions);
// Puts a document on standard output and ends the collecting of lines.
void FinishJsonRun(const std::string& document);

// The document of an analysed source (`sources` are its files); `outputs` and the outcome only
// after a pass (`passed`).
std::string SourceJson(const TSourceInfo& info, const TDiscFacts& disc, const TJsonRun& run,
                       const std::vector<std::string>& sources,
                       const std::vector<std::string>& outputs, bool passed, int exitCode);
// The document of a disc folder: its listed titles.
std::string TitlesJson(const TJsonRun& run, int exitCode);

}  // namespace sonvex
