// Fuzzes whole runs over a transport stream, as a user starts them: the input is written to a file
// and the program runs on it in process, with "-check" (every track the stream's own tables name
// goes through its demuxer, PES parser, time stamp fixer, reader and the audio chain's edit
// stages into a file simulator) or with one track decoded into a "%check%" output. The first byte
// picks the packet size of the file name's kind, the mode and the track.
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "framework/console.h"
#include "run/mainrun.h"

using namespace sonvex;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static const std::string folder = [] {
    std::string name = "/tmp/fuzz_tschain_" + std::to_string(getpid());
    std::system(("mkdir -p " + name).c_str());
    setenv("XDG_STATE_HOME", name.c_str(), 1);
    SetLogHook([](int, const std::string&) {});
    return name;
  }();
  if (size < 1) return 0;
  const uint8_t mode = data[0];
  std::string file = folder + ((mode & 1) ? "/in.m2ts" : "/in.ts");
  FILE* out = std::fopen(file.c_str(), "wb");
  if (!out) return 0;
  std::fwrite(data + 1, 1, size - 1, out);
  std::fclose(out);

  // The log copy goes into the scratch folder, not beside the destination.
  std::vector<std::string> arguments = {"sonvex", file, "-log=" + folder + "/run - Log.txt"};
  if (mode & 2) {
    arguments.push_back(std::to_string(1 + (mode >> 2) % 8) + ":");
    arguments.push_back("%check%.wav");
  } else {
    arguments.push_back("-check");
  }
  std::vector<char*> argv;
  for (auto& argument : arguments) argv.push_back(argument.data());
  RunMain(int(argv.size()), argv.data());
  SetConsoleOff(false);
  std::remove(file.c_str());
  return 0;
}
