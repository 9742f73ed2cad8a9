// Throughput of the source stage: pushes files through TSourceFiles into file simulators, with
// one branch or with several (the source's fan-out, one worker thread per branch), and prints
// the time taken. Run by source.sh, which compares it with cat on the same file.
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "files/sourcefiles.h"
#include "framework/console.h"
#include "framework/smallstages.h"

int main(int argc, char** argv) {
  using namespace sonvex;
  if (argc < 3) {
    std::fprintf(stderr, "usage: bench_source <branches> <file> [<file>...]\n");
    return 1;
  }
  int branches = std::atoi(argv[1]);
  std::vector<std::string> names(argv + 2, argv + argc);
  SetConsoleIsTerminal(false);

  auto start = std::chrono::steady_clock::now();
  auto source = TSourceFiles::Create(names, 24000, 1001, 0);
  if (!source->IsValid()) return 1;
  std::vector<std::shared_ptr<TFileSimulator>> ends;
  std::vector<UpStreamRef> list;
  for (int i = 0; i < branches; i++) {
    ends.push_back(TFileSimulator::Create());
    list.push_back(ends.back());
  }
  source->SetUpStreams(list);
  bool ok = source->Write(0, false, nullptr, 0, -1, false);
  double seconds =
      std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  for (auto& end : ends)
    if (end->Size() != source->TotalSize()) ok = false;
  std::printf("%d branch(es): %lld bytes in %.3f s, %.0f MB/s%s\n", branches,
              static_cast<long long>(source->TotalSize()), seconds,
              double(source->TotalSize()) / seconds / 1e6, ok ? "" : " (FAILED)");
  return ok ? 0 : 1;
}
