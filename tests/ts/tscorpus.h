// Corpus helpers for the transport stream tests: file lists, ffprobe's facts, whole-file pushes
// through a stage, and MD5 digests as the oracle tables give them.
#pragma once

#include <gtest/gtest.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <map>
#include <sstream>
#include <string>
#include <vector>

extern "C" {
#include <libavutil/md5.h>
}

#include "framework/upstream.h"

namespace sonvex::test {}

// The helpers of the transport stream tests; the shared test stages stay visible.
namespace sonvex::tstest {

using namespace ::sonvex::test;

inline std::string CorpusDir() { return SONVEX_CORPUS; }

#define SKIP_WITHOUT_CORPUS()                                              \
  if (!std::filesystem::exists(CorpusDir() + "/gen/MANIFEST.tsv"))         \
    GTEST_SKIP() << "corpus folder absent"

inline std::vector<std::string> TransportStreamFiles() {
  std::vector<std::string> files;
  for (const char* folder : {"gen", "public/m2ts", "public/ts"}) {
    std::string dir = CorpusDir() + "/" + folder;
    if (!std::filesystem::exists(dir)) continue;
    for (const auto& entry : std::filesystem::directory_iterator(dir)) {
      std::string ext = entry.path().extension().string();
      if (ext == ".m2ts" || ext == ".ts" || ext == ".mts") files.push_back(entry.path().string());
    }
  }
  std::sort(files.begin(), files.end());
  return files;
}

inline std::string RunCommand(const std::string& command) {
  std::string out;
  if (std::FILE* pipe = popen(command.c_str(), "r")) {
    char buffer[4096];
    size_t n;
    while ((n = std::fread(buffer, 1, sizeof buffer, pipe)) > 0) out.append(buffer, n);
    pclose(pipe);
  }
  return out;
}

struct ProbedStream {
  std::string codec, type;
  int32_t pid = 0;
  double start = 0;
  uint32_t tag = 0;  // the PMT's stream type, or a registration
};

// ffprobe's streams, one per PID (a TrueHD PID also shows its AC3 part), in PID order.
inline std::vector<ProbedStream> ProbeStreams(const std::string& file) {
  std::string out = RunCommand("ffprobe -v quiet -show_entries stream=codec_name,codec_type,id,start_time,codec_tag -of csv=p=0 '" + file + "'");
  std::map<int32_t, ProbedStream> byPid;
  std::istringstream lines(out);
  std::string line;
  while (std::getline(lines, line)) {
    std::vector<std::string> f;
    std::stringstream cells(line);
    std::string cell;
    while (std::getline(cells, cell, ',')) f.push_back(cell);
    // ffprobe writes the fields in its own order: name, type, tag, id, start time.
    if (f.size() < 5 || f[3].rfind("0x", 0) != 0) continue;
    ProbedStream s{f[0], f[1], int32_t(std::stoul(f[3], nullptr, 16)), std::atof(f[4].c_str()),
                   uint32_t(std::stoul(f[2], nullptr, 16))};
    if (!byPid.count(s.pid)) byPid[s.pid] = s;
  }
  std::vector<ProbedStream> streams;
  for (auto& [pid, s] : byPid) streams.push_back(s);
  return streams;
}

inline std::vector<uint8_t> ReadWholeFile(const std::string& name) {
  std::vector<uint8_t> data;
  if (std::FILE* file = std::fopen(name.c_str(), "rb")) {
    std::fseek(file, 0, SEEK_END);
    long size = std::ftell(file);
    std::fseek(file, 0, SEEK_SET);
    data.resize(size > 0 ? size_t(size) : 0);
    if (std::fread(data.data(), 1, data.size(), file) != data.size()) data.clear();
    std::fclose(file);
  }
  return data;
}

// Pushes a file through a stage in blocks of 1 MiB, as the source stage does.
inline bool PushFile(IUpStream& stage, const std::vector<uint8_t>& data, size_t block = 0x100000) {
  if (!stage.InitContainer("?", int64_t(data.size()), 0)) return false;
  for (size_t at = 0; at < data.size(); at += block)
    if (!stage.Write(0, false, data.data() + at, uint32_t(std::min(block, data.size() - at)), -1, false))
      return false;
  return stage.Finish();
}

inline std::string Md5Hex(const std::vector<uint8_t>& data) {
  uint8_t digest[16];
  av_md5_sum(digest, data.data(), int(data.size()));
  static const char* hex = "0123456789abcdef";
  std::string text;
  for (uint8_t b : digest) {
    text += hex[b >> 4];
    text += hex[b & 15];
  }
  return text;
}

// Rows of a corpus table as maps of column name to cell.
inline std::vector<std::map<std::string, std::string>> ReadTable(const std::string& name) {
  std::vector<std::map<std::string, std::string>> rows;
  std::ifstream in(CorpusDir() + "/gen/" + name);
  std::string line;
  std::vector<std::string> head;
  while (std::getline(in, line)) {
    std::vector<std::string> cells;
    std::stringstream s(line);
    std::string cell;
    while (std::getline(s, cell, '\t')) cells.push_back(cell);
    if (head.empty()) {
      head = cells;
      continue;
    }
    std::map<std::string, std::string> row;
    for (size_t i = 0; i < head.size() && i < cells.size(); i++) row[head[i]] = cells[i];
    rows.push_back(row);
  }
  return rows;
}

}  // namespace sonvex::tstest
