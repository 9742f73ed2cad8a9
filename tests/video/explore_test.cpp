#include "video/h264reader.h"
#include "video/mpeg2reader.h"
#include "video/videotestutil.h"
using namespace sonvex;
using namespace sonvex::test;
TEST(Explore, All) {
  std::vector<std::pair<std::string,bool>> files = {{"gen/ts_h264_eac3_ac3_aac.ts",true},{"gen/bd_lpcm_variants.m2ts",true},{"gen/bd_gap_long_200ms.m2ts",true},{"public/m2ts/Test_H264.m2ts",true},{"public/m2ts/Test_H264_AC3.m2ts",true},{"public/m2ts/Test_H264_DTS1.m2ts",true},{"public/ts/h264_intra_first_mp2x2.ts",true},{"public/m2ts/avchd_tiny.mts",true},{"public/ts/xdcam8mp2.ts",false},{"public/vob/coolitnow_lpcm.vob",false},{"public/vob/dvd_single_frame.vob",false}};
  for (auto& [f, h264] : files) {
    std::string out = "/tmp/sonvex_explore.es";
    RunCommand("ffmpeg -v error -y -i " + CorpusPath(f) + " -map 0:v:0 -c copy -f " + (h264 ? "h264 " : "mpeg2video ") + out);
    auto bytes = ReadBytes(out);
    UpStreamRef r = h264 ? UpStreamRef(Th264Reader::Create()) : UpStreamRef(TMpeg2Reader::Create());
    auto run = PushStream(r, bytes);
    auto facts = ProbeVideo(out);
    printf("%s ok=%d desc=%s frames=%u same=%d | %s %s %s r=%s avg=%s n=%s\n", f.c_str(), run.ok, r->VideoDetails()->Description().c_str(), r->VideoDetails()->FrameCount(), run.capture->bytes == bytes, facts["width"].c_str(), facts["height"].c_str(), facts["field_order"].c_str(), facts["r_frame_rate"].c_str(), facts["avg_frame_rate"].c_str(), facts["nb_read_frames"].c_str());
    for (auto& l : run.lines) printf("  %s\n", l.c_str());
  }
}
