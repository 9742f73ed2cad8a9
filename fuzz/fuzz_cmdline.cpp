// Fuzzes the command line: the input is split at NUL bytes into argv, rejoined as the program
// does, tokenized and walked into TOptions. The same bytes also go to the tokenizer whole, with a
// blank and with "+" as separators. Title lookups answer "no disc" without touching the disk.
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "framework/console.h"
#include "run/cmdline.h"

using namespace sonvex;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static bool quiet = [] {
    SetLogHook([](int, const std::string&) {});
    SetTitleResolver([](const std::string&, int, std::string&, bool& reported) {
      reported = false;
      return false;
    });
    return true;
  }();
  (void)quiet;
  std::string text(reinterpret_cast<const char*>(data), size);
  Tokenize(text, ' ');
  Tokenize(text, '+');

  std::vector<std::string> arguments = {"sonvex"};
  for (size_t start = 0, end; start <= text.size(); start = end + 1) {
    end = text.find('\0', start);
    if (end == std::string::npos) end = text.size();
    arguments.push_back(text.substr(start, end - start));
  }
  std::vector<char*> argv;
  for (auto& argument : arguments) argv.push_back(argument.data());
  std::string line = RawCommandLine(int(argv.size()), argv.data());
  TOptions options;
  ParseCommandLine(line, options);
  SetConsoleOff(false);
  return 0;
}
