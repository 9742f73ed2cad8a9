// TDestFile: 1 MiB writes, header blocks held back, names of standard output, "%check%", the
// delay in the name, the one directory level, seeking back to patch; and the twin and indexed
// output names.
#include "files/destfile.h"

#include <gtest/gtest.h>

#include "files/filetest_support.h"

namespace sonvex::filestest {
namespace {

bool Push(const std::shared_ptr<TDestFile>& dest, const std::vector<uint8_t>& bytes,
          bool isHeader = false, uint32_t block = 16384) {
  for (size_t at = 0; at < bytes.size(); at += block) {
    uint32_t n = uint32_t(std::min<size_t>(block, bytes.size() - at));
    if (!dest->Write(0, isHeader, bytes.data() + at, n, -1, false)) return false;
  }
  return true;
}

TEST(DestFile, DataReachesTheDiskInWholeMebibytesAndTheRestAtFinish) {
  TempDir dir;
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
  EXPECT_TRUE(log.Has(0, "Creating file \"" + dir / "out.ac3" + "\"..."));
}

// Header blocks wait for data or Finish.
TEST(DestFile, HeaderBlocksWaitForDataOrFinish) {
  TempDir dir;
  auto header = Pattern(44, 2);
  auto onlyHeader = TDestFile::Create(dir / "header.wav");
  ASSERT_TRUE(Push(onlyHeader, header, true));
  EXPECT_FALSE(fs::exists(dir / "header.wav"));
  ASSERT_TRUE(onlyHeader->Finish());
  EXPECT_TRUE(ReadWhole(dir / "header.wav") == header);
}

TEST(DestFile, CheckNamesWriteNothing) {
  TempDir dir;
  fs::path saved = fs::current_path();
  fs::current_path(dir.path());
  auto dest = TDestFile::Create("%Check%.ac3");
  EXPECT_TRUE(Push(dest, Pattern(3 * TDestFile::kWriteUnit, 4)));
  EXPECT_TRUE(dest->Finish());
  fs::current_path(saved);
  EXPECT_TRUE(fs::is_empty(dir.path()));
}

TEST(DestFile, DelaySumGoesIntoTheName) {
  TempDir dir;
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
  TempDir dir;
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

TEST(DestFile, SeekBackPatchesTheHeader) {
  TempDir dir;
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

// Which names mean standard output (whose writing MainRun.StdoutWavIsReadableFromAPipe runs).
TEST(DestFile, StdoutNames) {
  EXPECT_TRUE(TDestFile::Create("StdOut.ac3")->IsStdout());
  EXPECT_FALSE(TDestFile::Create("stdout2.ac3")->IsStdout());
  EXPECT_FALSE(TDestFile::Create("dir/stdout.ac3")->IsStdout());
}

// The channel names by count and index, held within range; dots in folder names stay.
TEST(OutputNames, IndexedNames) {
  EXPECT_EQ(IndexedName("a/x.wavs", 0, 0), "a/x.wavs");
  EXPECT_EQ(IndexedName("a/x.wavs", 0, 1), "a/x.C.wav");
  EXPECT_EQ(IndexedName("a/x.wavs", 2, 3), "a/x.LFE.wav");
  EXPECT_EQ(IndexedName("a/x.dts", 3, 6), "a/x.LFE.wav");
  EXPECT_EQ(IndexedName("a/x.dts", 6, 7), "a/x.BC.wav");
  EXPECT_EQ(IndexedName("x.wavs", 9, 12), "x.SR.wav");
  EXPECT_EQ(IndexedName("x.wavs", -1, 2), "x.L.wav");
  EXPECT_EQ(IndexedName("dir.v/x", 1, 2), "dir.v/x.R.wav");
  EXPECT_EQ(InsertBeforeExtension("d.x/a", ".16bit"), "d.x/a.16bit");
}

TEST(OutputNames, TwinsAreSettledByTheBitDepth) {
  TempDir dir;
  const std::string name = dir / "a.flac";
  auto make = [&](const std::string& file, uint8_t mark) { WriteWhole(file, {mark}); };
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

  // After a failed pass only files that a destination stage created are removed.
  auto create = [&](const std::string& file, uint8_t mark) {
    auto dest = TDestFile::Create(file);
    dest->SetSilent(true);
    ASSERT_TRUE(dest->Write(0, false, &mark, 1, -1, false) && dest->Finish());
  };
  create(dir / "b.24bit.flac", 24);
  create(dir / "b.16bit.flac", 16);
  create(dir / "b.flac", 1);
  make(dir / "c.flac", 1);
  DeleteOutputs(dir / "b.flac", 24, 0, 0);
  EXPECT_FALSE(fs::exists(dir / "b.24bit.flac") || fs::exists(dir / "b.16bit.flac"));
  EXPECT_TRUE(fs::exists(dir / "b.flac"));
  DeleteOutputs(dir / "b.flac", 0, 0, 0);
  EXPECT_FALSE(fs::exists(dir / "b.flac"));
  DeleteOutputs(dir / "c.flac", 0, 0, 0);
  EXPECT_TRUE(fs::exists(dir / "c.flac")) << "a file the run never created stays";
}

}  // namespace
}  // namespace sonvex::filestest
