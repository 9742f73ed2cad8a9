// Names the run gives: durations for the user, demux destinations, the log copy, tidy file names.
#pragma once

#include <cstdint>
#include <string>

namespace sonvex {

// "exactly 2 minutes", "1 hour, 5 minutes", "42 seconds", "1 second".
std::string FormatDuration(uint32_t milliseconds);
// The file name without directory and extension.
std::string FileStem(const std::string& name);
// The extension with its dot, lower-case ("" if none).
std::string FileExtension(const std::string& name);
// Deletes the characters "*/:<>?\| (and ") from the part of a name after its last '/'.
std::string TidyFileName(const std::string& name);
// Tests an extension against alternatives such as ".thd|.truehd", ignoring case.
bool ExtensionIn(const std::string& extension, const std::string& alternatives);
// Demux names: the track's description made fit for a file name.
std::string DemuxVideoText(const std::string& description);
std::string DemuxAudioText(const std::string& description);

}  // namespace sonvex
