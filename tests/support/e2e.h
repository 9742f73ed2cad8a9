// Running the real sonvex binary in tests, and finding the reference corpus.
#pragma once

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

namespace sonvex::test {

namespace fs = std::filesystem;

inline fs::path CorpusDir() { return fs::path(SONVEX_CORPUS); }
inline bool HaveCorpus() { return fs::is_directory(CorpusDir() / "gen"); }
inline bool HaveTool(const std::string& tool) {
  return std::system(("command -v " + tool + " >/dev/null 2>&1").c_str()) == 0;
}

#define SKIP_WITHOUT_CORPUS() \
  if (!::sonvex::test::HaveCorpus()) GTEST_SKIP() << "reference corpus not present"
#define SKIP_WITHOUT_TOOL(tool) \
  if (!::sonvex::test::HaveTool(tool)) GTEST_SKIP() << tool " not installed"

// A fresh directory under the system's temp folder, removed at the end of the test.
class TempDir {
public:
  TempDir() {
    static int counter = 0;
    path_ = fs::temp_directory_path() /
            ("sonvex_test_" + std::to_string(::getpid()) + "_" + std::to_string(counter++));
    fs::remove_all(path_);
    fs::create_directories(path_);
  }
  ~TempDir() {
    std::error_code error;
    fs::remove_all(path_, error);
  }
  const fs::path& path() const { return path_; }
  std::string operator/(const std::string& name) const { return (path_ / name).string(); }

private:
  fs::path path_;
};

struct RunResult {
  int exitCode = -1;
  std::string out;  // standard output
  std::string err;  // standard error
  std::vector<std::string> Lines() const {
    std::vector<std::string> lines;
    std::istringstream in(out);
    for (std::string line; std::getline(in, line);) lines.push_back(line);
    return lines;
  }
  bool HasLine(const std::string& line) const {
    for (const auto& l : Lines())
      if (l == line) return true;
    return false;
  }
};

inline std::string ReadFile(const fs::path& path) {
  std::ifstream in(path, std::ios::binary);
  std::stringstream content;
  content << in.rdbuf();
  return content.str();
}

inline std::string ShellQuote(const std::string& text) {
  std::string out = "'";
  for (char c : text) out += c == '\'' ? std::string("'\\''") : std::string(1, c);
  return out + "'";
}

// Runs a shell command in `dir`, with the log kept in that folder; returns exit code and output.
inline RunResult RunShell(const std::string& command, const fs::path& dir) {
  fs::path out = dir / ".stdout", err = dir / ".stderr";
  std::string line = "cd " + ShellQuote(dir.string()) + " && XDG_STATE_HOME=" +
                     ShellQuote((dir / ".state").string()) + " XDG_CONFIG_HOME=" +
                     ShellQuote((dir / ".config").string()) + " " + command + " >" +
                     ShellQuote(out.string()) + " 2>" + ShellQuote(err.string()) + " </dev/null";
  RunResult result;
  int status = std::system(line.c_str());
  result.exitCode = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
  result.out = ReadFile(out);
  result.err = ReadFile(err);
  fs::remove(out);
  fs::remove(err);
  return result;
}

// Runs sonvex with the given arguments (each quoted for the shell) in `dir`.
inline RunResult RunSonvex(const std::vector<std::string>& args, const fs::path& dir) {
  std::string command = ShellQuote(SONVEX_BINARY);
  for (const auto& arg : args) command += " " + ShellQuote(arg);
  return RunShell(command, dir);
}

inline std::string Md5(const fs::path& file) {
  RunResult r = RunShell("md5sum " + ShellQuote(file.string()), file.parent_path());
  return r.out.substr(0, 32);
}

// Files in `dir` apart from the test's own dot files.
inline std::vector<std::string> ListFiles(const fs::path& dir) {
  std::vector<std::string> names;
  for (const auto& entry : fs::directory_iterator(dir)) {
    std::string name = entry.path().filename().string();
    if (name[0] != '.') names.push_back(name);
  }
  std::sort(names.begin(), names.end());
  return names;
}

}  // namespace sonvex::test
