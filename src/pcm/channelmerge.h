// TChannelMerge: what TChannelMixer and TChannelJoiner share, the stages where mono branches
// meet. Each input (a stage in downStreams) has a buffer of its own, indexed by its position in
// downStreams; the buffer after the last input holds the output. Write and Finish come from the
// threads of several branches and take the stage's lock.
#pragma once

#include <vector>

#include "framework/upstream.h"

namespace sonvex {

class TChannelMerge : public TUpStream {
public:
  // `stageName` such as "channel mixer"; `littleOnly`: big-endian input is refused.
  TChannelMerge(const char* stageName, bool littleOnly)
      : stageName(stageName), littleOnly(littleOnly) {}

  bool Finish() override;

protected:
  // Checks one input's format. `first` tells that this is the first input, whose format is then
  // to be forwarded; false with the stage failed when the input doesn't fit.
  bool AcceptInput(const std::string& format, uint32_t channels, uint32_t bits, bool bigEndian,
                   int64_t totalSize, bool& first);
  // Stores a block of the input `sender`; frames = whole samples that every input holds.
  bool StoreInput(SenderId sender, const uint8_t* data, uint32_t size, uint32_t& frames);
  // Removes `frames` samples from every input buffer.
  void RemoveFrames(uint32_t frames);
  // The samples input `i` holds that aren't removed yet.
  const uint8_t* InputData(uint32_t i) { return BufferData(i) + consumed[i]; }
  uint32_t InputFill(uint32_t i) { return BufferFill(i) - consumed[i]; }
  bool Refuse(const char* what) { return Fail("The " + std::string(stageName) + " " + what); }

  uint32_t inputs = 0;  // 0 until the first format arrives
  uint32_t bytes = 0;
  bool bigEndian = false;

private:
  const char* stageName;
  bool littleOnly;
  int64_t sampleCount = 0;
  uint32_t finished = 0;
  // Bytes at the front of each input buffer that are done with. The branches run a batch apart,
  // so one input may hold a lot more than the others: moving its rest to the front after every
  // block would copy it over and over, so it moves only once the part done with is large.
  std::vector<uint32_t> consumed;
};

}  // namespace sonvex
