// End-to-end cases as table rows: the arguments of one run of the real binary in a scratch
// folder, and what it must give: exit code, listing lines, messages, outputs whose digests agree
// with an oracle, and files that must not be left behind.
#pragma once

#include <functional>

#include "support/e2e.h"

namespace sonvex::test {

struct TE2eCase {
  std::string name = {};
  std::vector<std::string> args = {};      // "{corpus}" stands for the corpus folder
  int exitCode = 0;
  std::vector<std::string> lines = {};     // whole lines of the standard output
  std::vector<std::string> messages = {};  // texts found in the standard output or error
  // Pairs whose digests must agree. Each side: a file (in the scratch folder or under
  // "{corpus}"), "$ command" for the command's standard output, or a literal md5.
  std::vector<std::pair<std::string, std::string>> same = {};
  std::vector<std::string> absent = {};    // files that must not exist after the run
  std::vector<std::string> before = {};    // shell commands run first in the scratch folder
  std::vector<std::string> tools = {};     // oracle tools the case needs
  std::function<void(const fs::path& dir)> make = {};  // writes an input of the case
};

// "{corpus}" stands for the corpus folder, "{sonvex}" for the binary.
inline std::string ExpandCorpus(std::string text) {
  for (auto [token, value] : {std::pair<std::string, std::string>{"{corpus}", CorpusDir().string()},
                              {"{sonvex}", SONVEX_BINARY}})
    for (size_t at; (at = text.find(token)) != std::string::npos;) text.replace(at, token.size(), value);
  return text;
}

// The md5 of one side of a `same` pair.
inline std::string Digest(const std::string& side, const fs::path& dir) {
  if (side.size() == 32 && side.find_first_not_of("0123456789abcdef") == std::string::npos)
    return side;
  std::string command = side.rfind("$ ", 0) == 0
                            ? "(" + ExpandCorpus(side.substr(2)) + ") 2>/dev/null | md5sum"
                            : "md5sum < " + ShellQuote(ExpandCorpus(side));
  RunResult r = RunShell("sh -c " + ShellQuote(command), dir);
  // An empty output (a failed command, an empty file) agrees with nothing.
  std::string md5 = r.out.substr(0, std::min<size_t>(32, r.out.size()));
  return r.exitCode == 0 && md5 != "d41d8cd98f00b204e9800998ecf8427e" ? md5 : "nothing in " + side;
}

inline void RunE2eCase(const TE2eCase& c) {
  SCOPED_TRACE(c.name);
  for (const auto& tool : c.tools)
    if (!HaveTool(tool)) {
      std::cout << "[ SKIPPED  ] " << c.name << ": " << tool << " not installed\n";
      return;
    }
  TempDir dir;
  if (c.make) c.make(dir.path());
  for (const auto& command : c.before)
    ASSERT_EQ(RunShell("sh -c " + ShellQuote(ExpandCorpus(command)), dir.path()).exitCode, 0)
        << command;
  std::vector<std::string> args;
  for (const auto& arg : c.args) args.push_back(ExpandCorpus(arg));
  RunResult r = RunSonvex(args, dir.path());
  const std::string all = r.out + r.err;
  EXPECT_EQ(r.exitCode, c.exitCode) << all;
  for (const auto& line : c.lines) EXPECT_TRUE(r.HasLine(line)) << line << "\n" << r.out;
  for (const auto& text : c.messages) EXPECT_NE(all.find(text), std::string::npos) << text << "\n" << all;
  for (const auto& [ours, oracle] : c.same)
    EXPECT_EQ(Digest(ours, dir.path()), Digest(oracle, dir.path())) << ours << " vs " << oracle;
  for (const auto& file : c.absent) EXPECT_FALSE(fs::exists(dir.path() / file)) << file;
}

inline void RunE2eTable(const std::vector<TE2eCase>& cases) {
  if (!HaveCorpus()) GTEST_SKIP() << "reference corpus not present";
  for (const auto& c : cases) RunE2eCase(c);
}

}  // namespace sonvex::test
