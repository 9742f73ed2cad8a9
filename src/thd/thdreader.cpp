// TThdReader: TrueHD/MLP access units and interleaved AC-3 frames, one block per Send.
#include "thd/thdreader.h"

#include "framework/bitreader.h"
#include "thd/thdbitstream.h"

namespace sonvex {

namespace {

// AC-3 bit rates in kbit/s by frmsizecod >> 1, for the quick size guess ahead of the real probe.
constexpr uint32_t kAc3Kbps[19] = {32,  40,  48,  56,  64,  80,  96,  112, 128, 160,
                                   192, 224, 256, 320, 384, 448, 512, 576, 640};

// Size of the AC-3 frame whose header starts at `p` (5 bytes needed), 0 when it can't be one.
uint32_t Ac3SizeGuess(const uint8_t* p) {
  uint32_t fscod = p[4] >> 6;
  uint32_t rate = fscod == 0 ? 48000 : fscod == 1 ? 44100 : 32000;
  uint32_t index = (p[4] >> 1) & 31;
  if (index >= std::size(kAc3Kbps)) return 0;
  uint32_t size = kAc3Kbps[index] * 192000 / rate;
  if (rate == 44100) {
    size &= ~1u;
    if (p[4] & 1) size += 2;
  }
  return size > 3840 || size < 128 ? 0 : size;
}

constexpr uint32_t kSearchLimit = 102400;

// A discontinuity in TrueHD time counts from 7 ms on.
constexpr int64_t kUnitMinGap = 70000;

}  // namespace

std::shared_ptr<TThdReader> TThdReader::Create(const std::string& gapFileName,
                                               const std::string& gapData, bool gapsOnAc3,
                                               bool strict) {
  return std::make_shared<TThdReader>(gapFileName, gapData, gapsOnAc3, strict);
}

TThdReader::TThdReader(const std::string& gapFileName, const std::string& gapData, bool gapsOnAc3,
                       bool strict)
    : strict(strict), gapsOnAc3(gapsOnAc3), gapFileName(gapFileName) {
  trackGaps = !gapFileName.empty() && gapData.empty();
}

bool TThdReader::InitAudio(const std::string& format, uint32_t, uint32_t, uint32_t, bool,
                           int64_t) {
  if (!valid) return false;
  if (format != "?" && format != "thd" && format != "thd/ac3" && format != "mlp")
    return Fail("The TrueHD reader received a non-supported data format.");
  return CheckUpStreams("TrueHD reader");
}

bool TThdReader::ReportDamage() {
  if (notCleanReported) return true;
  notCleanReported = true;
  Log(1, "This track is not clean.");
  if (strict) valid = false;
  return valid;
}

void TThdReader::RemoveFront(uint32_t count) {
  if (count == 0) return;
  RemoveData(0, count);
  for (auto& entry : pendingStamps) entry.offset -= count;
  while (pendingStamps.size() >= 2 && pendingStamps[1].offset <= 0)
    pendingStamps.erase(pendingStamps.begin());
}

void TThdReader::AnnounceFormat(const TMajorSync& sync) {
  formatAnnounced = true;
  std::string tag;
  if (sync.isMlp) {
    tag = "mlp";
    std::string text = sync.channelText, order;
    if (text == "4.1 wrong order" || text == "5.0 wrong order") {
      text = text.substr(0, 3);
      order = "0,1,4,2,3,5";
    } else if (text == "5.1 wrong order") {
      text = "5.1";
      order = "0,1,4,5,2,3";
    }
    SetAudioDetails(tag, "MLP", text, order, 0, sync.channels, sync.channelMask, sync.bits,
                    sync.sampleRate, 0, 0, 0, false);
  } else if (ac3Size != 0) {
    tag = "thd/ac3";
    SetAudioDetails(tag, "TrueHD/AC3", sync.channelText, "", 0, sync.channels, 0, 0,
                    sync.sampleRate, 0, sync.dialnorm, 0, false);
  } else {
    tag = "thd";
    SetAudioDetails(tag, "TrueHD", sync.channelText, "", 0, sync.channels, 0, 0, sync.sampleRate,
                    0, sync.dialnorm, 0, false);
  }
  if (sync.channels == 0) {
    Fail("This channel format is currently not supported.");
    return;
  }
  if (!NotifyAudio(tag, sync.channels, sync.isMlp ? sync.bits : 24, sync.sampleRate, false, 0))
    valid = false;
}

TFrameClock TThdReader::UnitClock() const {
  return {int64_t(10000) * samplesPerUnit * 1000, int64_t(sampleRate)};
}

TFrameClock TThdReader::Ac3Clock() const {
  return {int64_t(10000) * ac3Size * 8000, int64_t(ac3Bitrate)};
}

// Takes the first due stamp and drops every stamp that is due with it.
void TThdReader::TrackGap(int64_t framesSent, const TFrameClock& clock, int64_t& sendPosition) {
  if (!clock.IsSet()) return;
  int64_t stamp = pendingStamps.front().stamp;
  while (!pendingStamps.empty() && pendingStamps.front().offset <= 0)
    pendingStamps.erase(pendingStamps.begin());
  if (!timeBaseSet) {
    timeBaseSet = true;
    timeBase = int64_t(uint64_t(stamp) - uint64_t(clock.TicksOf(framesSent)));
  }
  gapTracker.AddStamp(stamp, framesSent, clock);
  // Stamps come from the container; whatever they hold, the arithmetic wraps and never traps.
  sendPosition = int64_t(uint64_t(sendPosition) - uint64_t(timeBase));
}

// Sends the AC-3 frame that stands at the front of the buffer.
bool TThdReader::SendAc3Frame(int64_t& sendPosition) {
  if (gapsOnAc3 && trackGaps && StampDue()) TrackGap(ac3FramesSent, Ac3Clock(), sendPosition);
  if (!Send(false, BufferData(0), ac3Size, -1, false)) valid = false;
  ac3FramesSent++;
  RemoveFront(ac3Size);
  return valid;
}

bool TThdReader::Write(SenderId, bool, const uint8_t* data, uint32_t size, int64_t position,
                       bool) {
  if (!valid) return false;
  if (!CheckUpStreams("TrueHD reader")) return false;
  if (!StoreData(0, data, size))
    return Fail("The TrueHD reader couldn't allocate enough memory.");
  if (position != -1) {
    timestampsSeen = true;
    if (position != lastTimestamp) {
      lastTimestamp = position;
      pendingStamps.push_back({int64_t(BufferFill(0)) - size, position});
    }
  }
  // The position handed on with TrueHD units; each run of the gap tracker takes off the time base.
  int64_t sendPosition = position;
  uint32_t pos = scanPosition;
  // Removing data moves it inside the same memory, so this address holds for the whole loop.
  uint8_t* buffer = BufferData(0);

  while (valid && BufferFill(0) >= pos && BufferFill(0) - pos >= 5) {
    const uint8_t* p = buffer + pos;
    uint32_t available = BufferFill(0) - pos;
    bool ac3Sync = p[0] == 0x0B && p[1] == 0x77;

    // 1-2. The size of what stands here: an AC-3 frame by its header, a unit by its length
    // field once in sync, else enough for a major sync.
    uint32_t frameSize = ac3Sync ? Ac3SizeGuess(p) : 0;
    if (frameSize == 0) {
      if (inSync && formatAnnounced) {
        frameSize = ThdUnitSize(p);
        if (frameSize < 4) {
          inSync = false;
          if (!ReportDamage()) break;
          frameSize = 32;
        }
      } else {
        frameSize = 32;
      }
    }
    // 3. Wait for the whole of it.
    if (available < frameSize) break;

    // 4. A good AC-3 frame.
    uint32_t probeSize = 0, probeRate = 0;
    if (ac3Sync && frameSize >= 33 && ProbeAc3Frame(p, frameSize, probeSize, probeRate)) {
      inSync = true;
      ac3FramesSeen++;
      ac3Offset = pos;
      ac3Size = frameSize;
      ac3Bitrate = probeRate;
      if (!formatAnnounced) {
        // Kept in the buffer: the last one before the first major sync goes out with it.
        pos += frameSize;
        continue;
      }
      RemoveFront(ac3Offset);
      pos = 0;
      if (!SendAc3Frame(sendPosition)) break;
      continue;
    }

    // 5. A unit with a good major sync.
    TMajorSync sync;
    uint32_t syncWord = Be32(p + 4);
    bool syncHere = available >= 32 && (syncWord == kThdMajorSync || syncWord == kMlpMajorSync);
    // A major sync with extension words has its check word further on.
    if (syncHere && available < MajorSyncEnd(p)) break;
    if (syncHere && ParseMajorSync(p, available, sync) == 0) {
      majorSyncSeen = true;
      inSync = true;
      unitsSeen++;
      substreams = sync.substreams;
      sampleRate = sync.sampleRate;
      samplesPerUnit = sync.samplesPerUnit;
      frameSize = sync.unitSize;
      if (!formatAnnounced) {
        AnnounceFormat(sync);
        if (valid && ac3Size != 0) {
          // Frames found before the last one are dropped with the bytes in front of it.
          RemoveFront(ac3Offset);
          pos -= ac3Offset;
          if (!SendAc3Frame(sendPosition)) break;
          pos -= ac3Size;
        }
      }
      if (pos != 0) {
        RemoveFront(pos);
        pos = 0;
      }
      if (!valid || BufferFill(0) < frameSize) break;
      if (!timestampsSeen) initialDelaySamples -= 40;
      if (!gapsOnAc3 && trackGaps && StampDue()) TrackGap(unitsSent, UnitClock(), sendPosition);
      if (!Send(false, buffer, frameSize, sendPosition, false)) valid = false;
      unitsSent++;
      RemoveFront(frameSize);
      continue;
    }

    // 6. No frame start: scan on, or take it as a unit without major sync.
    if (!inSync) {
      pos++;
      continue;
    }
    if (!formatAnnounced || !CheckUnitParity(p, available, substreams)) {
      inSync = false;
      if (!ReportDamage()) break;
      pos++;
      continue;
    }
    unitsSeen++;
    if (timestampsSeen && !majorSyncSeen)
      initialDelaySamples += 40;
    else if (!timestampsSeen && majorSyncSeen)
      initialDelaySamples -= 40;
    if (!gapsOnAc3 && trackGaps && StampDue()) TrackGap(unitsSent, UnitClock(), sendPosition);
    if (pos != 0) {
      RemoveFront(pos);
      pos = 0;
    }
    if (!Send(false, buffer, frameSize, -1, false)) valid = false;
    unitsSent++;
    RemoveFront(frameSize);
  }

  // Once the format is known, what lies in front of the scan is dropped at the next frame found
  // anyway; dropping it now keeps the buffer small through long damage.
  if (formatAnnounced && !inSync && pos != 0) {
    RemoveFront(pos);
    pos = 0;
  }
  scanPosition = pos;
  if (valid && !formatAnnounced && BufferFill(0) > kSearchLimit)
    return Fail("No valid TrueHD frames found in the first 100 KB of the stream.");
  return valid;
}

bool TThdReader::Finish() {
  if (!valid) return false;
  if (!CheckUpStreams("TrueHD reader")) return false;
  if (!formatAnnounced)
    return Fail("The stream doesn't seem to contain any valid TrueHD frames.");
  bool result = TUpStream::Finish();
  if (result && trackGaps) {
    if (gapsOnAc3) {
      TFrameClock clock = Ac3Clock();
      result = gapTracker.Finish(*this, gapFileName, ac3FramesSent, clock, DefaultMinGap(clock),
                                 DefaultMinGap(clock), DelaySum());
    } else {
      result = gapTracker.Finish(*this, gapFileName, unitsSent, UnitClock(), kUnitMinGap,
                                 kUnitMinGap, DelaySum());
    }
  }
  return result;
}

}  // namespace sonvex
