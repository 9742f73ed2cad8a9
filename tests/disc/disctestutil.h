// Builders of small Blu-ray playlist and clip-info files for the disc tests, a scratch disc
// folder, and the capture of console lines.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "framework/console.h"
#include "support/e2e.h"

namespace sonvex::disctest {

using Bytes = std::vector<uint8_t>;
namespace fs = std::filesystem;

inline void Put16(Bytes& b, size_t at, uint32_t v) {
  if (b.size() < at + 2) b.resize(at + 2);
  b[at] = uint8_t(v >> 8);
  b[at + 1] = uint8_t(v);
}
inline void Put32(Bytes& b, size_t at, uint32_t v) {
  Put16(b, at, v >> 16);
  Put16(b, at + 2, v & 0xFFFF);
}
inline void PutText(Bytes& b, size_t at, const std::string& text) {
  if (b.size() < at + text.size()) b.resize(at + text.size());
  for (size_t i = 0; i < text.size(); i++) b[at + i] = uint8_t(text[i]);
}
inline std::string Clip5(uint32_t clip) {
  char name[16];
  std::snprintf(name, sizeof name, "%05u", clip);
  return name;
}

struct Item {
  std::vector<uint32_t> clips;  // angle 1 first
  uint32_t in45 = 0, out45 = 0;  // 45 kHz
  uint32_t connection = 1;
};
struct Mark {
  uint32_t item = 0;
  uint32_t time45 = 0;
};

// An MPLS file: header, AppInfoPlayList with the playback type, PlayList, PlayListMark.
inline Bytes MakeMpls(const std::vector<Item>& items, const std::vector<Mark>& marks,
                      const std::string& magic = "MPLS0200", uint8_t playbackType = 1) {
  Bytes b;
  PutText(b, 0, magic);                // type_indicator, version_number
  b.resize(58, 0);
  b[45] = playbackType;                // AppInfoPlayList: playback_type
  size_t list = b.size();
  Put32(b, 8, uint32_t(list));         // PlayList_start_address
  Put16(b, list + 6, uint32_t(items.size()));  // number_of_PlayItems
  size_t at = list + 10;
  for (const Item& item : items) {
    bool multi = item.clips.size() > 1;
    size_t length = multi ? 34 + 10 * (item.clips.size() - 1) : 32;
    Put16(b, at, uint32_t(length));                     // length
    PutText(b, at + 2, Clip5(item.clips[0]) + "M2TS");  // clip file name, codec id
    b.resize(at + 2 + length, 0);
    b[at + 12] = uint8_t((multi ? 0x10 : 0) | item.connection);  // is_multi_angle, condition
    Put32(b, at + 14, item.in45);                       // IN_time
    Put32(b, at + 18, item.out45);                      // OUT_time
    if (multi) {
      b[at + 34] = uint8_t(item.clips.size());          // number_of_angles
      for (size_t k = 1; k < item.clips.size(); k++)
        PutText(b, at + 36 + 10 * (k - 1), Clip5(item.clips[k]) + "M2TS");
    }
    at += 2 + length;
  }
  Put32(b, list, uint32_t(at - list - 4));
  Put32(b, 12, uint32_t(at));                           // PlayListMark_start_address
  Put16(b, at + 4, uint32_t(marks.size()));             // number_of_PlayList_marks
  for (size_t m = 0; m < marks.size(); m++) {
    size_t mark = at + 6 + 14 * m;
    b.resize(mark + 14, 0);
    b[mark + 1] = 1;                                    // mark_type: entry mark
    Put16(b, mark + 2, marks[m].item);                  // ref_to_PlayItem_id
    Put32(b, mark + 4, marks[m].time45);                // mark_time_stamp
  }
  Put32(b, at, uint32_t(b.size() - at - 4));
  return b;
}

struct Stream {
  uint32_t pid;
  Bytes codingInfo;  // stream_coding_type first
};

// A CLPI file with one program sequence.
inline Bytes MakeClpi(const std::vector<Stream>& streams, const std::string& magic = "HDMV0200") {
  Bytes b;
  PutText(b, 0, magic);
  b.resize(40, 0);
  size_t program = b.size();
  Put32(b, 12, uint32_t(program));             // ProgramInfo_start_address
  size_t body = program + 4;
  b.resize(body + 10, 0);
  b[body + 1] = 1;                             // number_of_program_sequences
  b[body + 8] = uint8_t(streams.size());       // number_of_streams_in_ps
  size_t at = body + 10;
  for (const Stream& s : streams) {
    Put16(b, at, s.pid);                       // stream_PID
    b.resize(at + 3, 0);
    b[at + 2] = uint8_t(s.codingInfo.size());  // length of StreamCodingInfo
    b.insert(b.end(), s.codingInfo.begin(), s.codingInfo.end());
    at = b.size();
  }
  Put32(b, program, uint32_t(b.size() - body));
  return b;
}

inline void WriteBytes(const fs::path& path, const Bytes& bytes) {
  fs::create_directories(path.parent_path());
  std::ofstream out(path, std::ios::binary);
  out.write(reinterpret_cast<const char*>(bytes.data()), std::streamsize(bytes.size()));
}

// A scratch disc: "<root>/BDMV/PLAYLIST", "CLIPINF", "STREAM" with empty clip files.
class ScratchDisc {
public:
  ScratchDisc() { fs::create_directories(Bdmv() / "STREAM"); }
  fs::path Root() const { return dir.path(); }
  fs::path Bdmv() const { return dir.path() / "BDMV"; }
  void Playlist(uint32_t number, const Bytes& bytes) {
    WriteBytes(Bdmv() / "PLAYLIST" / (Clip5(number) + ".mpls"), bytes);
  }
  void Clips(std::initializer_list<uint32_t> clips) {
    for (uint32_t clip : clips) WriteBytes(Bdmv() / "STREAM" / (Clip5(clip) + ".m2ts"), {});
  }
  void ClipInfo(uint32_t clip, const Bytes& bytes) {
    WriteBytes(Bdmv() / "CLIPINF" / (Clip5(clip) + ".clpi"), bytes);
  }

private:
  test::TempDir dir;
};

// Collects the console lines written while it lives.
class ConsoleLines {
public:
  ConsoleLines() {
    SetLogHook([this](int, const std::string& line) { lines.push_back(line); });
  }
  ~ConsoleLines() { SetLogHook(nullptr); }
  std::string Text() const {
    std::string text;
    for (const auto& line : lines) text += line + "\n";
    return text;
  }
  std::vector<std::string> lines;
};

// A public tree of playlists and clip info as a disc: "<name>/BDMV" in `dir` with an empty clip
// file in STREAM for each clip info file.
inline fs::path WrapPublicDisc(const fs::path& tree, const test::TempDir& dir) {
  fs::path bdmv = dir.path() / tree.filename() / "BDMV";
  fs::create_directories(bdmv.parent_path());
  test::RunShell("cp -r " + test::ShellQuote(tree.string()) + " " + test::ShellQuote(bdmv.string()) +
                     " && chmod -R u+w " + test::ShellQuote(bdmv.string()),
                 dir.path());
  fs::create_directories(bdmv / "STREAM");
  for (const auto& entry : fs::directory_iterator(bdmv / "CLIPINF"))
    WriteBytes(bdmv / "STREAM" / (entry.path().stem().string() + ".m2ts"), {});
  return bdmv.parent_path();
}

// Minutes in 45 kHz ticks.
constexpr uint32_t Minutes45(uint32_t minutes) { return minutes * 60 * 45000; }

}  // namespace sonvex::disctest
