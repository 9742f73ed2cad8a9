// Fuzzes TDtsReader, with the DTS edit stages behind it. The last two bytes of the input choose
// the piece size of the pushes and the reader's options, so that split frames are fuzzed too;
// the top bit of the piece byte wraps the input in a .dtshd container.
#include <cstddef>
#include <cstdint>
#include <vector>

#include "dts/dtsbitdepthpatcher.h"
#include "dts/dtscoreextractor.h"
#include "dts/dtsdelayer.h"
#include "dts/dtsdialnormremover.h"
#include "dts/dtsreader.h"
#include "dts/dtsrepairer.h"
#include "framework/smallstages.h"

using namespace sonvex;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 2) return 0;
  const uint32_t piece = uint32_t(data[size - 2] & 0x7F) * 37 + 1;
  const uint8_t options = data[size - 1];
  size -= 2;
  // With the top bit of the piece byte the input goes into a .dtshd container: its header
  // chunks, the input as "STRMDATA", and a chunk behind it.
  std::vector<uint8_t> wrapped;
  if (data[size] & 0x80) {
    auto chunk = [&wrapped](const char* name, const uint8_t* payload, uint64_t length) {
      wrapped.insert(wrapped.end(), name, name + 8);
      for (int shift = 56; shift >= 0; shift -= 8) wrapped.push_back(uint8_t(length >> shift));
      wrapped.insert(wrapped.end(), payload, payload + length);
    };
    static const uint8_t kHeader[16] = {};
    static const uint8_t kAupr[24] = {0, 0, 1, 0, 0xBB, 0x80, 0, 0, 0, 6, 2, 0,
                                      0, 0, 0, 8, 0,    0,    0, 0x0F, 4, 0, 0, 0};
    chunk("DTSHDHDR", kHeader, sizeof kHeader);
    chunk("AUPR-HDR", kAupr, sizeof kAupr);
    chunk("STRMDATA", data, size);
    chunk("BLACKOUT", kHeader, sizeof kHeader);
    data = wrapped.data();
    size = wrapped.size();
  }
  auto reader = TDtsReader::Create("", "", options & 1, false, options & 2);
  reader->SetSilent(true);
  if (options & 4) reader->AppendUpStream(TDtsCoreExtractor::Create());
  if (options & 8) {
    reader->AppendUpStream(TDtsRepairer::Create());
    reader->AppendUpStream(TDtsDialnormRemover::Create());
  }
  if (options & 16) reader->AppendUpStream(TDtsBitdepthPatcher::Create());
  if (options & 32) {
    auto delayer = TDtsDelayer::Create();
    reader->AppendUpStream(delayer);
    delayer->SetDelay(0, (options & 64) ? 35 : -35);
  }
  reader->AppendUpStream(TFileSimulator::Create());
  bool ok = reader->InitAudio("?", 1, 8, 48000, false, int64_t(size));
  for (size_t at = 0; ok && at < size; at += piece) {
    uint32_t n = uint32_t(size - at < piece ? size - at : piece);
    ok = reader->Write(0, false, data + at, n, (options & 128) ? int64_t(at) * 100 : -1, false);
  }
  if (ok) reader->Finish();
  return 0;
}
