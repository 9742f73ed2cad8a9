// The two values that a stage inside a running chain sets for the main run to see after a pass.
#pragma once

#include <atomic>
#include <cstdint>

namespace sonvex {

// A video reader found that its track needs other settings: the pass is redone.
inline std::atomic<bool> rerunNeeded{false};
// The track number concerned, -1 when there is none.
inline std::atomic<int32_t> rerunTrack{-1};

}  // namespace sonvex
