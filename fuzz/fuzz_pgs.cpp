// Fuzzes the PGS path of TS/M2TS sources: TTsParser listing the subtitle tracks and their time
// origin, then the demux head of a subtitle track (TTsDemuxer, TPgsReader) on the same bytes.
// The last three bytes are control: a seam halfway (top bit), the subtitle PID's low byte (the
// high byte is 0x12, the Blu-ray range), then the piece size of the pushes.
#include <algorithm>
#include <cstddef>
#include <cstdint>

#include "framework/console.h"
#include "framework/smallstages.h"
#include "ts/pgsreader.h"
#include "ts/tsdemuxhead.h"
#include "ts/tsparser.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  using namespace sonvex;
  static bool quiet = [] {
    SetLogHook([](int, const std::string&) {});
    return true;
  }();
  (void)quiet;
  if (size < 3) return 0;
  bool seam = data[size - 3] & 0x80;
  uint32_t pid = 0x1200 | data[size - 2];
  size_t piece = size_t(data[size - 1]) * 64 + 1;
  size -= 3;

  auto parser = TTsParser::Create(true);
  parser->SetUpStream(TFileSimulator::Create());
  bool ok = parser->InitContainer("?", int64_t(size), 0);
  for (size_t at = 0; ok && at < size; at += piece)
    ok = parser->Write(0, false, data + at, uint32_t(std::min(piece, size - at)), -1, false);
  if (ok) parser->Finish();
  int64_t origin = -1;
  auto container = parser->ContainerDetails();
  TTrackEntry entry;
  for (int32_t i = 0; container->GetSubtitle(i, entry); i++)
    if (auto timing = Query<IPgsTiming>(entry.details); timing && entry.id == int32_t(pid))
      origin = timing->TimeOrigin();

  TTsHeadRequest request;
  request.pid = int32_t(pid);
  request.trackNumber = 2;
  request.isSubtitle = true;
  request.timeOrigin = origin;
  UpStreamRef head = BuildTsDemuxHead(request);
  head->AppendUpStream(TFileSimulator::Create());
  ok = head->InitContainer("?", int64_t(size), 0);
  for (size_t at = 0; ok && at < size; at += piece) {
    if (seam && at >= size / 2 && at < size / 2 + piece) {
      head->NotifySeam(true, 90000);
      head->NotifySeam(false, 90000);
    }
    ok = head->Write(0, false, data + at, uint32_t(std::min(piece, size - at)), -1, false);
  }
  if (ok) head->Finish();
  return 0;
}
