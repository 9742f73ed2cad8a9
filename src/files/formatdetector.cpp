// TFormatDetector: the walk over the candidates, their dropping, and the choice of details.
#include "files/formatdetector.h"

#include <algorithm>

#include "files/detectorcandidates.h"
#include "files/junkscan.h"
#include "framework/smallstages.h"

namespace sonvex {

std::shared_ptr<TFormatDetector> TFormatDetector::Create(bool evoOption, bool tsOption) {
  TCandidateContext context;
  context.evoOption = evoOption;
  context.tsOption = tsOption;
  std::vector<UpStreamRef> candidates;
  UpStreamRef dtsReader;
  for (const TCandidateSlot& slot : kCandidateSlots) {
    context.dtsWavReader = nullptr;
    candidates.push_back(slot.factory(context));
    // Only the WAV/DTS slot names the DTS reader.
    if (slot.index == kDtsWavSlot) dtsReader = context.dtsWavReader;
  }
  auto detector = CreateWith(candidates, dtsReader);
  detector->canRestart = true;
  detector->evoOption = evoOption;
  detector->tsOption = tsOption;
  return detector;
}

std::shared_ptr<TFormatDetector> TFormatDetector::CreateWith(
    const std::vector<UpStreamRef>& candidates, const UpStreamRef& dtsWavReader) {
  auto detector = std::make_shared<TFormatDetector>();
  detector->dtsWavReader = dtsWavReader;
  if (dtsWavReader && candidates.size() > kDtsWavSlot) detector->dtsWavHead = candidates[kDtsWavSlot];
  detector->SetCandidates(candidates);
  return detector;
}

// Every candidate is silenced down its whole chain and gets a file simulator at its end, so that
// it has somewhere to send data. Slots keep their places, empty ones as nil entries.
void TFormatDetector::SetCandidates(const std::vector<UpStreamRef>& candidates) {
  upStreams.clear();
  for (uint32_t i = 0; i < candidates.size(); i++) {
    const UpStreamRef& candidate = candidates[i];
    if (candidate) {
      candidate->SetSilent(true);
      candidate->AppendUpStream(TFileSimulator::Create());
      candidate->LinkDownStream(SenderIdFor(i), true);
    }
    upStreams.push_back(candidate);
  }
}

UpStreamRef TFormatDetector::GetSlot(uint32_t index) const {
  return index < upStreams.size() ? upStreams[index] : nullptr;
}

bool TFormatDetector::Alive(uint32_t index) const {
  UpStreamRef candidate = GetSlot(index);
  return candidate && candidate->IsValid();
}

void TFormatDetector::Drop(uint32_t index) {
  upStreams[index]->LinkDownStream(SenderIdFor(index), false);
  upStreams[index] = nullptr;
}

// Each candidate that still wants data gets the block; one that refuses it is dropped. A
// candidate that has recognised a bare stream ends the detection, unless a container parser is
// still in the race: a source that parses both ways is the container. False tells the source to
// stop reading: detection is over, or no candidate took the data.
bool TFormatDetector::Write(SenderId, bool isHeader, const uint8_t* data, uint32_t size,
                            int64_t position, bool flush) {
  if (!junkJudged && canRestart) {
    size_t keep = std::min<size_t>(size, kJunkSearchLimit + kJunkSearchReserve - front.size());
    front.insert(front.end(), data, data + keep);
  }
  bool result = Walk(isHeader, data, size, position, flush);
  if (!junkJudged && canRestart &&
      (!result || front.size() >= kJunkSearchLimit + kJunkSearchReserve) && LookPastJunk())
    result = Walk(false, front.data() + junkSkipped, uint32_t(front.size() - junkSkipped), -1, false);
  if (junkJudged) std::vector<uint8_t>().swap(front);
  return result;
}

// A container found behind junk wins over whatever was taken for a bare stream in front of it;
// a stream behind junk counts only where nothing at all was found.
bool TFormatDetector::LookPastJunk() {
  junkJudged = true;
  const uint64_t size = front.size();
  uint64_t start = kNoStart;
  if (!Alive(0) && !Alive(1)) start = FindTransportStreamStart(front.data(), size, kJunkSearchLimit);
  if (start == kNoStart || start == 0) {
    bool found = false;
    for (uint32_t i = 0; i < upStreams.size() && !found; i++)
      if (upStreams[i] && (upStreams[i]->AudioDetails()->IsValid() ||
                           upStreams[i]->VideoDetails()->IsValid() ||
                           upStreams[i]->ContainerDetails()->IsValid()))
        found = true;
    if (found) return false;
    start = FindAudioStreamStart(front.data(), size, kJunkSearchLimit);
    if (start == kNoStart || start == 0) return false;
  }
  junkSkipped = start;
  Log(1, "Skipped " + std::to_string(start) + " bytes of leading junk.");
  // Fresh candidates, told what the source told, as if the source began behind the junk.
  for (uint32_t i = 0; i < upStreams.size(); i++)
    if (upStreams[i]) Drop(i);
  TCandidateContext context;
  context.evoOption = evoOption;
  context.tsOption = tsOption;
  std::vector<UpStreamRef> candidates;
  for (const TCandidateSlot& slot : kCandidateSlots) {
    context.dtsWavReader = nullptr;
    candidates.push_back(slot.factory(context));
    if (slot.index == kDtsWavSlot) dtsWavReader = context.dtsWavReader;
  }
  dtsWavHead = dtsWavReader && candidates.size() > kDtsWavSlot ? candidates[kDtsWavSlot] : nullptr;
  SetCandidates(candidates);
  bytesSeen = 0;
  for (auto& candidate : upStreams)
    if (candidate) candidate->InitContainer(containerTag, containerSize, containerPlayTime);
  if (audioAnnounced)
    InitAudio("?", 1, 8, 48000, false, std::max<int64_t>(audioTotalSize - int64_t(start), 0));
  return true;
}

bool TFormatDetector::Walk(bool isHeader, const uint8_t* data, uint32_t size, int64_t position,
                           bool flush) {
  bool result = false;
  for (uint32_t i = 0; i < upStreams.size(); i++) {
    UpStreamRef candidate = upStreams[i];
    if (!candidate) continue;
    if (candidate->BlockSize() <= bytesSeen) continue;
    if (!candidate->Write(SenderIdFor(i), isHeader, data, size, position, flush)) {
      Drop(i);
      continue;
    }
    result = true;
    if (!candidate->AudioDetails()->IsValid() && !candidate->VideoDetails()->IsValid() &&
        !candidate->SubtitleDetails()->IsValid())
      continue;
    if (Alive(0) || Alive(1)) continue;
    result = false;
    break;
  }
  bytesSeen += size;
  return result;
}

bool TFormatDetector::InitAudio(const std::string& format, uint32_t channels,
                                uint32_t bitsPerSample, uint32_t sampleRate, bool bigEndian,
                                int64_t totalSize) {
  audioAnnounced = true;
  if (junkSkipped == 0) audioTotalSize = totalSize;
  if (dtsWavReader && dtsWavReader->IsValid())
    dtsWavReader->InitAudio(format, channels, bitsPerSample, sampleRate, bigEndian, totalSize);
  bool any = false;
  for (uint32_t i = 0; i < upStreams.size(); i++) {
    if (!upStreams[i]) continue;
    if (upStreams[i]->InitAudio(format, channels, bitsPerSample, sampleRate, bigEndian, totalSize))
      any = true;
    else
      Drop(i);
  }
  return (dtsWavReader && dtsWavReader->IsValid()) || any;
}

bool TFormatDetector::InitVideo(const std::string& format, bool interlaced, bool pulldown,
                                uint32_t width, uint32_t height, uint32_t aspectX,
                                uint32_t aspectY, uint32_t rateNumerator,
                                uint32_t rateDenominator, const std::string& description) {
  if (!valid) return false;
  for (auto& candidate : upStreams)
    if (candidate)
      candidate->InitVideo(format, interlaced, pulldown, width, height, aspectX, aspectY,
                           rateNumerator, rateDenominator, description);
  return valid;
}

bool TFormatDetector::InitSubtitle(const std::string& format) {
  if (!valid) return false;
  for (auto& candidate : upStreams)
    if (candidate) candidate->InitSubtitle(format);
  return valid;
}

bool TFormatDetector::InitContainer(const std::string& format, int64_t totalSize,
                                    int64_t playTime) {
  if (!valid) return false;
  containerTag = format;
  containerSize = totalSize;
  containerPlayTime = playTime;
  for (auto& candidate : upStreams)
    if (candidate) candidate->InitContainer(format, totalSize, playTime);
  return valid;
}

// The candidates still in the race finish their streams; their results don't count.
bool TFormatDetector::Finish() {
  if (!valid) return false;
  if (!junkJudged && canRestart && LookPastJunk()) {
    Walk(false, front.data() + junkSkipped, uint32_t(front.size() - junkSkipped), -1, false);
    std::vector<uint8_t>().swap(front);
  }
  for (auto& candidate : upStreams)
    if (candidate) candidate->Finish();
  return valid;
}

// A WAV file holding DTS is told apart from one holding PCM by the DTS reader behind the WAV
// reader: its details go out under the tag "dtswav", in the block of its chain's first stage.
std::shared_ptr<IAudioFormatDetails> TFormatDetector::AudioDetails() {
  if (dtsWavReader && dtsWavHead) {
    auto found = dtsWavReader->AudioDetails();
    if (found->IsValid()) {
      dtsWavHead->SetAudioDetails("dtswav", "DTSWAV", found->ChannelLayout(),
                                  found->ChannelOrder(), found->Duration(), found->Channels(),
                                  found->ChannelMask(), found->Bits(), found->SampleRate(),
                                  found->Bitrate(), found->Dialnorm(), found->Extra(),
                                  found->BigEndian());
      return dtsWavHead->AudioDetails();
    }
  }
  for (auto& candidate : upStreams)
    if (candidate && candidate->AudioDetails()->IsValid()) return candidate->AudioDetails();
  return TUpStream::AudioDetails();
}

std::shared_ptr<IVideoFormatDetails> TFormatDetector::VideoDetails() {
  for (auto& candidate : upStreams)
    if (candidate && candidate->VideoDetails()->IsValid()) return candidate->VideoDetails();
  return TUpStream::VideoDetails();
}

std::shared_ptr<ISubtitleFormatDetails> TFormatDetector::SubtitleDetails() {
  for (auto& candidate : upStreams)
    if (candidate && candidate->SubtitleDetails()->IsValid()) return candidate->SubtitleDetails();
  return TUpStream::SubtitleDetails();
}

std::shared_ptr<IContainerFormatDetails> TFormatDetector::ContainerDetails() {
  for (auto& candidate : upStreams)
    if (candidate && candidate->ContainerDetails()->IsValid())
      return candidate->ContainerDetails();
  return TUpStream::ContainerDetails();
}

}  // namespace sonvex
