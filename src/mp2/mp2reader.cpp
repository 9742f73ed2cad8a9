// TMp2Reader: MPEG-1 audio frames, checked header by header, one frame per Send.
#include "mp2/mp2reader.h"

#include "mp2/mp2bitstream.h"

namespace sonvex {

namespace {

// Junk that the sync search steps over in front of the first frame.
constexpr uint32_t kSearchLimit = 0x3000;
constexpr uint32_t kMinFill = 0x1000;
// The first frame's result for a free-format stream.
constexpr int kFreeFormat = 5;

}  // namespace

std::shared_ptr<TMp2Reader> TMp2Reader::Create(const std::string& gapFileName,
                                               const std::string& gapData, bool exactStart) {
  return std::make_shared<TMp2Reader>(gapFileName, gapData, exactStart);
}

TMp2Reader::TMp2Reader(const std::string& gapFileName, const std::string& gapData,
                       bool exactStart)
    : exactStart(exactStart),
      trackGaps(!gapFileName.empty() && gapData.empty()),
      gapFileName(gapFileName) {}

bool TMp2Reader::InitAudio(const std::string& format, uint32_t channels, uint32_t bitsPerSample,
                           uint32_t, bool, int64_t totalSize) {
  if (!valid) return false;
  if (format != "?" && format != "mp2")
    return Fail("The MP2 reader received a non-supported data format.");
  if (!CheckUpStreams("MP2 reader")) return false;
  totalBytes = totalSize * int64_t(channels) * int64_t(bitsPerSample / 8);
  minFill = kMinFill;
  frameSize = kMinFill;
  return true;
}

TFrameClock TMp2Reader::Clock() const {
  return {int64_t(10000) * frameSize * 8000, int64_t(bitrate)};
}

void TMp2Reader::DropFront(uint32_t count) {
  if (count == 0) return;
  RemoveData(0, count);
  for (auto& entry : pendingStamps) entry.offset -= count;
  while (pendingStamps.size() >= 2 && pendingStamps[1].offset <= 0)
    pendingStamps.erase(pendingStamps.begin());
}

bool TMp2Reader::FailNotClean() {
  Fail("This track is not clean. Processing aborted.");
  Log(2, "Please clean the track with delaycut and then retry sonvex.");
  return false;
}

bool TMp2Reader::SearchFirstFrame() {
  const uint8_t* buffer = BufferData(0);
  uint32_t fill = BufferFill(0);
  uint32_t offset = 0;
  TMp2FrameInfo info;
  for (; offset + 1 < fill && offset < kSearchLimit; offset++) {
    if (IsMp2Sync(buffer + offset) && ParseMp2Frame(buffer + offset, fill - offset, info) == 0)
      break;
  }
  if (offset + 1 >= fill || offset >= kSearchLimit) {
    if (offset >= kSearchLimit) Fail("This doesn't seem to be a valid MP2 stream.");
    return false;
  }
  DropFront(offset);
  return true;
}

bool TMp2Reader::AnnounceFormat() {
  const uint8_t* buffer = BufferData(0);
  uint32_t fill = BufferFill(0);
  TMp2FrameInfo info;
  int result = ParseMp2Frame(buffer, fill, info);
  if (result == 0 && info.frameSize == 0) result = kFreeFormat;
  minFill = kMinFill;
  formatAnnounced = true;
  frameSize = info.frameSize;
  bitrate = info.bitrate;
  valid = result == 0 && uint64_t(frameSize) + 2 <= fill && IsMp2Sync(buffer + frameSize);
  if (result == 0 && valid) {
    uint32_t length = bitrate ? uint32_t(totalBytes * 8000 / bitrate) : 0;
    SetAudioDetails("mp2", "MP2", info.channelText, "", length, info.channels, 0, 0,
                    info.sampleRate, bitrate, 0, 0, false);
    valid = NotifyAudio("mp2", info.channels, 24, info.sampleRate, false, 0);
    return valid;
  }
  if (result == 0) return false;  // no frame behind the first one
  if (result == 1)
    Log(2, "This doesn't seem to be a valid MP2 stream.");
  else if (result == kFreeFormat)
    Log(2, "MP2 streams with \"free\" bitrate are not supported.");
  else
    Log(2, "The MP2 reader raised an unexpected error.");
  return false;
}

bool TMp2Reader::Write(SenderId, bool, const uint8_t* data, uint32_t size, int64_t position,
                       bool) {
  if (!valid) return false;
  if (!CheckUpStreams("MP2 reader")) return false;
  if (frameSize == 0) return Fail("The MP2 reader didn't receive the format information.");
  if (!StoreData(0, data, size)) return Fail("The MP2 reader couldn't allocate enough memory.");
  if (position != -1) {
    timestampsSeen = true;
    if (position != lastTimestamp) {
      lastTimestamp = position;
      pendingStamps.push_back({int64_t(BufferFill(0)) - size, position});
    }
  }

  while (valid && BufferFill(0) > 0 && (BufferFill(0) >= minFill + 8 || finishing)) {
    bool announcedBefore = formatAnnounced;
    if (!formatAnnounced) {
      if (!exactStart && !SearchFirstFrame()) break;
      if (!AnnounceFormat()) break;
    }
    uint8_t* buffer = BufferData(0);
    uint32_t fill = BufferFill(0);
    if (announcedBefore) {
      TMp2FrameInfo info;
      if (ParseMp2Frame(buffer, fill, info) != 0 || info.frameSize == 0) {
        if (finishing && fill < frameSize) {
          Log(1, "The last MP2 frame is incomplete and thus gets skipped.");
          break;
        }
        return FailNotClean();
      }
      frameSize = info.frameSize;
      bitrate = info.bitrate;
    }
    framesChecked++;
    if (!timestampsSeen && bitrate != 0)
      initialDelayMicro -= int64_t(frameSize) * 1000 * 8000 / bitrate;
    if (trackGaps && bitrate != 0 && !pendingStamps.empty() && pendingStamps.front().offset <= 0) {
      int64_t stamp = pendingStamps.front().stamp;
      while (!pendingStamps.empty() && pendingStamps.front().offset <= 0)
        pendingStamps.erase(pendingStamps.begin());
      tracker.AddStamp(stamp, framesSent, Clock());
    }
    // A last frame whose header is good but whose bytes stop early goes out as far as it goes.
    uint32_t sendSize = frameSize < fill ? frameSize : fill;
    if (!Send(false, buffer, sendSize, -1, false)) valid = false;
    framesSent++;
    DropFront(sendSize);
  }
  return valid;
}

bool TMp2Reader::Finish() {
  if (!valid) return false;
  if (!CheckUpStreams("MP2 reader")) return false;
  if (!formatAnnounced) return Fail("The stream doesn't seem to contain any valid MP2 frames.");
  finishing = true;
  bool result = Write(0, false, nullptr, 0, -1, false);
  result = TUpStream::Finish() && result;
  if (result && trackGaps) {
    TFrameClock clock = Clock();
    result = tracker.Finish(*this, gapFileName, framesChecked, clock, DefaultMinGap(clock),
                            DefaultMinGap(clock), DelaySum());
  }
  return result;
}

}  // namespace sonvex
