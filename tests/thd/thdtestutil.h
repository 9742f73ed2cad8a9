// Helpers of the TrueHD and MP2 tests: corpus files and pushing a stream through a stage.
#pragma once

#include <gtest/gtest.h>

#include "support/battery.h"
#include "support/stream.h"

namespace sonvex::thdtest {

using namespace sonvex::test;
using TLogLines = TLog;

inline std::string CorpusPath(const std::string& name) { return Corpus(name); }

// Pushes `stream` through `stage` into a fresh capture in pieces of `piece` bytes.
inline std::shared_ptr<TCapture> Drive(const UpStreamRef& stage, const std::vector<uint8_t>& stream,
                                       size_t piece, bool& ok) {
  PushResult result = Push(stage, stream, piece);
  ok = result.ok;
  return result.capture;
}

}  // namespace sonvex::thdtest
