// Fuzzes the source stage's look into files: the program stream and transport stream walks on
// the raw input, then the input written to files (split into up to three joined files at places
// taken from its tail) and opened by TSourceFiles, whose read loop then runs into a simulator.
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

#include "files/sourcefiles.h"
#include "files/sourceprobe.h"
#include "framework/console.h"
#include "framework/smallstages.h"

using namespace sonvex;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static bool once = [] {
    SetLogHook([](int, const std::string&) {});
    return true;
  }();
  (void)once;

  TProbeStamps stamps;
  WalkEvoPackets(data, size, true, stamps);
  WalkEvoPackets(data, size, false, stamps);
  TTsProbe ts([](int, const std::string&, bool) {});
  for (uint32_t packetSize : {188u, 192u}) {
    ts.Walk(data, size, packetSize, 51200, true, stamps);
    ts.Walk(data, size, packetSize, 51200, false, stamps);
  }
  DetectTsPacketSize(data, size);

  // The last three bytes: the number of files and two split points.
  size_t files = 1, cut1 = 0, cut2 = 0;
  if (size >= 3) {
    files = 1 + data[size - 1] % 3;
    cut1 = size_t(data[size - 2]) * (size - 3) / 255;
    cut2 = size_t(data[size - 3]) * (size - 3) / 255;
    if (cut1 > cut2) std::swap(cut1, cut2);
    size -= 3;
  }
  std::vector<size_t> bounds = {0};
  if (files >= 3) bounds.push_back(cut1);
  if (files >= 2) bounds.push_back(cut2);
  bounds.push_back(size);
  std::vector<std::string> names;
  std::string base = "/tmp/fuzz_sourceprobe_" + std::to_string(getpid()) + "_";
  for (size_t i = 0; i + 1 < bounds.size(); i++) {
    names.push_back(base + std::to_string(i));
    FILE* out = std::fopen(names.back().c_str(), "wb");
    if (!out) return 0;
    std::fwrite(data + bounds[i], 1, bounds[i + 1] - bounds[i], out);
    std::fclose(out);
  }
  auto source = TSourceFiles::Create(names, 24000, 1001, 0);
  source->SetUpStream(TFileSimulator::Create());
  source->Write(0, false, nullptr, 0, -1, false);
  if (source->IsValid() && source->Position() != int64_t(size)) __builtin_trap();
  for (const auto& name : names) std::remove(name.c_str());
  return 0;
}
