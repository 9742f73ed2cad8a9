// TAc3DialnormRemover: sets the dialog normalisation of every (E-)AC3 frame to neutral (0 dB)
// and fixes the frame's CRCs. Works on the checked frames of TAc3Reader, one per Write.
#pragma once

#include "framework/upstream.h"

namespace sonvex {

class TAc3DialnormRemover : public TUpStream {
public:
  static std::shared_ptr<TAc3DialnormRemover> Create() {
    return std::make_shared<TAc3DialnormRemover>();
  }
  bool InitAudio(const std::string& format, uint32_t channels, uint32_t bitsPerSample,
                 uint32_t sampleRate, bool bigEndian, int64_t totalSize) override;
  bool Write(SenderId sender, bool isHeader, const uint8_t* data, uint32_t size, int64_t position,
             bool flush) override;

private:
  bool isEac3 = false;
  bool reported = false;
};

// Patches one AC-3 frame (`size` bytes) in place; returns the dialnorm it had (0..31).
int32_t RemoveAc3Dialnorm(uint8_t* frame, uint32_t size);
// Patches every frame of an E-AC-3 unit in place; returns the dialnorm of its first frame.
int32_t RemoveEac3Dialnorm(uint8_t* unit, uint32_t size);

}  // namespace sonvex
