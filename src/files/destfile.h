// TDestFile: the end of a chain. It writes the stream to a file or to standard output in units
// of 1 MiB, holds header blocks back until data follows, and writes nothing for "%check%" names.
// Beside it, the helpers that name, delete and settle the indexed and twin outputs of a run.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "framework/smallstages.h"
#include "framework/upstream.h"

namespace sonvex {

class IDestFile {
public:
  virtual ~IDestFile() = default;
};

class TDestFile : public TUpStream, public IDestFile, public ISeekableUpStream {
public:
  // Writes go to the operating system in units of this size.
  static constexpr uint32_t kWriteUnit = 0x100000;

  // With a non-empty `text`, the file is created with that text at once and the stage is spent.
  static std::shared_ptr<TDestFile> Create(const std::string& name, const std::string& text = "");

  explicit TDestFile(const std::string& name);
  ~TDestFile() override;

  bool Write(SenderId sender, bool isHeader, const uint8_t* data, uint32_t size, int64_t position,
             bool flush) override;
  bool Finish() override;

  int64_t Position() override;
  void Seek(int64_t position) override;
  int64_t Size() override;

  // The name the file got, with the delay it still needs in it.
  const std::string& Name() const { return name; }
  bool IsStdout() const { return isStdout; }

private:
  // Writes `size` bytes at the file pointer, creating the file at the first need.
  bool WriteOut(const uint8_t* data, uint32_t size);
  bool OpenFile();

  std::string name;
  bool isStdout = false;
  int handle = -1;
  int64_t size = 0;
  int64_t filePosition = 0;
  bool dataSeen = false;
  bool noWrite = false;
};

// The destination name with `text` put ahead of its extension: "a.flac", ".24bit" -> "a.24bit.flac".
std::string InsertBeforeExtension(const std::string& name, const std::string& text);
// The name without its extension (the part of the last path element from its last dot).
std::string StripExtension(const std::string& name);

// The name of file `index` of `count` files of one destination: the name itself for a count of
// 0, else the name without its extension + "." + the channel name + ".wav".
std::string IndexedName(const std::string& name, int32_t index, int32_t count);
bool DeleteOutput(const std::string& name, int32_t index, int32_t count);
bool RenameOutput(const std::string& from, const std::string& to, int32_t index, int32_t count);
// Keeps the twin that fits the bit depth under the plain name and deletes the other; a delay the
// twin took into its name stays in the plain name ("a.24bit DELAY 100ms.wav" becomes
// "a DELAY 100ms.wav"). Returns the settled name, empty if this process made no such twin.
std::string FinishOutputs(const std::string& name, uint32_t bits, int32_t index, int32_t count);
// Deletes the twins (bits not 0) or the plain file.
void DeleteOutputs(const std::string& name, uint32_t bits, int32_t index, int32_t count);
// Notes a file that another writer of this process has created, so that a failed pass removes it.
void NoteCreatedFile(const std::string& name);
// Every name this process has created a file under, in order (a twin may be renamed since).
std::vector<std::string> MadeFiles();
// Removes every file this process created and has not handed over yet: what a failed pass left.
void DeleteCreatedFiles();

}  // namespace sonvex
