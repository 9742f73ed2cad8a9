// PatchMkvFrameRate: writes the frame rate (the default duration of the video track) into a
// finished Matroska file. The file's EBML elements are walked by the standard's rules to the
// Segment, its Tracks and the video TrackEntry. The new element needs 8 bytes; they are taken
// from an EBML Void element ahead of the first Cluster, so that only the head of the file is
// rewritten, and the Seek entries and CRC-32 elements that the move touches are updated.
#pragma once

#include <cstdint>
#include <string>

namespace sonvex {

enum class TMkvPatchResult { added, alreadySet, failed };

// Logs "This MKV already has the fps value set." at level 0 when the value is there already,
// and then leaves the file as it is.
TMkvPatchResult PatchMkvFrameRate(const std::string& name, uint32_t numerator,
                                  uint32_t denominator);

// The same on the head of a file held in memory: `head` is the file from its start up to the
// first Cluster (or the whole file). Changed in place, with its length kept.
TMkvPatchResult PatchMkvHead(std::string& head, uint64_t defaultDuration);

// Bytes from the file's start up to its first Cluster, found by walking the file's elements;
// 0 if the file isn't Matroska as far as this walk can tell.
uint64_t MkvHeadLength(const std::string& name);

}  // namespace sonvex
