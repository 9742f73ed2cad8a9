// The search for a container or stream behind leading junk: where the data at the front of a
// source is no known start, the first place where TS/M2TS packets or (E-)AC3 or DTS frames hold
// for several consecutive units in a row.
#pragma once

#include <cstdint>

namespace sonvex {

// How far into a source the search looks for the start.
constexpr uint32_t kJunkSearchLimit = 0x100000;
// Data the search wants behind the limit, for the units that must follow a start found there.
constexpr uint32_t kJunkSearchReserve = 0x10000;

constexpr uint64_t kNoStart = UINT64_MAX;

// The first offset below `limit` where TS packets (188 bytes) or M2TS packets (192 bytes, the
// sync behind a 4-byte prefix) follow each other for 32 packets, or for all the packets the data
// holds from there if that is fewer, at least 8.
uint64_t FindTransportStreamStart(const uint8_t* data, uint64_t size, uint64_t limit);

// The first offset below `limit` where four (E-)AC3 frames with good CRCs, or four DTS frames
// that parse, follow each other directly.
uint64_t FindAudioStreamStart(const uint8_t* data, uint64_t size, uint64_t limit);

}  // namespace sonvex
