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

// Sony Wave64: the chunk tags are GUIDs, the sizes 64 bits and include the 24 bytes of the chunk
// header, and chunks start on 8-byte boundaries. The "riff" GUID, and the tail that the GUIDs of
// "wave", "fmt " and "data" share behind their four letters.
constexpr uint8_t kW64Riff[16] = {'r',  'i',  'f',  'f',  0x2E, 0x91, 0xCF, 0x11,
                                  0xA5, 0xD6, 0x28, 0xDB, 0x04, 0xC1, 0x00, 0x00};
constexpr uint8_t kW64Tail[12] = {0xF3, 0xAC, 0xD3, 0x11, 0x8C, 0xD1,
                                  0x00, 0xC0, 0x4F, 0x8E, 0xDB, 0x8A};
// The "data" size of a header written before the length was known: ours (256 below 2^32) and
// the usual 0xFFFFFFFF. Such a file is read by its real length.
bool OpenEnded(uint32_t length) { return length == 0xFFFFFF00 || length == 0xFFFFFFFF; }

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
    if (std::memcmp(p, kW64Riff, 12) == 0) {
      if (BufferFill(0) < 40) return true;
      if (std::memcmp(p, kW64Riff, 16) != 0 || std::memcmp(p + 24, "wave", 4) != 0 ||
          std::memcmp(p + 28, kW64Tail, 12) != 0)
        return Fail("This doesn't seem to be a valid WAV file.");
      w64 = true;
      riffSeen = true;
      headerBytes = 40;
      RemoveData(0, 40);
    }
  }
  if (!riffSeen) {
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
  const uint32_t chunkHeader = w64 ? 24 : 8;
  while (BufferFill(0) >= chunkHeader) {
    const uint8_t* p = BufferData(0);
    uint64_t length = Le32(p + 4);
    if (w64) {
      uint64_t whole = Le64(p + 16);
      if (whole < 24) return Fail("This doesn't seem to be a valid WAV file.");
      length = whole - 24;
    }
    bool tagged = !w64 || std::memcmp(p + 4, kW64Tail, 12) == 0;
    if (tagged && std::memcmp(p, "data", 4) == 0) {
      if (!fmtSeen) return Fail("The WAV file header seems to be incomplete.");
      dataStarted = true;
      headerBytes += chunkHeader;
      RemoveData(0, chunkHeader);
      const uint64_t frameBytes = uint64_t(channels) * (bits / 8);
      const uint64_t rest = streamBytes > headerBytes ? streamBytes - headerBytes : 0;
      if (rf64 && ds64Seen && length == 0xFFFFFFFF)
        sampleCount = ds64DataSize / frameBytes;
      else if (w64)
        sampleCount = (streamBytes ? std::min(length, rest) : length) / frameBytes;
      else if (streamBytes >= 0x80000000ull || (streamBytes && OpenEnded(uint32_t(length))))
        sampleCount = rest / frameBytes;
      else if (OpenEnded(uint32_t(length)))
        sampleCount = ~uint64_t(0) / frameBytes;  // a pipe: everything that comes
      else
        sampleCount = length / frameBytes;
      remaining = sampleCount * frameBytes;
      if (sampleCount == ~uint64_t(0) / frameBytes) sampleCount = 0;  // announced as unknown
      return true;
    }
    bool isFmt = tagged && std::memcmp(p, "fmt ", 4) == 0;
    bool isDs64 = rf64 && std::memcmp(p, "ds64", 4) == 0;
    if (isFmt || isDs64) {
      // These chunks are read in full, so they wait until all of them is here.
      if (length > kMaxFmtChunk) return Fail("This WAV file format is currently not supported.");
      if (BufferFill(0) < length + chunkHeader) return true;
      if (isDs64 && length >= 16) {
        ds64DataSize = Le64(p + 16);
        ds64Seen = true;
      }
      if (isFmt) {
        if (length < 16) return Fail("This WAV file format is currently not supported.");
        // The fields are read at their RIFF places: a W64 chunk header is 16 bytes longer.
        p += chunkHeader - 8;
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
    // Odd chunk lengths are taken as they stand: no pad byte is skipped. W64 chunks are aligned.
    uint64_t whole = w64 ? (length + 24 + 7) / 8 * 8 : length + 8;
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
