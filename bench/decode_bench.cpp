// Decodes a TrueHD/MLP/DTS/AC3 elementary stream through the chain's decoding stages and writes
// FLAC or WAV: TLibavDecoder, TBitdepthReducer to 24 bits, TFlacEncoder or TWavWriter, a file.
// Usage: decode_bench <tag> <input> <output.flac|output.wav>
#include <cstdio>
#include <fstream>
#include <string>
#include <vector>

#include "codecs/flacencoder.h"
#include "codecs/libavdecoder.h"
#include "codecs/wavwriter.h"
#include "framework/smallstages.h"
#include "pcm/bitdepthreducer.h"

using namespace sonvex;

namespace {

// A plain seekable file at the end of the chain.
class TBenchFile : public TUpStream, public ISeekableUpStream {
public:
  explicit TBenchFile(const std::string& name) : file(std::fopen(name.c_str(), "wb")) {}
  ~TBenchFile() override {
    if (file) std::fclose(file);
  }
  bool Write(SenderId, bool, const uint8_t* data, uint32_t size, int64_t, bool) override {
    if (!file || std::fwrite(data, 1, size, file) != size) return false;
    position += size;
    return true;
  }
  bool Finish() override { return file && std::fflush(file) == 0; }
  int64_t Position() override { return position; }
  void Seek(int64_t to) override {
    if (file && std::fseek(file, long(to), SEEK_SET) == 0) position = to;
  }
  int64_t Size() override { return position; }

private:
  std::FILE* file;
  int64_t position = 0;
};

}  // namespace

int main(int argc, char** argv) {
  if (argc != 4) {
    std::fprintf(stderr, "usage: decode_bench <tag> <input> <output.flac|output.wav>\n");
    return 1;
  }
  std::string tag = argv[1], output = argv[3];
  auto decoder = TLibavDecoder::CreateFor(tag);
  if (!decoder) return 1;
  auto reducer = TBitdepthReducer::Create(24, true);
  UpStreamRef writer;
  if (output.size() > 5 && output.substr(output.size() - 5) == ".flac")
    writer = TFlacEncoder::Create(8, nullptr);
  else
    writer = TWavWriter::Create(false, 0, false);
  decoder->SetUpStream(reducer);
  reducer->SetUpStream(writer);
  writer->SetUpStream(std::make_shared<TBenchFile>(output));
  decoder->SetSilent(true);
  std::FILE* in = std::fopen(argv[2], "rb");
  if (!in) return 1;
  std::fseek(in, 0, SEEK_END);
  int64_t size = std::ftell(in);
  std::fseek(in, 0, SEEK_SET);
  bool ok = decoder->InitAudio(tag, 1, 8, 0, false, size);
  std::vector<uint8_t> block(16384);
  size_t n;
  while (ok && (n = std::fread(block.data(), 1, block.size(), in)) > 0)
    ok = decoder->Write(0, false, block.data(), uint32_t(n), -1, false);
  std::fclose(in);
  ok = ok && decoder->Finish();
  return ok ? 0 : 1;
}
