// Fuzzes the Blu-ray playlist reader. The playlist stands in a scratch disc whose STREAM folder
// holds clips 00000 to 00009, so that items are taken, dropped and visited twice.
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <vector>

#include "disc/bluray.h"
#include "framework/console.h"

using namespace sonvex;

namespace {
// Listings go nowhere.
const bool kQuiet = (SetLogHook([](int, const std::string&) {}), true);
}  // namespace

namespace {

std::string ScratchPlaylistPath() {
  static std::string path = [] {
    auto root = std::filesystem::temp_directory_path() / ("fuzz_mpls_" + std::to_string(getpid()));
    std::filesystem::create_directories(root / "BDMV" / "PLAYLIST");
    std::filesystem::create_directories(root / "BDMV" / "STREAM");
    for (int clip = 0; clip < 10; clip++)
      std::ofstream(root / "BDMV" / "STREAM" / ("0000" + std::to_string(clip) + ".m2ts"));
    return (root / "BDMV" / "PLAYLIST" / "00001.mpls").string();
  }();
  return path;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  std::vector<uint8_t> bytes(data, data + size);
  TM2tsPlaylist playlist = ParsePlaylist(bytes, ScratchPlaylistPath(), false, 0);
  for (const TM2tsPlayItem& item : playlist.Items)
    if (item.Clips.empty()) __builtin_trap();
  if (playlist.Valid) PrintPlaylists({playlist});
  return 0;
}
