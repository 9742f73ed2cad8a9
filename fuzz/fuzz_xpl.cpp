// Fuzzes the HD DVD playlist reader and its XML scanner. The input is taken as the playlist's
// text behind an XML declaration, and also as it is.
#include <cstddef>
#include <cstdint>
#include <string>

#include "disc/hddvd.h"
#include "disc/xmlscanner.h"
#include "framework/console.h"

using namespace sonvex;

namespace {
// Listings go nowhere.
const bool kQuiet = (SetLogHook([](int, const std::string&) {}), true);
}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  std::string text(reinterpret_cast<const char*>(data), size);
  ScanXml(text);
  for (const std::string& input : {text, "<?xml?>" + text}) {
    TXpl xpl = ParseXpl(input, "/nonexistent/ADV_OBJ/VPLST000.XPL", {});
    for (const TXplTitle& title : xpl.Titles)
      for (uint32_t clip : title.Clips)
        if (clip >= xpl.Clips.size()) __builtin_trap();
    PrintTitles(xpl);
  }
  return 0;
}
