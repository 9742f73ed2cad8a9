// TDestFile: 1 MiB writes, header blocks held back, standard output, "%check%", the delay in the
// name, the one directory level, seeking back to patch; and the twin and indexed output names.
#include "files/destfile.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>

#include "files/filetest_support.h"

namespace sonvex {
namespace {

namespace fs = std::filesystem;
using filestest::Pattern;
using filestest::ReadWhole;
using filestest::TLogRecorder;
using filestest::TScratchDir;

bool Push(const std::shared_ptr<TDestFile>& dest, const std::vector<uint8_t>& bytes,
          bool isHeader = false, uint32_t block = 16384) {
  for (size_t at = 0; at < bytes.size(); at += block) {
    uint32_t n = uint32_t(std::min<size_t>(block, bytes.size() - at));
    if (!dest->Write(0, isHeader, bytes.data() + at, n, -1, false)) return false;
  }
  return true;
}

TEST(DestFile, DataReachesTheDiskInWholeMebibytesAndTheRestAtFinish) {
  TScratchDir dir;
  TLogRecorder log;
  auto dest = TDestFile::Create(dir / "out.ac3");
  auto bytes = Pattern(3 * TDestFile::kWriteUnit + 5000, 1);
  // One MiB and two blocks: exactly one unit is on disk, the rest is held.
  std::vector<uint8_t> first(bytes.begin(), bytes.begin() + TDestFile::kWriteUnit + 2 * 16384);
  ASSERT_TRUE(Push(dest, first));
  EXPECT_EQ(fs::file_size(dir / "out.ac3"), TDestFile::kWriteUnit);
  EXPECT_EQ(dest->Position(), int64_t(first.size()));
  std::vector<uint8_t> rest(bytes.begin() + long(first.size()), bytes.end());
  ASSERT_TRUE(Push(dest, rest));
  EXPECT_EQ(fs::file_size(dir / "out.ac3") % TDestFile::kWriteUnit, 0u);
  ASSERT_TRUE(dest->Finish());
  EXPECT_TRUE(ReadWhole(dir / "out.ac3") == bytes);
  EXPECT_EQ(dest->Size(), int64_t(bytes.size()));
  EXPECT_TRUE(log.Has(0, "Creating file \"" + dir / "out.ac3" + "\"..."));
}

TEST(DestFile, HeaderBlocksWaitForDataOrFinish) {
  TScratchDir dir;
  auto header = Pattern(44, 2);
  auto onlyHeader = TDestFile::Create(dir / "header.wav");
  ASSERT_TRUE(Push(onlyHeader, header, true));
  EXPECT_FALSE(fs::exists(dir / "header.wav"));
  ASSERT_TRUE(onlyHeader->Finish());
  EXPECT_TRUE(ReadWhole(dir / "header.wav") == header);

  // A header followed by more than a unit of data goes out in front of it.
  auto dest = TDestFile::Create(dir / "full.wav");
  ASSERT_TRUE(Push(dest, header, true));
  auto data = Pattern(TDestFile::kWriteUnit + 100, 3);
  ASSERT_TRUE(Push(dest, data));
  ASSERT_TRUE(dest->Finish());
  auto whole = ReadWhole(dir / "full.wav");
  ASSERT_EQ(whole.size(), header.size() + data.size());
  EXPECT_TRUE(std::equal(header.begin(), header.end(), whole.begin()));
}

TEST(DestFile, CheckNamesWriteNothing) {
  TScratchDir dir;
  fs::path saved = fs::current_path();
  fs::current_path(dir.path);
  auto dest = TDestFile::Create("%Check%.ac3");
  EXPECT_TRUE(Push(dest, Pattern(3 * TDestFile::kWriteUnit, 4)));
  EXPECT_TRUE(dest->Finish());
  fs::current_path(saved);
  EXPECT_TRUE(fs::is_empty(dir.path));
}

TEST(DestFile, DelaySumGoesIntoTheName) {
  TScratchDir dir;
  auto delayed = TDestFile::Create(dir / "a.ac3");
  delayed->SetDelay(0, 100);
  delayed->SetDelay(1, -20);
  ASSERT_TRUE(Push(delayed, Pattern(10, 5)));
  ASSERT_TRUE(delayed->Finish());
  EXPECT_TRUE(fs::exists(dir / "a DELAY 80ms.ac3"));
  EXPECT_EQ(delayed->Name(), dir / "a DELAY 80ms.ac3");

  // Delays that cancel out leave the name alone.
  auto even = TDestFile::Create(dir / "b.ac3");
  even->SetDelay(0, -30);
  even->SetDelay(1, 30);
  ASSERT_TRUE(Push(even, Pattern(10, 5)));
  ASSERT_TRUE(even->Finish());
  EXPECT_TRUE(fs::exists(dir / "b.ac3"));
}

TEST(DestFile, OnlyTheLastDirectoryLevelIsCreated) {
  TScratchDir dir;
  auto dest = TDestFile::Create(dir / "new/x.ac3");
  ASSERT_TRUE(Push(dest, Pattern(10, 6)));
  ASSERT_TRUE(dest->Finish());
  EXPECT_TRUE(fs::exists(dir / "new/x.ac3"));

  TLogRecorder log;
  auto deep = TDestFile::Create(dir / "a/b/x.ac3");
  ASSERT_TRUE(Push(deep, Pattern(10, 6)));
  EXPECT_FALSE(deep->Finish());
  EXPECT_FALSE(deep->IsValid());
  EXPECT_TRUE(log.Has(2, "The destination file \"" + dir / "a/b/x.ac3" + "\" could not be created."));
  EXPECT_TRUE(log.Has(2, "Writing the destination file failed."));
  EXPECT_FALSE(fs::exists(dir / "a"));
}

TEST(DestFile, AnUpstreamIsAFault) {
  TScratchDir dir;
  TLogRecorder log;
  auto dest = TDestFile::Create(dir / "x.ac3");
  dest->SetUpStream(TFileSimulator::Create());
  EXPECT_FALSE(Push(dest, Pattern(10, 7)));
  EXPECT_TRUE(log.Has(2, "The destination file upstream property is set."));
  EXPECT_FALSE(fs::exists(dir / "x.ac3"));
}

TEST(DestFile, SeekBackPatchesTheHeader) {
  TScratchDir dir;
  auto dest = TDestFile::Create(dir / "x.wav");
  auto bytes = Pattern(100000, 8);
  ASSERT_TRUE(Push(dest, bytes));
  dest->Seek(4);
  EXPECT_EQ(dest->Position(), 4);
  std::vector<uint8_t> patch = {0xAA, 0xBB, 0xCC, 0xDD};
  ASSERT_TRUE(dest->Write(0, false, patch.data(), 4, -1, false));
  EXPECT_EQ(dest->Position(), 8);
  EXPECT_EQ(dest->Size(), int64_t(bytes.size()) + 4);  // the size counts what is held as well
  ASSERT_TRUE(dest->Finish());
  std::copy(patch.begin(), patch.end(), bytes.begin() + 4);
  EXPECT_TRUE(ReadWhole(dir / "x.wav") == bytes);
}

TEST(DestFile, TextFilesAreWrittenAtOnce) {
  TScratchDir dir;
  auto dest = TDestFile::Create(dir / "chapters.txt", "CHAPTER01=00:00:00.000\n");
  EXPECT_TRUE(dest->IsValid());
  std::vector<uint8_t> more = {1, 2, 3};
  EXPECT_TRUE(dest->Write(0, false, more.data(), 3, -1, false));
  EXPECT_TRUE(dest->Finish());
  auto text = ReadWhole(dir / "chapters.txt");
  EXPECT_EQ(std::string(text.begin(), text.end()), "CHAPTER01=00:00:00.000\n");
}

TEST(DestFile, StdoutNamesWriteToFileDescriptorOne) {
  TScratchDir dir;
  // Standard output is pointed at a file for the length of the test.
  fflush(stdout);
  int saved = dup(STDOUT_FILENO);
  int target = open((dir / "captured").c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
  ASSERT_GE(target, 0);
  dup2(target, STDOUT_FILENO);
  close(target);
  fs::path savedDir = fs::current_path();
  fs::current_path(dir.path);
  auto bytes = Pattern(50000, 9);
  bool written, finished;
  int64_t position;
  {
    TLogRecorder log;
    auto dest = TDestFile::Create("StdOut.ac3");
    EXPECT_TRUE(dest->IsStdout());
    written = Push(dest, bytes);
    dest->Seek(0);  // ignored on standard output
    position = dest->Position();
    finished = dest->Finish();
  }
  fs::current_path(savedDir);
  dup2(saved, STDOUT_FILENO);
  close(saved);
  EXPECT_TRUE(written && finished);
  EXPECT_EQ(position, int64_t(bytes.size()));
  EXPECT_TRUE(ReadWhole(dir / "captured") == bytes);
  EXPECT_FALSE(fs::exists(dir / "StdOut.ac3"));
  EXPECT_FALSE(TDestFile::Create("stdout2.ac3")->IsStdout());
  EXPECT_FALSE(TDestFile::Create("dir/stdout.ac3")->IsStdout());
}

TEST(OutputNames, IndexedNamesFollowTheChannelTable) {
  EXPECT_EQ(IndexedName("a/x.wavs", 0, 0), "a/x.wavs");
  EXPECT_EQ(IndexedName("a/x.wavs", 0, 1), "a/x.C.wav");
  EXPECT_EQ(IndexedName("a/x.wavs", 2, 3), "a/x.LFE.wav");
  EXPECT_EQ(IndexedName("a/x.wavs", 4, 5), "a/x.SR.wav");
  EXPECT_EQ(IndexedName("a/x.dts", 3, 6), "a/x.LFE.wav");
  EXPECT_EQ(IndexedName("a/x.dts", 6, 7), "a/x.BC.wav");
  EXPECT_EQ(IndexedName("a/x.dts", 4, 8), "a/x.BL.wav");
  // Out of range: the count is held within 1 to 8, the index within the count.
  EXPECT_EQ(IndexedName("x.wavs", 9, 12), "x.SR.wav");
  EXPECT_EQ(IndexedName("x.wavs", -1, 2), "x.L.wav");
  EXPECT_EQ(IndexedName("dir.v/x", 1, 2), "dir.v/x.R.wav");
  EXPECT_EQ(InsertBeforeExtension("d/a.flac", ".24bit"), "d/a.24bit.flac");
  EXPECT_EQ(InsertBeforeExtension("d.x/a", ".16bit"), "d.x/a.16bit");
}

TEST(OutputNames, TwinsAreSettledByTheBitDepth) {
  TScratchDir dir;
  const std::string name = dir / "a.flac";
  auto make = [&](const std::string& file, uint8_t mark) { filestest::WriteWhole(file, {mark}); };
  for (uint32_t bits : {24u, 16u}) {
    make(name, 1);
    make(dir / "a.24bit.flac", 24);
    make(dir / "a.16bit.flac", 16);
    FinishOutputs(name, bits, 0, 0);
    EXPECT_EQ(ReadWhole(name), std::vector<uint8_t>{uint8_t(bits)});
    EXPECT_FALSE(fs::exists(dir / "a.24bit.flac"));
    EXPECT_FALSE(fs::exists(dir / "a.16bit.flac"));
  }
  // Indexed twins of a multi-file destination.
  make(dir / "m.24bit.L.wav", 24);
  make(dir / "m.16bit.L.wav", 16);
  FinishOutputs(dir / "m.wavs", 16, 0, 2);
  EXPECT_EQ(ReadWhole(dir / "m.L.wav"), std::vector<uint8_t>{16});
  EXPECT_FALSE(fs::exists(dir / "m.24bit.L.wav"));

  make(dir / "b.24bit.flac", 24);
  make(dir / "b.16bit.flac", 16);
  make(dir / "b.flac", 1);
  DeleteOutputs(dir / "b.flac", 24, 0, 0);
  EXPECT_FALSE(fs::exists(dir / "b.24bit.flac") || fs::exists(dir / "b.16bit.flac"));
  EXPECT_TRUE(fs::exists(dir / "b.flac"));
  DeleteOutputs(dir / "b.flac", 0, 0, 0);
  EXPECT_FALSE(fs::exists(dir / "b.flac"));
}

}  // namespace
}  // namespace sonvex
