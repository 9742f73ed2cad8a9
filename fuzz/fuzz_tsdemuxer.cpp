// Fuzzes TTsDemuxer with a TPesParser behind it. The last four bytes are control: the wanted PID
// and two flags (a seam halfway, the discontinuity switch), then the piece size of the pushes.
#include <cstddef>
#include <cstdint>

#include "framework/console.h"
#include "framework/smallstages.h"
#include "ts/pesparser.h"
#include "ts/tsdemuxer.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  using namespace sonvex;
  static bool quiet = [] {
    SetLogHook([](int, const std::string&) {});
    return true;
  }();
  (void)quiet;
  if (size < 4) return 0;
  uint32_t pid = (uint32_t(data[size - 4]) << 8 | data[size - 3]) & 0x1FFF;
  size_t piece = (size_t(data[size - 2]) << 8 | data[size - 1]) + 1;
  bool seam = data[size - 4] & 0x80;
  bool ignore = data[size - 4] & 0x40;
  size -= 4;
  auto demuxer = TTsDemuxer::Create(pid, 1, ignore);
  auto pes = TPesParser::Create(false);
  demuxer->SetUpStream(pes);
  pes->SetUpStream(TFileSimulator::Create());
  bool ok = demuxer->InitContainer("?", int64_t(size), 0);
  for (size_t at = 0; ok && at < size; at += piece) {
    if (seam && at >= size / 2 && at < size / 2 + piece) {
      demuxer->NotifySeam(true, 1234);
      demuxer->NotifySeam(false, 1234);
    }
    ok = demuxer->Write(0, false, data + at, uint32_t(std::min(piece, size - at)), -1, false);
  }
  if (ok) demuxer->Finish();
  return 0;
}
