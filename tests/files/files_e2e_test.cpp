// Leading junk in front of a container, through the real binary: an M2TS with 805 bytes in front
// lists and demuxes as the M2TS itself, never as a bare stream found inside it.
#include "support/e2e_table.h"
#include "support/stream.h"

namespace sonvex::test {
namespace {

const std::string kClean = "{corpus}/public/m2ts/Test_H264_DTS1.m2ts";

void MakeJunk(const fs::path& dir) {
  Bytes junk(805);
  for (size_t i = 0; i < junk.size(); i++) junk[i] = uint8_t(i * 7 + 3);
  WriteBytes(dir / "junk.m2ts", Concat({junk, ReadBytes(Corpus("public/m2ts/Test_H264_DTS1.m2ts"))}));
}

TEST(FilesEndToEnd, Table) {
  RunE2eTable({
      // The listing is that of the clean file, line for line.
      {.name = "junk listing",
       .args = {"junk.m2ts"},
       .messages = {"Skipped 805 bytes of leading junk."},
       .same = {{"$ {sonvex} junk.m2ts | grep -v 'leading junk'", "$ {sonvex} " + kClean}},
       .make = MakeJunk},
      // Track 4 (AC3 on PID 0x1102) demuxes as ffmpeg copies it out of the clean file.
      {.name = "junk demux",
       .args = {"junk.m2ts", "4:", "out.ac3", "-keepDialnorm"},
       .same = {{"out.ac3", "$ ffmpeg -v error -i " + kClean + " -map 0:i:0x1102 -c copy -f ac3 -"}},
       .tools = {"ffmpeg"},
       .make = MakeJunk},
  });
}

}  // namespace
}  // namespace sonvex::test
