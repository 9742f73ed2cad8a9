// The one writer for everything the user sees: message lines on the console, the progress bar
// that shares the console's last line with them, and the log file. One lock keeps lines whole,
// whichever fan-out worker writes them.
#pragma once

#include <cstdint>
#include <functional>
#include <string>

namespace sonvex {

constexpr int kVersionMajor = 0;
constexpr int kVersionMinor = 10;
// "0.10": the major part, ".", and the minor part with at least two digits.
std::string VersionText();

// Level 0 message, 1 warning, 2 error; the console and the log treat all levels alike.
void WriteLine(int level, const std::string& text);
// Draws the bar as position/total of 79 dashes; UpdateProgress(1, 0) clears it.
void UpdateProgress(int64_t total, int64_t position);
// Standard output holds data: messages go to standard error and no bar is drawn.
void SetConsoleOff(bool value);
bool ConsoleOff();
// Replaces the console as the receiver of lines (the log still fills); nullptr restores it.
void SetLogHook(std::function<void(int, const std::string&)> hook);
// Progress for machines: one line `{"progress": 42}` on standard error per whole percent,
// in place of the bar.
void SetJsonProgress(bool value);
// Whether the bar and the line wiping are drawn; by default, whether the console is a terminal.
void SetConsoleIsTerminal(bool value);

// Creates the log file, replacing an old one, and writes its three header lines.
bool OpenLog(const std::string& name, const std::string& commandLine);
void CloseLog();
std::string ReadLog();
std::string LogFileName();

// Routes libav's own messages through WriteLine as "[libav] " + text.
void HookLibavConsole();
// While set, libav's "Lossless check failed" complaints are dropped (a TrueHD decoder reset
// behind a seam of joined files cannot pass its check).
void SetExpectLosslessFailure(bool value);
// The filter of libav messages, apart for tests: returns false for a message that is dropped.
bool FilterLibavMessage(std::string& text);

}  // namespace sonvex
