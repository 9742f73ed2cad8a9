// Lists the tracks that TTsParser finds in a TS/M2TS file, with their delays (a development aid).
#include <cstdio>
#include <vector>

#include "framework/smallstages.h"
#include "ts/tsparser.h"

int main(int argc, char** argv) {
  using namespace sonvex;
  if (argc < 2) return 1;
  std::FILE* f = std::fopen(argv[1], "rb");
  if (!f) return 1;
  auto parser = TTsParser::Create(true);
  parser->SetUpStream(TFileSimulator::Create());
  bool ok = parser->InitContainer("?", 0, 0);
  std::vector<uint8_t> block(0x100000);
  size_t n;
  while (ok && (n = std::fread(block.data(), 1, block.size(), f)) > 0)
    ok = parser->Write(0, false, block.data(), uint32_t(n), -1, false);
  if (ok) ok = parser->Finish();
  std::fclose(f);
  auto c = parser->ContainerDetails();
  std::printf("ok=%d container=%s valid=%d\n", ok, c->Description().c_str(), c->IsValid());
  TTrackEntry e;
  for (int32_t i = 0; c->GetVideo(i, e); i++)
    std::printf("video pid %d delay %d %s\n", e.id, e.delay, e.details->VideoDetails()->Description().c_str());
  for (int32_t i = 0; c->GetAudio(i, e); i++)
    std::printf("audio pid %d delay %d %s\n", e.id, e.delay, e.details->AudioDetails()->Description().c_str());
  return ok ? 0 : 1;
}
