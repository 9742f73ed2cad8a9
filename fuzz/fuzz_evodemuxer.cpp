// Fuzzes TEvoDemuxer. The last three bytes are control: the wanted class (bits 7..6: video,
// audio, subtitle) and id (low 5 bits), then the piece size of the pushes.
#include <algorithm>
#include <cstddef>
#include <cstdint>

#include "evo/evodemuxer.h"
#include "framework/console.h"
#include "framework/smallstages.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  using namespace sonvex;
  static bool quiet = [] {
    SetLogHook([](int, const std::string&) {});
    return true;
  }();
  (void)quiet;
  if (size < 3) return 0;
  uint8_t want = data[size - 3];
  size_t piece = (size_t(data[size - 2]) << 8 | data[size - 1]) + 1;
  size -= 3;
  bool video = (want >> 6) == 0, audio = (want >> 6) == 1;
  auto demuxer = TEvoDemuxer::Create(video, audio, want & 0x1F, 1);
  demuxer->SetUpStream(TFileSimulator::Create());
  bool ok = demuxer->InitContainer("?", int64_t(size), 0);
  for (size_t at = 0; ok && at < size; at += piece)
    ok = demuxer->Write(0, false, data + at, uint32_t(std::min(piece, size - at)), -1, false);
  if (ok) demuxer->Finish();
  return 0;
}
