// TWavReader. The header is gathered in buffer 0 chunk by chunk until "data"; from then on the
// payload passes without a copy, cut to the length the header gives.
#include "codecs/wavreader.h"

#include <algorithm>
#include <cstring>

#include "framework/bitreader.h"

namespace sonvex {
namespace {

// KSDATAFORMAT_SUBTYPE_PCM, 00000001-0000-0010-8000-00AA00389B71, as stored in the file.
constexpr uint8_t kPcmGuid[16] = {0x01, 0x00, 0x00, 0x00, 0x00, 0x00, 0x10, 0x00,
                                  0x80, 0x00, 0x00, 0xAA, 0x00, 0x38, 0x9B, 0x71};
// A fmt chunk is small; anything bigger than this is not a format we read.
constexpr uint32_t kMaxFmtChunk = 0x10000;

}  // namespace

bool TWavReader::InitAudio(const std::string& format, uint32_t inChannels, uint32_t inBits,
                           uint32_t, bool, int64_t totalSize) {
  if (!CheckUpStreams("WAV reader")) return false;
  if (format != "?" && format != "wav")
    return Fail("The WAV reader received a non-supported data format.");
  streamBytes = totalSize > 0 ? uint64_t(totalSize) * inChannels * (inBits / 8) : 0;
  return true;
}

// Reads chunks from buffer 0 until the data chunk begins. False on a refused header.
bool TWavReader::ParseHeader() {
  if (!riffSeen) {
    if (BufferFill(0) < 12) return true;
    const uint8_t* p = BufferData(0);
    bool wave = std::memcmp(p + 8, "WAVE", 4) == 0;
    if (std::memcmp(p, "RIFX", 4) == 0 && wave) {
      Fail("This is a big endian WAV file, which is currently not supported.");
      Log(0, "Please send a sample file to sonvex@users.noreply.github.com.");
      return false;
    }
    rf64 = std::memcmp(p, "RF64", 4) == 0 && wave;
    if (!(std::memcmp(p, "RIFF", 4) == 0 && wave) && !rf64)
      return Fail("This doesn't seem to be a valid WAV file.");
    riffSize = Le32(p + 4);
    riffSeen = true;
    headerBytes = 12;
    RemoveData(0, 12);
  }
  if (skipPending) {
    uint32_t drop = uint32_t(std::min<uint64_t>(skipPending, BufferFill(0)));
    RemoveData(0, drop);
    skipPending -= drop;
    if (skipPending) return true;
  }
  while (BufferFill(0) >= 8) {
    const uint8_t* p = BufferData(0);
    uint32_t length = Le32(p + 4);
    if (std::memcmp(p, "data", 4) == 0) {
      if (!fmtSeen) return Fail("The WAV file header seems to be incomplete.");
      dataStarted = true;
      headerBytes += 8;
      RemoveData(0, 8);
      const uint64_t frameBytes = uint64_t(channels) * (bits / 8);
      if (rf64 && ds64Seen && length == 0xFFFFFFFF)
        sampleCount = ds64DataSize / frameBytes;
      else if (streamBytes >= 0x80000000ull)
        sampleCount = (streamBytes > headerBytes ? streamBytes - headerBytes : 0) / frameBytes;
      else
        sampleCount = length / uint32_t(frameBytes);
      remaining = sampleCount * frameBytes;
      return true;
    }
    bool isFmt = std::memcmp(p, "fmt ", 4) == 0;
    bool isDs64 = rf64 && std::memcmp(p, "ds64", 4) == 0;
    if (isFmt || isDs64) {
      // These chunks are read in full, so they wait until all of them is here.
      if (length > kMaxFmtChunk) return Fail("This WAV file format is currently not supported.");
      if (BufferFill(0) < length + 8) return true;
      if (isDs64 && length >= 16) {
        ds64DataSize = Le64(p + 16);
        ds64Seen = true;
      }
      if (isFmt) {
        if (length < 16) return Fail("This WAV file format is currently not supported.");
        uint16_t tag = Le16(p + 8);
        channels = Le16(p + 10);
        sampleRate = Le32(p + 12);
        bits = Le16(p + 22);
        channelMask = 0;
        bool ok = tag == 1;
        if (tag == 0xFFFE && length >= 40) {
          ok = std::memcmp(p + 32, kPcmGuid, 16) == 0 && Le16(p + 26) == bits;
          channelMask = Le32(p + 28);
        }
        if (!ok || channels == 0 || (bits != 8 && bits != 16 && bits != 24) || sampleRate == 0)
          return Fail("This WAV file format is currently not supported.");
        fmtSeen = true;
      }
    } else if (BufferFill(0) < length) {
      return true;
    }
    // Odd chunk lengths are taken as they stand: no pad byte is skipped.
    uint64_t whole = uint64_t(length) + 8;
    headerBytes += whole;
    uint32_t drop = uint32_t(std::min<uint64_t>(whole, BufferFill(0)));
    RemoveData(0, drop);
    skipPending = whole - drop;
    if (skipPending) return true;
  }
  return true;
}

// Decides PCM or DTS on the first payload bytes and sends what is stored.
bool TWavReader::StartPayload(int64_t position, bool flush, bool atEnd) {
  uint32_t fill = BufferFill(0);
  if (fill < 4 && fill < remaining && !atEnd) return true;
  const uint8_t* p = BufferData(0);
  uint32_t sync = fill >= 4 ? Le32(p) : 0;
  initialised = true;
  bool ok;
  if (sync == 0xE8001FFF || sync == 0x80017FFE) {
    Log(0, "Reading DTSWAV...");
    ok = NotifyAudio("dtswav", channels, bits, sampleRate, false, int64_t(remaining));
  } else {
    Log(0, "Reading WAV...");
    uint32_t duration = uint32_t(sampleCount * 1000 / sampleRate);
    SetAudioDetails("wav", "WAV", "", "", duration, channels, channelMask, bits, sampleRate, 0, 0,
                    0, false);
    ok = NotifyAudio("pcm", channels, bits, sampleRate, false, int64_t(sampleCount));
  }
  if (!ok) {
    valid = false;
    return false;
  }
  uint32_t send = uint32_t(std::min<uint64_t>(fill, remaining));
  remaining -= send;
  ok = send == 0 || Send(false, p, send, position, flush);
  SetBufferFill(0, 0);
  FreeBuffer(0);
  return ok;
}

bool TWavReader::Write(SenderId, bool, const uint8_t* data, uint32_t size, int64_t position,
                       bool flush) {
  if (!valid) return false;
  if (initialised) {
    uint32_t send = uint32_t(std::min<uint64_t>(size, remaining));
    if (send == 0) return true;
    remaining -= send;
    return Send(false, data, send, position, flush);
  }
  if (!CheckUpStreams("WAV reader")) return false;
  if (!StoreData(0, data, size))
    return Fail("The WAV reader was not able to allocate enough memory.");
  if (!dataStarted && !ParseHeader()) return false;
  if (!dataStarted) return true;
  return StartPayload(position, flush, finishing);
}

bool TWavReader::Finish() {
  if (!valid) return false;
  finishing = true;
  if (!initialised && !Write(0, false, nullptr, 0, -1, false)) return false;
  if (!initialised) {
    if (!riffSeen) return Fail("This doesn't seem to be a valid WAV file.");
    return Fail("The WAV file header seems to be incomplete.");
  }
  return FinishUpStreams();
}

}  // namespace sonvex
