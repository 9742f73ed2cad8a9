// The DTS reader stage: sync search, frame checks, format announcement, padding removal.
#include "dts/dtsreader.h"

#include <algorithm>

#include "framework/console.h"

namespace sonvex {

namespace {

// How far into the stream the first frame is looked for.
constexpr uint32_t kSearchLimit = 0x64000;

// The size of an extension substream as far as the small header's places give it; serves only to
// decide how long to wait for data, the parser's result replaces it.
uint32_t ShortSubstreamSize(const uint8_t* sub) {
  return (sub[6] & 15u) * 0x800 + sub[7] * 8u + (sub[8] >> 5) + 1;
}

}  // namespace

std::shared_ptr<TDtsReader> TDtsReader::Create(const std::string& gapFileName,
                                               const std::string& gapData, bool exactStart,
                                               bool logDts, bool doubleFirstFrame) {
  return std::make_shared<TDtsReader>(gapFileName, gapData, exactStart, logDts, doubleFirstFrame);
}

TDtsReader::TDtsReader(const std::string& gapFileName, const std::string& gapData,
                       bool exactStart, bool dumpHeaders, bool doubleFirstFrame)
    : doubleFirstFrame(doubleFirstFrame),
      dumpHeaders(dumpHeaders),
      exactStart(exactStart),
      gapFileName(gapFileName) {
  // Gap data that is given is being consumed by a gap realizer: no new gaps are collected.
  trackGaps = !gapFileName.empty() && gapData.empty();
}

bool TDtsReader::InitAudio(const std::string& format, uint32_t channels, uint32_t bitsPerSample,
                           uint32_t sampleRate, bool bigEndian, int64_t totalSize) {
  if (!valid) return false;
  if (format != "?" && format != "dts" && format != "dtsma" && format != "dtshr")
    return Fail("The DTS reader received a non-supported data format.");
  totalBytes = totalSize * int64_t(channels) * int64_t(bitsPerSample / 8);
  formatReceived = true;
  return true;
}

void TDtsReader::DropBytes(uint32_t count) {
  RemoveData(0, count);
  ShiftStamps(count);
}

void TDtsReader::ShiftStamps(uint32_t count) {
  for (auto& entry : pendingStamps) entry.offset -= count;
  while (pendingStamps.size() >= 2 && pendingStamps[1].offset <= 0)
    pendingStamps.erase(pendingStamps.begin());
}

TFrameClock TDtsReader::Clock() const {
  uint32_t rate = sampleRate == 96000 ? 48000 : sampleRate;
  return {int64_t(10000) * samplesPerFrame * 1000, int64_t(rate)};
}

// The same as searching from offset 0 each time: offsets before `searchFrom` hold no sync word
// or one whose frame failed for good; `undecidedSyncs` are those whose frame ran past the data
// and may still prove good with more of it.
bool TDtsReader::SearchFirstFrame() {
  const uint8_t* buf = BufferData(0);
  const uint32_t fill = BufferFill(0);
  auto tryAt = [&](uint32_t offset) {
    const uint32_t available = fill - offset;
    const int result = ParseDtsFrame(buf + offset, available, false, true).result;
    if (result == 0) return 0;
    const bool mayGrow = result == 2 || available < kDtsMinCoreSize ||
                         (available >= 8 && DtsCoreSize(buf + offset) > available);
    return mayGrow ? 2 : 1;
  };
  auto found = [&](uint32_t offset) {
    DropBytes(offset);
    searchFrom = 0;
    undecidedSyncs.clear();
    return true;
  };
  std::vector<uint32_t> stillUndecided;
  for (uint32_t offset : undecidedSyncs) {
    int verdict = tryAt(offset);
    if (verdict == 0) return found(offset);
    if (verdict == 2) stillUndecided.push_back(offset);
  }
  undecidedSyncs = std::move(stillUndecided);
  uint32_t offset = searchFrom;
  for (; offset + 3 < fill && offset < kSearchLimit; offset++) {
    if (!DtsSyncAt(buf, fill, offset, kDtsCoreSync)) continue;
    int verdict = tryAt(offset);
    if (verdict == 0) return found(offset);
    if (verdict == 2) undecidedSyncs.push_back(offset);
  }
  if (offset >= kSearchLimit) return Fail("This doesn't seem to be a valid DTS stream.");
  searchFrom = offset;
  return false;
}

bool TDtsReader::AnnounceFirstFrame(TDtsFrameInfo& info) {
  if (info.result == 1) return Fail("This doesn't seem to be a valid DTS file.");
  if (info.result == 2) return Fail("Invalid DTS-HD stream.");
  if (info.result != 0) return Fail("The DTS reader raised an unexpected error.");

  sampleRate = info.clockRate ? info.clockRate : info.sampleRate;
  samplesPerFrame = info.samplesPerFrame;
  hasExtension = info.hasExtension;
  const bool is96k = info.sampleRate == 96000 && !info.clockRate;
  if (!timestampsSeen)
    initialDelayMicro -= is96k ? uint32_t(info.samplesPerFrame * 1000u) / 48
                               : uint32_t(info.samplesPerFrame * 1000000u) / sampleRate;
  uint64_t length = 0;
  const uint64_t frameBytes = uint64_t(info.coreSize) + info.extensionSize + info.padding;
  const bool master = info.hasExtension && info.isMaster;
  if (!master && info.bitrate != 0 && totalBytes > 0)
    length = uint64_t(totalBytes) / frameBytes * 1000 * info.samplesPerFrame /
             (is96k ? 48000 : sampleRate);
  const char* tag = !info.hasExtension ? "dts" : master ? "dtsma" : "dtshr";
  SetAudioDetails(tag, info.formatName, info.channelText, "", uint32_t(length), info.channels,
                  info.channelMask, info.bits, info.sampleRate, info.bitrate, info.dialnorm, 0,
                  false);
  if (info.outdatedEs) Log(1, "The DTS-ES information is stored in an outdated format.");
  valid = NotifyAudio(tag, info.channels, info.bits, info.sampleRate, false, 0);
  return valid;
}

bool TDtsReader::Write(SenderId sender, bool isHeader, const uint8_t* data, uint32_t size,
                       int64_t position, bool flush) {
  if (!valid) return false;
  if (!CheckUpStreams("DTS reader")) return false;
  if (!formatReceived) return Fail("The DTS reader didn't receive the format information.");
  // The stream bytes of the input: all of it, or the "STRMDATA" chunk of a .dtshd file.
  const uint32_t before = BufferFill(0);
  auto store = [this](const uint8_t* bytes, uint32_t count) { return StoreData(0, bytes, count); };
  if ((size && !chunks.Feed(data, size, store)) || (finishing && !chunks.Flush(store)))
    return Fail("The DTS reader couldn't allocate enough memory.");
  if (position != -1) {
    timestampsSeen = true;
    if (position != lastTimestamp) {
      lastTimestamp = position;
      pendingStamps.push_back({int64_t(before), position});
    }
  }

  if (coreless || (!formatAnnounced && StartsWithoutCore())) return TakeSubstreamFrames();
  if (!valid || waitingForCore) return valid;
  if (!formatAnnounced && BufferFill(0) >= 4 &&
      !DtsSyncAt(BufferData(0), BufferFill(0), 0, kDtsCoreSync)) {
    if (exactStart) return Fail("This doesn't seem to be a valid DTS file.");
    if (!SearchFirstFrame()) return valid;
  }

  // Frames are taken from the front one by one; the bytes they leave are removed in one go.
  uint32_t consumed = 0;
  while (valid && BufferFill(0) - consumed >= 13) {
    const uint8_t* buf = BufferData(0) + consumed;
    const uint32_t fill = BufferFill(0) - consumed;
    // Every frame starts where the size of the one before said: a frame whose size field is
    // damaged shows here, at the latest.
    if (formatAnnounced && !finishing && !DtsSyncAt(buf, fill, 0, kDtsCoreSync))
      return FailNotClean();
    uint64_t coreSize = DtsCoreSize(buf), extensionSize = 0, padding = 0;
    if (coreSize < kDtsMinCoreSize || coreSize > kDtsMaxCoreSize)
      return Fail("This doesn't seem to be a valid DTS file.");
    if (fill < coreSize + 8 && !finishing) break;
    if (DtsSyncAt(buf, fill, coreSize, kDtsSubstreamSync)) {
      while (coreSize + extensionSize + 8 <= fill &&
             DtsSyncAt(buf, fill, coreSize + extensionSize, kDtsSubstreamSync))
        extensionSize += ShortSubstreamSize(buf + coreSize + extensionSize);
    }
    if (fill < coreSize + extensionSize + 8 && !finishing) break;
    while (coreSize + extensionSize + padding + 8 <= fill &&
           buf[coreSize + extensionSize + padding] == 0)
      padding++;
    if (fill < coreSize + extensionSize + padding + 8 && !finishing) break;
    if (fill < waitFor && !finishing) break;

    TDtsFrameInfo info = ParseDtsFrame(buf, fill, formatAnnounced ? false : dumpHeaders,
                                       !formatAnnounced);
    // A substream larger than the short size said: wait for the rest of it.
    if (info.result == 2 && !finishing &&
        uint64_t(info.coreSize) + info.extensionSize + 8 > fill) {
      waitFor = uint64_t(info.coreSize) + info.extensionSize + 8;
      break;
    }
    waitFor = 0;
    if (info.result != 1) {
      coreSize = info.coreSize;
      extensionSize = info.extensionSize;
      padding = info.padding;
    }
    if (!formatAnnounced) {
      formatAnnounced = true;
      if (info.result == 0 && !info.hasExtension &&
          !DtsSyncAt(buf, fill, coreSize + padding, kDtsCoreSync))
        info.result = 1;
      if (!AnnounceFirstFrame(info)) return false;
    } else if (info.result > 0 || info.hasExtension != hasExtension) {
      // A frame cut off by the end of the stream, unless a good frame starts inside it: then
      // its size field is damaged.
      if (finishing && fill < coreSize + extensionSize && !GoodFrameInside(buf, fill)) {
        Log(1, "The last DTS frame is incomplete and thus gets skipped.");
        consumed = BufferFill(0);
        break;
      }
      return FailNotClean();
    }
    // A core that grew against the frame before and holds a whole good frame has a damaged
    // size field that swallows the frames behind it.
    if (framesChecked > 0 && coreSize > lastCoreSize &&
        GoodFrameInside(buf, uint32_t(std::min<uint64_t>(coreSize, fill))))
      return FailNotClean();
    lastCoreSize = uint32_t(coreSize);
    framesChecked++;
    if (trackGaps && !pendingStamps.empty() && pendingStamps[0].offset <= 0) {
      if (sampleRate == 96000) sampleRate = 48000;
      int64_t stamp = pendingStamps[0].stamp;
      while (!pendingStamps.empty() && pendingStamps[0].offset <= 0)
        pendingStamps.erase(pendingStamps.begin());
      tracker.AddStamp(stamp, framesSent, Clock());
    }
    const uint32_t frameSize = uint32_t(coreSize + extensionSize);
    valid = Send(false, buf, frameSize, -1, false);
    if (valid && doubleFirstFrame && framesSent == 0) valid = Send(false, buf, frameSize, -1, false);
    framesSent++;
    if (padding && !paddingReported) {
      paddingReported = true;
      Log(0, "Removing DTS zero padding...");
    }
    consumed = uint32_t(std::min<uint64_t>(consumed + coreSize + extensionSize + padding,
                                           BufferFill(0)));
    ShiftStamps(uint32_t(coreSize + extensionSize + padding));
  }
  RemoveData(0, consumed);
  return valid;
}

// A stream that opens with extension substreams and has another substream, not a core frame,
// behind the first frame has no core. One that has a core frame there is a DTS-HD stream cut
// in the middle of a frame, which the search for the first core frame takes care of.
bool TDtsReader::StartsWithoutCore() {
  waitingForCore = false;
  const uint8_t* buf = BufferData(0);
  const uint32_t fill = BufferFill(0);
  if (!DtsSyncAt(buf, fill, 0, kDtsSubstreamSync)) return false;
  TDtsFrameInfo info = ParseDtsSubstreamFrame(buf, fill, false);
  const uint64_t end = uint64_t(info.extensionSize) + info.padding;
  if (info.result == 1) return false;
  if (end + 4 > fill && !finishing) {
    waitingForCore = true;  // the decision needs the start of the next frame
    return false;
  }
  coreless = info.result == 0;
  return coreless;
}

// The frames of a stream without core: each one or more extension substreams.
bool TDtsReader::TakeSubstreamFrames() {
  uint32_t consumed = 0;
  while (valid && BufferFill(0) - consumed >= 4) {
    const uint8_t* buf = BufferData(0) + consumed;
    const uint32_t fill = BufferFill(0) - consumed;
    if (!DtsSyncAt(buf, fill, 0, kDtsSubstreamSync)) {
      if (!finishing) {
        FailNotClean();
        break;
      }
      Log(1, "The last DTS frame is incomplete and thus gets skipped.");
      consumed = BufferFill(0);
      break;
    }
    TDtsFrameInfo info = ParseDtsSubstreamFrame(buf, fill, !formatAnnounced && dumpHeaders);
    const uint64_t frameSize = info.extensionSize;
    if (info.result == 2 && !finishing && frameSize + 4 > fill) break;
    if (!formatAnnounced) {
      formatAnnounced = true;
      const TDtsHdFacts& facts = chunks.Facts();
      if (facts.present) {
        if (info.sampleRate == 0) info.sampleRate = facts.sampleRate;
        if (info.channels == 0) {
          info.channels = facts.channels;
          info.channelText = DefaultChannelLayout(info.channels);
          info.channelMask = DefaultChannelMask(info.channels);
        }
      }
      if (info.result == 0 && info.samplesPerFrame == 0) info.result = 1;
      if (!AnnounceFirstFrame(info)) break;
    } else if (info.result != 0) {
      if (finishing && fill < frameSize) {
        Log(1, "The last DTS frame is incomplete and thus gets skipped.");
        consumed = BufferFill(0);
        break;
      }
      FailNotClean();
      break;
    }
    framesChecked++;
    if (trackGaps && !pendingStamps.empty() && pendingStamps[0].offset <= 0) {
      int64_t stamp = pendingStamps[0].stamp;
      while (!pendingStamps.empty() && pendingStamps[0].offset <= 0)
        pendingStamps.erase(pendingStamps.begin());
      tracker.AddStamp(stamp, framesSent, Clock());
    }
    valid = Send(false, buf, uint32_t(frameSize), -1, false);
    framesSent++;
    consumed += uint32_t(std::min<uint64_t>(frameSize + info.padding, fill));
    ShiftStamps(uint32_t(frameSize + info.padding));
  }
  RemoveData(0, consumed);
  return valid;
}

bool TDtsReader::FailNotClean() {
  valid = false;
  Log(2, "This track is not clean. Processing aborted.");
  Log(2, "Please clean the track with delaycut and then retry sonvex.");
  return false;
}

bool TDtsReader::GoodFrameInside(const uint8_t* frame, uint32_t size) {
  for (uint32_t at = 1; at + 4 <= size; at++)
    if (DtsSyncAt(frame, size, at, kDtsCoreSync) &&
        ParseDtsFrame(frame + at, size - at, false, false).result == 0)
      return true;
  return false;
}

bool TDtsReader::Finish() {
  if (!valid) return false;
  if (!CheckUpStreams("DTS reader")) return false;
  if (!formatAnnounced) return Fail("The stream doesn't seem to contain any valid DTS frames.");
  finishing = true;
  bool result = Write(0, false, nullptr, 0, -1, false);
  result = TUpStream::Finish() && result;
  if (result && trackGaps) {
    // A discontinuity counts from 6/10 of a frame on, but never below 7 ms.
    const TFrameClock clock = Clock();
    const int64_t threshold = std::max<int64_t>(clock.FrameTicks() * 6 / 10, 70000);
    if (!tracker.Finish(*this, gapFileName, framesChecked, clock, threshold, threshold,
                        DelaySum())) {
      valid = false;
      result = false;
    }
  }
  return result;
}

}  // namespace sonvex
