// Format detection of bare TrueHD, MLP, TrueHD/AC3 and MP2 files: the listing line that the
// detector's details give, through the real source stage and the full candidate list.
#include "files/formatdetector.h"
#include "files/sourcefiles.h"
#include "thd/thdtestutil.h"

namespace sonvex::thdtest {
namespace {

std::string DetectedListing(const std::string& path, std::string& tag) {
  auto source = TSourceFiles::Create({path}, 24000, 1001, 0x12C00000);
  auto detector = TFormatDetector::Create(false, false);
  source->SetUpStream(detector);
  TLogLines quiet;
  source->Write(0, false, nullptr, 0, -1, false);
  auto details = detector->AudioDetails();
  tag = details->IsValid() ? details->Format() : "";
  return details->IsValid() ? details->Description() : "";
}

TEST(ThdDetection, BareFilesListAsTheirFormat) {
  SKIP_WITHOUT_CORPUS();
  struct {
    const char* file;
    const char* tag;
    const char* listing;
  } rows[] = {
      {"gen/truehd_51_48k.thd", "thd", "TrueHD, 5.1 channels, 48khz, dialnorm: -2dB"},
      {"gen/mlp_20_48k.mlp", "mlp", "MLP, 2.0 channels, 16 bits, 48khz"},
      {"public/truehd/fbb_6ch.mlp", "mlp", "MLP, 5.1 channels, 24 bits, 48khz"},
      {"public/truehd/fba_atmos_obj.mlp", "thd", "TrueHD, 7.1 channels, 48khz"},
      {"public/truehd/dts1_truehd_ac3_interleaved.thdac3", "thd/ac3",
       "TrueHD/AC3, 7.1 channels, 48khz"},
      {"gen/mp2_20_224k.mp2", "mp2", "MP2, 2.0 channels, 0:00:06, 224kbit/s, 48khz"},
  };
  for (auto& row : rows) {
    std::string tag;
    EXPECT_EQ(DetectedListing(CorpusPath(row.file), tag), row.listing) << row.file;
    EXPECT_EQ(tag, row.tag) << row.file;
  }
  // AC-3 stays AC-3: neither of these readers claims it.
  std::string tag;
  DetectedListing(CorpusPath("gen/ac3_51_448k.ac3"), tag);
  EXPECT_EQ(tag, "ac3");
}

}  // namespace
}  // namespace sonvex::thdtest
