// libFuzzer target: TMp2Reader with the MP2 delayer and gap realizer behind it, fed in pieces
// whose sizes come from the tail of the input.
#include <cstddef>
#include <cstdint>
#include <string>

#include "framework/smallstages.h"
#include "mp2/mp2bitstream.h"
#include "mp2/mp2edits.h"
#include "mp2/mp2reader.h"

using namespace sonvex;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 3) return 0;
  uint8_t mode = data[size - 1];
  size_t piece = 1 + data[size - 2] * 37u;
  size -= 2;

  TMp2FrameInfo info;
  ParseMp2Frame(data, uint32_t(size), info);

  auto reader = TMp2Reader::Create("", "", mode & 1);
  reader->SetSilent(true);
  // A gap list taken from the front of the input: one zero record and one more.
  std::string gaps(16, '\0');
  if (size >= 16) gaps.append(reinterpret_cast<const char*>(data), 16);
  if (mode & 2) reader->AppendUpStream(TMp2GapRealizer::Create(gaps));
  auto delayer = TMp2Delayer::Create();
  reader->AppendUpStream(delayer);
  reader->AppendUpStream(TFileSimulator::Create());
  reader->SetDelay(0, int32_t(int8_t(mode)) * 10);
  bool ok = reader->InitAudio("?", 1, 8, 48000, false, int64_t(size));
  for (size_t at = 0; ok && at < size; at += piece) {
    size_t n = size - at < piece ? size - at : piece;
    ok = reader->Write(0, false, data + at, uint32_t(n), (mode & 4) ? int64_t(at) : -1, false);
  }
  if (ok) reader->Finish();
  return 0;
}
