// Demuxes tracks of a TS/M2TS into files with the program's own demux chains: the file is read in
// 1 MiB blocks and sent to one branch per track (a fan-out, one thread per branch, as in a run),
// each branch being the TS demux head of the track and a file writer.
// Usage: tsdemux <source> <output prefix> <pid>:<format> ...   (format: ac3, dts, thd, pcm, h264)
#include <chrono>
#include <cstdio>
#include <string>
#include <vector>

#include "framework/smallstages.h"
#include "ts/tsdemuxhead.h"

namespace {

using namespace sonvex;

class TFileWriter : public TUpStream {
public:
  explicit TFileWriter(const std::string& name) : file(std::fopen(name.c_str(), "wb")) {}
  ~TFileWriter() override {
    if (file) std::fclose(file);
  }
  bool InitAudio(const std::string&, uint32_t, uint32_t, uint32_t, bool, int64_t) override {
    return file != nullptr;
  }
  bool InitVideo(const std::string&, bool, bool, uint32_t, uint32_t, uint32_t, uint32_t, uint32_t,
                 uint32_t, const std::string&) override {
    return file != nullptr;
  }
  bool Write(SenderId, bool, const uint8_t* data, uint32_t size, int64_t, bool) override {
    return !size || std::fwrite(data, 1, size, file) == size;
  }
  bool Finish() override { return std::fflush(file) == 0; }

private:
  std::FILE* file;
};

}  // namespace

int main(int argc, char** argv) {
  if (argc < 4) {
    std::fprintf(stderr, "usage: tsdemux <source> <output prefix> <pid>:<format> ...\n");
    return 1;
  }
  std::vector<UpStreamRef> heads;
  for (int i = 3; i < argc; i++) {
    std::string arg = argv[i];
    size_t colon = arg.find(':');
    TTsHeadRequest request;
    request.pid = int32_t(std::stoul(arg.substr(0, colon), nullptr, 0));
    request.trackNumber = i - 2;
    std::string format = arg.substr(colon + 1);
    request.isVideo = format == "h264" || format == "vc1" || format == "mpeg2";
    if (!request.isVideo) request.audioFormat = format;
    auto head = BuildTsDemuxHead(request);
    head->AppendUpStream(std::make_shared<TFileWriter>(std::string(argv[2]) + arg.substr(0, colon) + "." + format));
    head->SetSilent(true);
    heads.push_back(head);
  }
  auto source = TPassThrough::Create();
  source->SetUpStreams(heads);
  std::FILE* in = std::fopen(argv[1], "rb");
  if (!in) return 1;
  auto start = std::chrono::steady_clock::now();
  bool ok = source->InitContainer("?", 0, 0);
  std::vector<uint8_t> block(0x100000);
  size_t n;
  while (ok && (n = std::fread(block.data(), 1, block.size(), in)) > 0)
    ok = source->Write(0, false, block.data(), uint32_t(n), -1, false);
  if (ok) ok = source->Finish();
  std::fclose(in);
  double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  std::fprintf(stderr, "tsdemux: %s in %.2f s\n", ok ? "done" : "FAILED", seconds);
  return ok ? 0 : 1;
}
