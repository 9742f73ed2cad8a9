// TVc1PulldownRemover: turns a 3:2 VC-1 film stream into a plain 24 fps one by rewriting, in
// place, the frame rate of its sequence headers (30 to 24 Hz) and the field order flags of its
// progressive frame headers. Units pass one by one, each sent on at once.
#pragma once

#include <memory>
#include <string>

#include "framework/upstream.h"

namespace sonvex {

class TVc1PulldownRemover : public TUpStream {
public:
  static std::shared_ptr<TVc1PulldownRemover> Create() {
    return std::make_shared<TVc1PulldownRemover>();
  }

  bool InitVideo(const std::string& format, bool interlaced, bool pulldown, uint32_t width,
                 uint32_t height, uint32_t aspectX, uint32_t aspectY, uint32_t rateNumerator,
                 uint32_t rateDenominator, const std::string& description) override;
  bool Write(SenderId sender, bool isHeader, const uint8_t* data, uint32_t size, int64_t position,
             bool flush) override;

private:
  bool FormatKnown = false;
  bool Active = false;
  bool Interlace = false, Tfcntr = false;
  bool Removing = false;  // "Removing VC-1 pulldown flags..." was said
};

}  // namespace sonvex
