// TThdAc3Remover, TThdAc3Extractor, TThdDialnormRemover.
#include "thd/thdedits.h"

#include "framework/bitreader.h"
#include "thd/thdbitstream.h"

namespace sonvex {

bool IsAc3Block(const uint8_t* data, uint32_t size) {
  uint32_t frameSize = 0, bitrate = 0;
  return size >= 2 && data[0] == 0x0B && data[1] == 0x77 &&
         ProbeAc3Frame(data, size, frameSize, bitrate);
}

bool TThdAc3Remover::InitAudio(const std::string& format, uint32_t channels,
                               uint32_t bitsPerSample, uint32_t sampleRate, bool, int64_t) {
  if (!valid) return false;
  if (!CheckUpStreams("TrueHD AC3 remover")) return false;
  if (format != "thd/ac3")
    return Fail("The TrueHD AC3 remover received a non-supported data format.");
  Log(0, "Extracting TrueHD stream...");
  if (!NotifyAudio("thd", channels, bitsPerSample, sampleRate, false, 0)) valid = false;
  return valid;
}

bool TThdAc3Remover::Write(SenderId, bool, const uint8_t* data, uint32_t size, int64_t position,
                           bool flush) {
  if (!valid) return false;
  if (!CheckUpStreams("TrueHD AC3 remover")) return false;
  if (!StoreData(0, data, size))
    return Fail("The TrueHD AC3 remover couldn't allocate enough memory.");
  bool ok = true;
  if (!IsAc3Block(BufferData(0), size)) ok = Send(false, BufferData(0), size, position, flush);
  SetBufferFill(0, 0);
  if (!ok) valid = false;
  return valid;
}

bool TThdAc3Remover::Finish() {
  if (!valid) return false;
  if (BufferFill(0) != 0 && !Send(false, BufferData(0), BufferFill(0), -1, false)) valid = false;
  SetBufferFill(0, 0);
  return valid && TUpStream::Finish();
}

bool TThdAc3Extractor::InitAudio(const std::string& format, uint32_t channels,
                                 uint32_t bitsPerSample, uint32_t sampleRate, bool, int64_t) {
  if (!valid) return false;
  if (!CheckUpStreams("TrueHD AC3 extractor")) return false;
  if (format != "thd/ac3")
    return Fail("The TrueHD AC3 extractor received a non-supported data format.");
  Log(0, "Extracting AC3 stream...");
  if (!NotifyAudio("ac3", channels, bitsPerSample, sampleRate, false, 0)) valid = false;
  return valid;
}

bool TThdAc3Extractor::Write(SenderId, bool, const uint8_t* data, uint32_t size,
                             int64_t position, bool flush) {
  if (!valid) return false;
  if (!CheckUpStreams("TrueHD AC3 extractor")) return false;
  if (!StoreData(0, data, size))
    return Fail("The TrueHD AC3 extractor couldn't allocate enough memory.");
  bool ok = true;
  if (IsAc3Block(BufferData(0), size)) ok = Send(false, BufferData(0), size, position, flush);
  SetBufferFill(0, 0);
  if (!ok) valid = false;
  return valid;
}

bool TThdDialnormRemover::InitAudio(const std::string& format, uint32_t channels,
                                    uint32_t bitsPerSample, uint32_t sampleRate, bool bigEndian,
                                    int64_t totalSize) {
  if (!valid) return false;
  if (!CheckUpStreams("TrueHD dialnorm remover")) return false;
  if (format != "thd" && format != "mlp")
    return Fail("The TrueHD dialnorm remover received a non-supported data format.");
  if (!NotifyAudio(format, channels, bitsPerSample, sampleRate, bigEndian, totalSize))
    valid = false;
  return valid;
}

bool TThdDialnormRemover::Write(SenderId, bool, const uint8_t* data, uint32_t size,
                                int64_t position, bool flush) {
  if (!valid) return false;
  if (!CheckUpStreams("TrueHD dialnorm remover")) return false;
  if (!StoreData(0, data, size))
    return Fail("The TrueHD dialnorm remover couldn't allocate enough memory.");
  uint8_t* unit = BufferData(0);
  TMajorSync sync;
  if (size >= 32 && Be32(unit + 4) == kThdMajorSync && ParseMajorSync(unit, size, sync) == 0 &&
      sync.dialnorm >= 1 && sync.dialnorm <= 30) {
    if (!reported) {
      reported = true;
      Log(0, "Removing dialog normalization...");
    }
    unit[25] &= 0xF8;  // dialnorm, top three bits
    unit[26] &= 0x3F;  // dialnorm, low two bits
    unit[22] = 0;
    uint32_t end = MajorSyncEnd(unit);
    uint16_t crc = MajorSyncCrc(unit, 4, end - 2);
    unit[end - 2] = uint8_t(crc >> 8);
    unit[end - 1] = uint8_t(crc);
  }
  bool ok = Send(false, unit, size, position, flush);
  SetBufferFill(0, 0);
  if (!ok) valid = false;
  return valid;
}

bool TThdDialnormRemover::Finish() {
  if (!valid) return false;
  if (BufferFill(0) != 0 && !Send(false, BufferData(0), BufferFill(0), -1, false)) valid = false;
  SetBufferFill(0, 0);
  return valid && TUpStream::Finish();
}

}  // namespace sonvex
