// TWavWriter. Sizes that outgrow 32 bits wrap; an unknown length is written as 0xFFFFFF00 data
// bytes until the end corrects it.
#include "codecs/wavwriter.h"

#include "files/destfile.h"

#include <cstring>
#include <vector>

#include "framework/smallstages.h"

namespace sonvex {
namespace {

constexpr uint8_t kPcmGuid[16] = {0x01, 0x00, 0x00, 0x00, 0x00, 0x00, 0x10, 0x00,
                                  0x80, 0x00, 0x00, 0xAA, 0x00, 0x38, 0x9B, 0x71};

constexpr const char* kChannelNames[8][8] = {
    {"C"},
    {"L", "R"},
    {"L", "R", "LFE"},
    {"L", "R", "SL", "SR"},
    {"L", "R", "C", "SL", "SR"},
    {"L", "R", "C", "LFE", "SL", "SR"},
    {"L", "R", "C", "LFE", "SL", "SR", "BC"},
    {"L", "R", "C", "LFE", "BL", "BR", "SL", "SR"},
};

void Put16(uint8_t* p, uint32_t v) {
  p[0] = uint8_t(v);
  p[1] = uint8_t(v >> 8);
}
void Put32(uint8_t* p, uint32_t v) {
  for (int i = 0; i < 4; i++) p[i] = uint8_t(v >> (8 * i));
}
void Put64(uint8_t* p, uint64_t v) {
  Put32(p, uint32_t(v));
  Put32(p + 4, uint32_t(v >> 32));
}

// The ds64 chunk of RF64: RIFF size, data size, sample count (64 bits each), table length 0.
constexpr uint32_t kDs64ChunkSize = 8 + 28;

// The stage that can go back to the header: the next stage itself or the end of its chain.
ISeekableUpStream* FindSeekable(const UpStreamRef& up, UpStreamRef& target) {
  if (auto seekable = Query<ISeekableUpStream>(up)) {
    target = up;
    return seekable.get();
  }
  UpStreamRef last = up->LastStage();
  if (auto seekable = Query<ISeekableUpStream>(last)) {
    target = last;
    return seekable.get();
  }
  return nullptr;
}

}  // namespace

std::string WavChannelName(uint32_t channels, uint32_t index) {
  if (channels < 1 || channels > 8 || index >= channels) return std::to_string(index + 1);
  return kChannelNames[channels - 1][index];
}

void TWavWriter::SetSizes(uint64_t dataBytes) {
  if (rf64) {
    // RIFF and data sizes stay 0xFFFFFFFF; the real ones are in the ds64 chunk at offset 12.
    Put64(header + 20, dataBytes + headerSize - 8);
    Put64(header + 28, dataBytes);
    Put64(header + 36, blockAlign ? dataBytes / blockAlign : 0);
    return;
  }
  Put32(header + 4, uint32_t(dataBytes) + headerSize - 8);
  Put32(header + headerSize - 4, uint32_t(dataBytes));
}

bool TWavWriter::InitAudio(const std::string& format, uint32_t channels, uint32_t bits,
                           uint32_t sampleRate, bool bigEndian, int64_t totalSize) {
  if (!CheckUpStreams("WAV writer")) return false;
  if (format != "pcm" || channels == 0 || channels > 0xFFFF || bigEndian ||
      (bits != 8 && bits != 16 && bits != 24))
    return Fail("The WAV writer received a non-supported data format.");
  Log(0, multiFile ? "Writing WAVs..." : "Writing WAV...");
  if (!NotifyAudio("wav", channels, bits, sampleRate, bigEndian, totalSize)) {
    valid = false;
    return false;
  }
  formatReceived = true;
  sampleCount = totalSize > 0 ? uint64_t(totalSize) : 0;
  const uint32_t bytes = bits / 8;
  blockAlign = channels * bytes;
  headerSize = extensible ? 68 : 44;
  // Data that can't be sized in 32 bits is written as RF64: the same header with a ds64 chunk
  // between "WAVE" and "fmt ". When the length isn't known yet, a "JUNK" chunk of the same size
  // holds that place, so that the end can still turn the header into RF64.
  const uint64_t announcedBytes = sampleCount * blockAlign;
  rf64 = announcedBytes > 0xFFFFFFFFull;
  reserved = rf64 || sampleCount == 0;
  const uint32_t at = reserved ? kDs64ChunkSize : 0;
  std::memset(header, 0, sizeof(header));
  std::memcpy(header, rf64 ? "RF64" : "RIFF", 4);
  std::memcpy(header + 8, "WAVE", 4);
  if (reserved) {
    std::memcpy(header + 12, rf64 ? "ds64" : "JUNK", 4);
    Put32(header + 16, 28);
  }
  std::memcpy(header + at + 12, "fmt ", 4);
  Put32(header + at + 16, extensible ? 40 : 16);
  Put16(header + at + 20, extensible ? 0xFFFE : 1);
  Put16(header + at + 22, channels);
  Put32(header + at + 24, sampleRate);
  Put32(header + at + 28, sampleRate * blockAlign);
  Put16(header + at + 32, blockAlign);
  Put16(header + at + 34, bytes * 8);
  if (extensible) {
    Put16(header + at + 36, 22);
    Put16(header + at + 38, bytes * 8);
    Put32(header + at + 40, channelMask);
    std::memcpy(header + at + 44, kPcmGuid, 16);
  }
  headerSize += at;
  std::memcpy(header + headerSize - 8, "data", 4);
  if (rf64) {
    Put32(header + 4, 0xFFFFFFFF);
    Put32(header + headerSize - 4, 0xFFFFFFFF);
  }
  SetSizes(sampleCount ? announcedBytes : 0xFFFFFF00u);
  valid = Send(true, header, headerSize, -1, false);
  return valid;
}

bool TWavWriter::Write(SenderId, bool, const uint8_t* data, uint32_t size, int64_t position,
                       bool flush) {
  if (!valid) return false;
  if (!formatReceived) return Fail("The WAV writer didn't receive the format information.");
  bytesWritten += size;
  return Send(false, data, size, position, flush);
}

bool TWavWriter::Finish() {
  if (!valid) return false;
  if (!formatReceived) return Fail("The WAV writer didn't receive the format information.");
  if (bytesWritten == 0) {
    Log(2, "The WAV writer didn't receive any audio data.");
    return false;
  }
  uint64_t frames = bytesWritten / blockAlign;
  uint64_t remainder = bytesWritten - frames * blockAlign;
  if (remainder) {
    std::vector<uint8_t> zeros(remainder, 0);
    if (!Send(false, zeros.data(), uint32_t(remainder), -1, false)) return false;
    frames++;
  }
  if (!(frames == sampleCount && frames != 0)) {
    // Past 4 GiB the reserved room becomes the ds64 chunk of an RF64 header.
    if (reserved && !rf64 && frames * blockAlign + headerSize - 8 > 0xFFFFFFFFull) {
      rf64 = true;
      std::memcpy(header, "RF64", 4);
      std::memcpy(header + 12, "ds64", 4);
      Put32(header + 4, 0xFFFFFFFF);
      Put32(header + headerSize - 4, 0xFFFFFFFF);
    }
    SetSizes(frames * blockAlign);
    // The header goes straight to the files: what is still gathered for them goes first.
    if (!HandOverBatches()) return false;
    for (auto& up : upStreams) {
      UpStreamRef target;
      ISeekableUpStream* seekable = FindSeekable(up, target);
      if (!seekable) {
        Log(2, "The WAV writer couldn't update the header.");
        return false;
      }
      // Standard output can't go back: the header written first, with its sizes left open, is
      // what a reader of the pipe gets, and it stays valid there.
      if (auto dest = std::dynamic_pointer_cast<TDestFile>(target); dest && dest->IsStdout())
        continue;
      seekable->Seek(0);
      if (seekable->Position() != 0) {
        Log(2, "The WAV writer couldn't seek to the header.");
        return false;
      }
      if (seekable->Position() == 0 &&
          !target->Write(SenderIdFor(0), false, header, headerSize, -1, false))
        return false;
    }
  }
  if (!FinishUpStreams()) return false;
  if (bytesWritten >= 0x7FFFFFFF && !rf64) {
    Log(1, bytesWritten >= 0xFFFFFFFF ? "Caution: The WAV file is bigger than 4GB."
                                      : "Caution: The WAV file is bigger than 2GB.");
    Log(1, "Some WAV readers might not be able to handle this file correctly.");
  }
  return true;
}

}  // namespace sonvex
