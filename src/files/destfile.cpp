// TDestFile and the helpers for indexed and twin output names.
#include "files/destfile.h"

#include <map>
#include <mutex>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <cerrno>
#include <cstdio>
#include <filesystem>
#include <string_view>

namespace sonvex {

namespace {

bool StartsWithNoCase(const std::string& text, std::string_view prefix) {
  if (text.size() < prefix.size()) return false;
  for (size_t i = 0; i < prefix.size(); i++)
    if (std::tolower(static_cast<unsigned char>(text[i])) != prefix[i]) return false;
  return true;
}

// Channel names of the files of a multi-file destination, by file count (1 to 8) and index.
constexpr std::array<std::array<const char*, 8>, 8> kChannelNames = {{
    {"C"},
    {"L", "R"},
    {"L", "R", "LFE"},
    {"L", "R", "SL", "SR"},
    {"L", "R", "C", "SL", "SR"},
    {"L", "R", "C", "LFE", "SL", "SR"},
    {"L", "R", "C", "LFE", "SL", "SR", "BC"},
    {"L", "R", "C", "LFE", "BL", "BR", "SL", "SR"},
}};

}  // namespace

std::string StripExtension(const std::string& name) {
  size_t dot = name.rfind('.');
  size_t slash = name.rfind('/');
  if (dot == std::string::npos || (slash != std::string::npos && dot < slash)) return name;
  return name.substr(0, dot);
}

std::string InsertBeforeExtension(const std::string& name, const std::string& text) {
  std::string stem = StripExtension(name);
  return stem + text + name.substr(stem.size());
}

std::shared_ptr<TDestFile> TDestFile::Create(const std::string& name, const std::string& text) {
  auto stage = std::make_shared<TDestFile>(name);
  if (!text.empty() && !stage->noWrite) {
    stage->WriteOut(reinterpret_cast<const uint8_t*>(text.data()), uint32_t(text.size()));
    stage->noWrite = true;
    if (stage->handle >= 0 && !stage->isStdout) close(stage->handle);
    stage->handle = -1;
  }
  return stage;
}

TDestFile::TDestFile(const std::string& fileName) : name(fileName) {
  std::string stem = StripExtension(name);
  isStdout = stem.size() == 6 && StartsWithNoCase(stem, "stdout");
  noWrite = StartsWithNoCase(name, "%check%");
}

TDestFile::~TDestFile() {
  if (handle >= 0 && !isStdout) close(handle);
}

// Creates the file. A delay that the stream still needs goes into the name: "a.ac3" with 100 ms
// becomes "a DELAY 100ms.ac3". A missing last directory level is made once.
namespace {

// The files this process has created. After a failed pass only these are removed: a name that
// stood for an existing file the run never wrote (a source given by mistake as a destination)
// is left alone.
// Each is kept under the name it was asked for, with the name it got (a delay can be in it).
std::mutex createdLock;
std::map<std::string, std::string> createdFiles;
std::vector<std::string> madeFiles;  // every name created, in order, handed over or not

void NoteCreated(const std::string& asked, const std::string& made) {
  std::lock_guard<std::mutex> guard(createdLock);
  createdFiles[asked] = made;
  madeFiles.push_back(made);
}

bool RemoveCreated(const std::string& asked) {
  std::lock_guard<std::mutex> guard(createdLock);
  auto found = createdFiles.find(asked);
  if (found == createdFiles.end()) return false;
  bool removed = std::remove(found->second.c_str()) == 0;
  createdFiles.erase(found);
  return removed;
}

// The name a file asked for as `asked` got, and forgets it: the file is handed over. Empty if
// this process didn't create it.
std::string TakeCreated(const std::string& asked) {
  std::lock_guard<std::mutex> guard(createdLock);
  auto found = createdFiles.find(asked);
  if (found == createdFiles.end()) return {};
  std::string made = found->second;
  createdFiles.erase(found);
  return made;
}

}  // namespace

void NoteCreatedFile(const std::string& name) { NoteCreated(name, name); }

std::vector<std::string> MadeFiles() {
  std::lock_guard<std::mutex> guard(createdLock);
  return madeFiles;
}

void DeleteCreatedFiles() {
  std::lock_guard<std::mutex> guard(createdLock);
  for (const auto& [asked, made] : createdFiles) std::remove(made.c_str());
  createdFiles.clear();
}

bool TDestFile::OpenFile() {
  Log(0, "Creating file \"" + name + "\"...");
  const std::string asked = name;
  int32_t delay = DelaySum();
  if (delay != 0) {
    std::string stem = StripExtension(name);
    name = stem + " DELAY " + std::to_string(delay) + "ms" + name.substr(stem.size());
  }
  if (isStdout) {
    handle = STDOUT_FILENO;
  } else {
    const int flags = O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC;
    handle = open(name.c_str(), flags, 0666);
    if (handle < 0 && errno == ENOENT) {
      size_t slash = name.rfind('/');
      if (slash != std::string::npos && slash > 0) {
        mkdir(name.substr(0, slash).c_str(), 0777);
        handle = open(name.c_str(), flags, 0666);
      }
    }
  }
  if (handle < 0) return Fail("The destination file \"" + name + "\" could not be created.");
  if (!isStdout) NoteCreated(asked, name);
  return true;
}

bool TDestFile::WriteOut(const uint8_t* data, uint32_t count) {
  if (handle < 0 && !OpenFile()) return false;
  uint32_t done = 0;
  while (done < count) {
    ssize_t n = write(handle, data + done, count - done);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) break;
    done += uint32_t(n);
  }
  filePosition += done;
  size = std::max(size, filePosition);
  return done == count;
}

bool TDestFile::Write(SenderId, bool isHeader, const uint8_t* data, uint32_t count, int64_t,
                      bool) {
  if (!valid || noWrite) return valid;
  if (!upStreams.empty()) {
    valid = false;
    Log(2, "The destination file upstream property is set.");
  }
  if (valid && !StoreData(0, data, count)) {
    valid = false;
    Log(2, "The file writer couldn't allocate enough memory.");
  }
  if (valid) {
    if (!isHeader) dataSeen = true;
    while (dataSeen && BufferFill(0) > kWriteUnit) {
      if (!WriteOut(BufferData(0), kWriteUnit)) {
        valid = false;
        break;
      }
      RemoveData(0, kWriteUnit);
    }
  }
  if (!valid) Log(2, "Writing the destination file failed.");
  return valid;
}

bool TDestFile::Finish() {
  if (!valid) return false;
  if (noWrite) return true;
  uint32_t fill = BufferFill(0);
  if (fill > 0) {
    if (!WriteOut(BufferData(0), fill)) {
      valid = false;
      Log(2, "Writing the destination file failed.");
      return false;
    }
    SetBufferFill(0, 0);
  }
  return true;
}

int64_t TDestFile::Position() { return filePosition + BufferFill(0); }

int64_t TDestFile::Size() { return size + BufferFill(0); }

void TDestFile::Seek(int64_t newPosition) {
  if (!valid || isStdout || noWrite) return;
  if (newPosition == Position()) return;
  uint32_t fill = BufferFill(0);
  if (fill > 0) {
    if (!WriteOut(BufferData(0), fill)) {
      valid = false;
      Log(2, "Writing the destination file failed.");
      return;
    }
    SetBufferFill(0, 0);
  }
  if (handle < 0 || lseek(handle, off_t(newPosition), SEEK_SET) < 0) return;
  filePosition = newPosition;
}

std::string IndexedName(const std::string& name, int32_t index, int32_t count) {
  if (count == 0) return name;
  count = std::clamp(count, 1, 8);
  index = std::clamp(index, 0, count - 1);
  return StripExtension(name) + "." + kChannelNames[size_t(count - 1)][size_t(index)] + ".wav";
}

bool DeleteOutput(const std::string& name, int32_t index, int32_t count) {
  return std::remove(IndexedName(name, index, count).c_str()) == 0;
}

bool RenameOutput(const std::string& from, const std::string& to, int32_t index, int32_t count) {
  return std::rename(IndexedName(from, index, count).c_str(),
                     IndexedName(to, index, count).c_str()) == 0;
}

std::string FinishOutputs(const std::string& name, uint32_t bits, int32_t index, int32_t count) {
  const std::string plain = IndexedName(name, index, count);
  const std::string twin24 = IndexedName(InsertBeforeExtension(name, ".24bit"), index, count);
  const std::string twin16 = IndexedName(InsertBeforeExtension(name, ".16bit"), index, count);
  const std::string& wanted = bits != 16 ? twin24 : twin16;
  const std::string& other = bits != 16 ? twin16 : twin24;
  if (!RemoveCreated(other)) std::remove(other.c_str());
  std::string made = TakeCreated(wanted);
  std::error_code error;
  if (made.empty() && std::filesystem::exists(wanted, error)) made = wanted;
  // Without the wanted twin there is nothing to settle, and the plain name is left alone.
  if (made.empty()) return {};
  // What the file took into its name beyond the asked name (" DELAY 100ms") goes into the plain
  // name at the same place, ahead of the extension.
  const std::string stem = StripExtension(wanted);
  std::string taken;
  if (made.size() > wanted.size() && made.compare(0, stem.size(), stem) == 0)
    taken = made.substr(stem.size(), made.size() - wanted.size());
  const std::string settled = InsertBeforeExtension(plain, taken);
  std::remove(settled.c_str());
  if (std::rename(made.c_str(), settled.c_str()) != 0) return {};
  return settled;
}

void DeleteOutputs(const std::string& name, uint32_t bits, int32_t index, int32_t count) {
  if (bits != 0) {
    RemoveCreated(IndexedName(InsertBeforeExtension(name, ".24bit"), index, count));
    RemoveCreated(IndexedName(InsertBeforeExtension(name, ".16bit"), index, count));
  } else {
    RemoveCreated(IndexedName(name, index, count));
  }
}

}  // namespace sonvex
