// Console lines, progress bar and log file under one lock; libav's log callback.
#include "framework/console.h"

#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdarg>
#include <cstdio>
#include <fstream>
#include <mutex>
#include <sstream>

extern "C" {
#include <libavutil/log.h>
}

namespace sonvex {
namespace {

std::recursive_mutex consoleLock;
bool consoleOff = false;
bool isTerminal = isatty(STDOUT_FILENO) != 0;
std::function<void(int, const std::string&)> logHook;
std::FILE* logFile = nullptr;
std::string logName;
uint32_t barLength = 0;
bool jsonProgress = false;
int lastPercent = -1;
std::atomic<bool> expectLosslessFailure{false};

constexpr int kBarWidth = 79;

std::FILE* Out() { return consoleOff ? stderr : stdout; }

void Repeat(std::FILE* out, char c, int count) {
  for (int i = 0; i < count; i++) std::fputc(c, out);
}

}  // namespace

std::string VersionText() {
  char text[32];
  std::snprintf(text, sizeof text, "%d.%02d", kVersionMajor, kVersionMinor);
  return text;
}

void WriteLine(int level, const std::string& text) {
  std::lock_guard<std::recursive_mutex> guard(consoleLock);
  if (logHook) {
    logHook(level, text);
  } else {
    std::FILE* out = Out();
    bool drawing = isTerminal && !consoleOff;
    if (drawing) {
      Repeat(out, '\b', 80);
      std::fputs(text.c_str(), out);
      if (text.size() < size_t(kBarWidth)) Repeat(out, ' ', kBarWidth - int(text.size()));
      std::fputc('\n', out);
      Repeat(out, '-', int(barLength));
    } else {
      std::fputs(text.c_str(), out);
      std::fputc('\n', out);
    }
    std::fflush(out);
  }
  if (logFile) {
    std::fputs(text.c_str(), logFile);
    std::fputc('\n', logFile);
    std::fflush(logFile);
  }
}

void UpdateProgress(int64_t total, int64_t position) {
  std::lock_guard<std::recursive_mutex> guard(consoleLock);
  if (jsonProgress) {
    // The clearing call ends a count; the next pass counts from 0 again.
    if (total == 1 && position == 0) {
      lastPercent = -1;
    } else if (total > 0) {
      int percent = int(__int128(std::clamp<int64_t>(position, 0, total)) * 100 / total);
      if (percent > lastPercent) {
        std::fprintf(stderr, "{\"progress\": %d}\n", percent);
        std::fflush(stderr);
        lastPercent = percent;
      }
    }
    return;
  }
  if (consoleOff || total <= 0) return;
  if (position < 0) position = 0;
  if (position > total) position = total;
  uint32_t length = uint32_t((__int128(position) * kBarWidth + total / 2) / total);
  if (length == barLength) return;
  if (isTerminal && !logHook) {
    std::FILE* out = stdout;
    if (length < barLength) {
      Repeat(out, '\b', 80);
      Repeat(out, ' ', kBarWidth);
      Repeat(out, '\b', 80);
      Repeat(out, '-', int(length));
    } else {
      Repeat(out, '-', int(length - barLength));
    }
    std::fflush(out);
  }
  barLength = length;
}

void SetJsonProgress(bool value) {
  std::lock_guard<std::recursive_mutex> guard(consoleLock);
  jsonProgress = value;
  lastPercent = -1;
}

void SetConsoleOff(bool value) {
  std::lock_guard<std::recursive_mutex> guard(consoleLock);
  consoleOff = value;
}

bool ConsoleOff() {
  std::lock_guard<std::recursive_mutex> guard(consoleLock);
  return consoleOff;
}

void SetLogHook(std::function<void(int, const std::string&)> hook) {
  std::lock_guard<std::recursive_mutex> guard(consoleLock);
  logHook = std::move(hook);
}

void SetConsoleIsTerminal(bool value) {
  std::lock_guard<std::recursive_mutex> guard(consoleLock);
  isTerminal = value;
}

bool OpenLog(const std::string& name, const std::string& commandLine) {
  std::lock_guard<std::recursive_mutex> guard(consoleLock);
  if (logFile) std::fclose(logFile);
  logFile = std::fopen(name.c_str(), "w+b");
  logName = logFile ? name : std::string();
  if (!logFile) return false;
  std::fprintf(logFile, "sonvex v%s\ncommand line: %s\n%s\n", VersionText().c_str(),
               commandLine.c_str(), std::string(78, '-').c_str());
  std::fflush(logFile);
  return true;
}

void CloseLog() {
  std::lock_guard<std::recursive_mutex> guard(consoleLock);
  if (logFile) std::fclose(logFile);
  logFile = nullptr;
}

std::string ReadLog() {
  std::lock_guard<std::recursive_mutex> guard(consoleLock);
  if (logName.empty()) return {};
  if (logFile) std::fflush(logFile);
  std::ifstream in(logName, std::ios::binary);
  std::stringstream content;
  content << in.rdbuf();
  return content.str();
}

std::string LogFileName() {
  std::lock_guard<std::recursive_mutex> guard(consoleLock);
  return logName;
}

void SetExpectLosslessFailure(bool value) { expectLosslessFailure = value; }

bool FilterLibavMessage(std::string& text) {
  size_t begin = text.find_first_not_of(" \r\n\t");
  if (begin == std::string::npos) return false;
  size_t end = text.find_last_not_of(" \r\n\t");
  text = text.substr(begin, end - begin + 1);
  if (text[0] == '[') return false;
  if (expectLosslessFailure && text.rfind("Lossless check failed", 0) == 0) return false;
  return true;
}

namespace {

void LibavCallback(void*, int level, const char* format, va_list args) {
  if (level > av_log_get_level()) return;
  char buffer[1024];
  std::vsnprintf(buffer, sizeof buffer, format, args);
  std::string text = buffer;
  if (FilterLibavMessage(text)) WriteLine(0, "[libav] " + text);
}

}  // namespace

void HookLibavConsole() {
  av_log_set_level(AV_LOG_WARNING);
  av_log_set_callback(LibavCallback);
}

}  // namespace sonvex
