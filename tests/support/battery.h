// The parser battery every stream reader goes through: the whole stream; the same pushed in
// pieces of many sizes from 1 byte up; garbage only; truncated streams; garbage in front.
// A reader must give the same output whatever the piece size, never crash or hang, and fail or
// stay silent on garbage.
#pragma once

#include <gtest/gtest.h>

#include <functional>
#include <random>

#include "support/capture.h"

namespace sonvex::test {

struct PushResult {
  bool ok = false;  // every Write and the Finish returned true
  std::vector<uint8_t> output;
  std::vector<uint32_t> blocks;
  std::shared_ptr<TCapture> capture;
};

using StageFactory = std::function<UpStreamRef()>;
// Announces the stream to a fresh stage; by default as the source does for a bare file.
using Announce = std::function<bool(IUpStream&, int64_t size)>;

inline bool AnnounceBare(IUpStream& stage, int64_t size) {
  return stage.InitAudio("?", 1, 8, 48000, false, size);
}

// Announces `stream` to `stage`, writes it in pieces of `piece` bytes and finishes; a capture
// appended behind the stage collects what comes out.
inline PushResult Push(const UpStreamRef& stage, const std::vector<uint8_t>& stream, size_t piece,
                       const Announce& announce = AnnounceBare) {
  PushResult result;
  result.capture = TCapture::Create();
  stage->AppendUpStream(result.capture);
  bool ok = announce(*stage, int64_t(stream.size()));
  for (size_t at = 0; ok && at < stream.size(); at += piece) {
    size_t n = std::min(piece, stream.size() - at);
    ok = stage->Write(0, false, stream.data() + at, uint32_t(n), -1, false);
  }
  if (ok) ok = stage->Finish();
  result.ok = ok;
  result.output = result.capture->bytes;
  result.blocks = result.capture->blocks;
  return result;
}

inline PushResult PushInPieces(const StageFactory& make, const std::vector<uint8_t>& stream,
                               size_t piece, const Announce& announce = AnnounceBare) {
  UpStreamRef stage = make();
  stage->SetSilent(true);
  return Push(stage, stream, piece, announce);
}

inline std::vector<uint8_t> RandomBytes(size_t n, uint32_t seed) {
  std::mt19937 random(seed);
  std::vector<uint8_t> bytes(n);
  for (auto& b : bytes) b = uint8_t(random());
  return bytes;
}

// Runs the whole battery; `expected` is what the reader sends for the clean stream.
inline void RunParserBattery(const StageFactory& make, const std::vector<uint8_t>& stream,
                             const std::vector<uint8_t>& expected,
                             const Announce& announce = AnnounceBare) {
  PushResult whole = PushInPieces(make, stream, stream.size() ? stream.size() : 1, announce);
  ASSERT_TRUE(whole.ok) << "the clean stream was refused";
  ASSERT_EQ(whole.output, expected) << "output of the clean stream differs";

  for (size_t piece : {1, 2, 3, 5, 7, 13, 100, 1000, 4095, 16384}) {
    PushResult split = PushInPieces(make, stream, piece, announce);
    ASSERT_TRUE(split.ok) << "pieces of " << piece << " bytes were refused";
    ASSERT_EQ(split.output, expected) << "pieces of " << piece << " bytes give other output";
  }

  for (uint32_t seed = 1; seed <= 4; seed++) {
    PushResult garbage = PushInPieces(make, RandomBytes(200000, seed), 16384, announce);
    EXPECT_TRUE(!garbage.ok || garbage.output.size() < 200000)
        << "garbage went through as a stream (seed " << seed << ")";
  }

  for (size_t cut : {size_t(1), size_t(7), stream.size() / 3, stream.size() / 2}) {
    if (cut >= stream.size()) continue;
    std::vector<uint8_t> truncated(stream.begin(), stream.end() - long(cut));
    PushResult part = PushInPieces(make, truncated, 4096, announce);
    ASSERT_LE(part.output.size(), expected.size());
    EXPECT_TRUE(std::equal(part.output.begin(), part.output.end(), expected.begin()))
        << "a stream cut by " << cut << " bytes gives output that is no prefix of the whole";
  }
}

}  // namespace sonvex::test
