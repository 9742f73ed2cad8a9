// The stage core: linking, the Notify walk, the parallel Send, delays, silence and buffers.
#include "framework/upstream.h"

#include <algorithm>
#include <cstring>

#include "framework/console.h"

namespace sonvex {

TUpStream::TUpStream() = default;

namespace {

// A batch goes to the workers when it holds this many bytes or this many blocks, whichever comes
// first: about one thread switch per MiB, and a bound on the bookkeeping for tiny frames.
constexpr size_t kBatchBytes = 1 << 20;
constexpr size_t kBatchBlocks = 4096;

}  // namespace

TUpStream::~TUpStream() {
  if (!fanOut.empty()) {
    WaitForWorkers();
    stopWorkers = true;
    for (auto& record : fanOut) record->wakeEvent.Set();
    for (auto& record : fanOut)
      if (record->thread.joinable()) record->thread.join();
  }
}

// Send with fewer than two upstreams runs on the caller's thread. With two or more, the block is
// copied into the batch being filled, together with its position and flush flag, and Send
// returns: the block belongs to the sender again. A full batch, and one that ends with a flush,
// is handed to the workers (HandOverBatch) while the next one fills. Each upstream has a worker
// thread that writes the blocks of a batch to it in order, so every upstream sees exactly the
// calls it would have seen one block at a time. On this path `isHeader` reaches the upstreams as
// false. A non-optional upstream that fails sets branchFailed; the next Send returns false.
bool TUpStream::Send(bool isHeader, const uint8_t* data, uint32_t size, int64_t position,
                     bool flush) {
  if (upStreams.size() < 2) {
    if (upStreams.empty()) return false;
    const UpStreamRef& up = upStreams[0];
    if (!up->Write(SenderIdFor(0), isHeader, data, size, position, flush) && !up->IsOptional())
      return false;
    return true;
  }
  if (branchFailed.load(std::memory_order_acquire)) return false;
  FanOutBatch& batch = batches[fillBatch];
  batch.entries.push_back({batch.bytes.size(), size, position, flush});
  if (size) batch.bytes.insert(batch.bytes.end(), data, data + size);
  if (flush || batch.bytes.size() >= kBatchBytes || batch.entries.size() >= kBatchBlocks)
    return HandOverBatch();
  return true;
}

// Waits until the workers are done with the batch they have, then gives them the one that was
// filling. Workers are created on the first hand-over and live as long as the stage.
bool TUpStream::HandOverBatch() {
  WaitForWorkers();
  if (branchFailed.load(std::memory_order_acquire)) return false;
  if (batches[fillBatch].entries.empty()) return true;
  fillBatch ^= 1;
  FanOutBatch& next = batches[fillBatch];
  next.bytes.clear();
  next.entries.clear();
  if (next.bytes.capacity() == 0) next.bytes.reserve(kBatchBytes + (kBatchBytes >> 2));
  workersBusy = true;
  if (fanOut.empty()) {
    for (uint32_t i = 0; i < upStreams.size(); i++) {
      auto record = std::make_unique<FanOutRecord>();
      record->owner = this;
      record->index = i;
      fanOut.push_back(std::move(record));
    }
    for (auto& record : fanOut) record->thread = std::thread(FanOutWorker, record.get());
  }
  for (auto& record : fanOut) record->wakeEvent.Set();
  return true;
}

void TUpStream::WaitForWorkers() {
  if (!workersBusy) return;
  for (auto& record : fanOut) {
    record->doneEvent.Wait();
    record->doneEvent.Reset();
  }
  workersBusy = false;
}

bool TUpStream::HandOverBatches() {
  if (fanOut.empty() && batches[fillBatch].entries.empty())
    return !branchFailed.load(std::memory_order_acquire);
  HandOverBatch();
  WaitForWorkers();
  return !branchFailed.load(std::memory_order_acquire);
}

// The worker of one upstream: writes every block of the handed batch, in order. Once a
// non-optional upstream has failed, the pass is lost: the rest of the batch is skipped.
void TUpStream::FanOutWorker(FanOutRecord* record) {
  TUpStream* owner = record->owner;
  while (true) {
    record->wakeEvent.Wait();
    record->wakeEvent.Reset();
    if (owner->stopWorkers) return;
    const FanOutBatch& batch = owner->batches[owner->fillBatch ^ 1];
    if (record->index < owner->upStreams.size()) {
      const UpStreamRef& up = owner->upStreams[record->index];
      const SenderId id = owner->SenderIdFor(record->index);
      for (const FanOutBatch::Entry& entry : batch.entries) {
        if (owner->branchFailed.load(std::memory_order_relaxed)) break;
        const uint8_t* data = entry.size ? batch.bytes.data() + entry.offset : nullptr;
        if (!up->Write(id, false, data, entry.size, entry.position, entry.flush) &&
            !up->IsOptional())
          owner->branchFailed.store(true, std::memory_order_release);
      }
    }
    record->doneEvent.Set();
  }
}

void TUpStream::LinkDownStream(SenderId id, bool add) {
  if (add) {
    downStreams.push_back(id);
  } else {
    for (size_t i = downStreams.size(); i-- > 0;)
      if (downStreams[i] == id) downStreams.erase(downStreams.begin() + long(i));
  }
}

bool TUpStream::SetDelay(int32_t index, int32_t milliseconds) {
  if (!valid) return false;
  if (index < 0) return valid;
  if (delays.size() <= size_t(index)) delays.resize(size_t(index) + 1, 0);
  delays[size_t(index)] = milliseconds;
  BroadcastDelay(index, milliseconds);
  return valid;
}

int32_t TUpStream::DelaySum() const {
  int32_t sum = 0;
  for (int32_t d : delays) sum += d;
  return sum;
}

bool TUpStream::Finish() {
  if (!valid) return false;
  return FinishUpStreams();
}

void TUpStream::NotifySeam(bool before, int64_t jump) {
  if (valid) BroadcastSeam(before, jump);
}

UpStreamRef TUpStream::GetUpStream(int32_t index) const {
  if (index < 0 || size_t(index) >= upStreams.size()) return nullptr;
  return upStreams[size_t(index)];
}

UpStreamRef TUpStream::UpStream() const { return upStreams.size() == 1 ? upStreams[0] : nullptr; }

// Nil entries leave no hole; the id registered with an upstream comes from its position in the
// list given, the id of Write from its position in upStreams (the same when there is no nil).
// Silence, log prefix and delays set earlier are replayed to the new upstreams.
void TUpStream::SetUpStreams(const std::vector<UpStreamRef>& list) {
  if (!valid) return;
  HandOverBatches();
  for (size_t i = 0; i < upStreams.size(); i++)
    if (upStreams[i]) upStreams[i]->LinkDownStream(SenderIdFor(uint32_t(i)), false);
  upStreams.clear();
  for (size_t i = 0; i < list.size(); i++) {
    const UpStreamRef& stage = list[i];
    if (!stage) continue;
    upStreams.push_back(stage);
    stage->LinkDownStream(SenderIdFor(uint32_t(i)), true);
    if (silentRecursive) stage->SetSilent(true);
    if (!logPrefix.empty()) stage->SetLogPrefix(logPrefix);
    if (!keepsDelay)
      for (size_t k = 0; k < delays.size(); k++) stage->SetDelay(int32_t(k), delays[k]);
  }
}

UpStreamRef TUpStream::LastStage() {
  UpStreamRef stage = shared_from_this();
  while (stage->UpStreamCount() >= 1) stage = stage->GetUpStream(0);
  return stage;
}

bool TUpStream::AppendUpStream(const UpStreamRef& stage) {
  UpStreamRef last = LastStage();
  if (!last->IsValid() || last->UpStreamCount() != 0) return false;
  last->SetUpStream(stage);
  return true;
}

bool TUpStream::AppendUpStreams(const std::vector<UpStreamRef>& list) {
  UpStreamRef last = LastStage();
  if (!last->IsValid() || last->UpStreamCount() != 0) return false;
  last->SetUpStreams(list);
  return true;
}

void TUpStream::Log(int level, const std::string& text, bool force) {
  if (silent && !(force && !optional)) return;
  if (logPrefix.empty())
    WriteLine(level, text);
  else
    WriteLine(level, "[" + logPrefix + "] " + text);
}

void TUpStream::SetSilent(bool recursive) {
  silent = true;
  silentRecursive = recursive;
  if (recursive)
    for (auto& up : upStreams)
      if (up) up->SetSilent(true);
}

void TUpStream::SetLogPrefix(const std::string& text) {
  logPrefix = text;
  for (auto& up : upStreams)
    if (up) up->SetLogPrefix(text);
}

void TUpStream::SetOptional(bool value) {
  optional = value;
  for (auto& up : upStreams)
    if (up) up->SetOptional(value);
}

// One rule for the Notify walk and FinishUpStreams: true only if there is an upstream; a nil entry
// ends the walk with false; a failing upstream ends it with false unless it is optional.
template <class Call>
bool TUpStream::NotifyAll(Call call) {
  // The blocks still gathered for the workers reach the upstreams first; after a failed branch
  // the pass is over and nobody is told more.
  if (!HandOverBatches()) return false;
  bool result = !upStreams.empty();
  for (auto& up : upStreams) {
    if (!up) return false;
    if (!call(*up) && !up->IsOptional()) return false;
  }
  return result;
}

bool TUpStream::NotifyAudio(const std::string& format, uint32_t channels, uint32_t bitsPerSample,
                            uint32_t sampleRate, bool bigEndian, int64_t totalSize) {
  return NotifyAll([&](IUpStream& up) {
    return up.InitAudio(format, channels, bitsPerSample, sampleRate, bigEndian, totalSize);
  });
}

bool TUpStream::NotifyVideo(const std::string& format, bool interlaced, bool pulldown,
                            uint32_t width, uint32_t height, uint32_t aspectX, uint32_t aspectY,
                            uint32_t rateNumerator, uint32_t rateDenominator,
                            const std::string& description) {
  return NotifyAll([&](IUpStream& up) {
    return up.InitVideo(format, interlaced, pulldown, width, height, aspectX, aspectY,
                        rateNumerator, rateDenominator, description);
  });
}

bool TUpStream::NotifySubtitle(const std::string& format) {
  return NotifyAll([&](IUpStream& up) { return up.InitSubtitle(format); });
}

bool TUpStream::NotifyContainer(const std::string& format, int64_t totalSize, int64_t playTime) {
  return NotifyAll([&](IUpStream& up) { return up.InitContainer(format, totalSize, playTime); });
}

bool TUpStream::FinishUpStreams() {
  return NotifyAll([](IUpStream& up) { return up.Finish(); });
}

void TUpStream::BroadcastDelay(int32_t index, int32_t milliseconds) {
  if (keepsDelay) return;
  HandOverBatches();
  for (auto& up : upStreams) {
    if (!up) return;
    up->SetDelay(index, milliseconds);
  }
}

void TUpStream::BroadcastSeam(bool before, int64_t jump) {
  HandOverBatches();
  for (auto& up : upStreams)
    if (up) up->NotifySeam(before, jump);
}

bool TUpStream::Fail(const std::string& text) {
  valid = false;
  Log(2, text);
  return false;
}

bool TUpStream::CheckUpStreams(const std::string& stageName) {
  if (!upStreams.empty()) return true;
  return Fail("The " + stageName + " upstream property is not set.");
}

void TUpStream::SetAudioDetails(const std::string& format, const std::string& name,
                                const std::string& channelLayout, const std::string& channelOrder,
                                uint32_t duration, uint32_t channels, uint32_t channelMask,
                                uint32_t bits, uint32_t sampleRate, uint32_t bitrate,
                                int32_t dialnorm, uint32_t extra, bool bigEndian) {
  audio.audioValid = true;
  audio.format = format;
  audio.name = name;
  audio.channelLayout = channelLayout.empty() ? DefaultChannelLayout(channels) : channelLayout;
  audio.channelOrder = channelOrder;
  audio.duration = duration;
  audio.channels = channels;
  audio.channelMask = channelMask == 0 ? DefaultChannelMask(channels) : channelMask;
  audio.bits = bits;
  audio.sampleRate = sampleRate;
  audio.bitrate = bitrate;
  audio.dialnorm = dialnorm;
  audio.extra = extra;
  audio.bigEndian = bigEndian;
  audio.description = BuildAudioDescription(audio);
}

void TUpStream::SetVideoDetails(const std::string& format, const std::string& name,
                                bool interlaced, bool pulldown, uint32_t width, uint32_t height,
                                uint32_t aspectX, uint32_t aspectY, uint32_t rateNumerator,
                                uint32_t rateDenominator) {
  video.videoValid = true;
  video.format = format;
  video.name = name;
  video.interlaced = interlaced;
  video.pulldown = pulldown;
  video.width = width;
  video.height = height;
  video.aspectX = aspectX;
  video.aspectY = aspectY;
  video.rateNumerator = rateNumerator;
  video.rateDenominator = rateDenominator;
  video.description = BuildVideoDescription(video);
}

void TUpStream::SetSubtitleDetails(const std::string& format, const std::string& name) {
  subtitle.subtitleValid = true;
  subtitle.format = format;
  subtitle.name = name;
  subtitle.description = name;
}

void TUpStream::SetContainerDetails(const std::string& format, const std::string& name,
                                    uint32_t duration) {
  container.containerValid = true;
  container.format = format;
  container.name = name;
  container.duration = duration;
}

void TUpStream::AddVideoTrack(int32_t id, const UpStreamRef& details, int32_t delay) {
  container.AddTrack(container.video, id, details, delay);
}
void TUpStream::AddAudioTrack(int32_t id, const UpStreamRef& details, int32_t delay) {
  container.AddTrack(container.audio, id, details, delay);
}
void TUpStream::AddSubtitleTrack(int32_t id, const UpStreamRef& details, int32_t delay) {
  container.AddTrack(container.subtitle, id, details, delay);
}

// The blocks are members of the stage; the references share the stage's ownership.
std::shared_ptr<IAudioFormatDetails> TUpStream::AudioDetails() {
  return std::shared_ptr<IAudioFormatDetails>(shared_from_this(), &audio);
}
std::shared_ptr<IVideoFormatDetails> TUpStream::VideoDetails() {
  return std::shared_ptr<IVideoFormatDetails>(shared_from_this(), &video);
}
std::shared_ptr<ISubtitleFormatDetails> TUpStream::SubtitleDetails() {
  return std::shared_ptr<ISubtitleFormatDetails>(shared_from_this(), &subtitle);
}
std::shared_ptr<IContainerFormatDetails> TUpStream::ContainerDetails() {
  return std::shared_ptr<IContainerFormatDetails>(shared_from_this(), &container);
}

uint8_t* TUpStream::BufferData(uint32_t n) {
  return n < buffers.size() ? buffers[n].address.get() : nullptr;
}

uint32_t TUpStream::BufferFill(uint32_t n) const { return n < buffers.size() ? buffers[n].fill : 0; }

uint32_t TUpStream::BufferCapacity(uint32_t n) const {
  return n < buffers.size() ? buffers[n].capacity : 0;
}

void TUpStream::SetBufferFill(uint32_t n, uint32_t fill) {
  if (n < buffers.size()) buffers[n].fill = std::min(fill, buffers[n].capacity);
}

// Capacity is twice the size asked for, so a stage that appends block after block does not
// reallocate each time; a size of 0 stands for 32768.
bool TUpStream::ReserveBuffer(uint32_t n, uint32_t size) {
  if (!valid) return false;
  if (n < buffers.size() && size <= buffers[n].capacity) return buffers[n].address != nullptr;
  if (n >= buffers.size()) buffers.resize(size_t(n) + 1);
  if (size == 0) size = 32768;
  uint64_t capacity = uint64_t(size) * 2;
  if (capacity > 0xFFFFFFFFull) capacity = 0xFFFFFFFFull;
  Buffer& buffer = buffers[n];
  std::unique_ptr<uint8_t[]> memory(new (std::nothrow) uint8_t[capacity]);
  if (!memory) return false;
  if (buffer.address && buffer.fill) std::memcpy(memory.get(), buffer.address.get(), buffer.fill);
  buffer.address = std::move(memory);
  buffer.capacity = uint32_t(capacity);
  return true;
}

bool TUpStream::StoreData(uint32_t n, const uint8_t* data, uint32_t size) {
  bool exists = n < buffers.size() && buffers[n].address;
  uint64_t wanted = exists ? uint64_t(buffers[n].fill) + size : size;
  bool ok = wanted <= 0xFFFFFFFFull && ReserveBuffer(n, uint32_t(wanted));
  if (!ok || size == 0) return ok;
  Buffer& buffer = buffers[n];
  std::memcpy(buffer.address.get() + buffer.fill, data, size);
  buffer.fill += size;
  return true;
}

void TUpStream::RemoveData(uint32_t n, uint32_t count) {
  if (n >= buffers.size()) return;
  Buffer& buffer = buffers[n];
  count = std::min(count, buffer.fill);
  if (count == 0) return;
  buffer.fill -= count;
  if (buffer.fill) std::memmove(buffer.address.get(), buffer.address.get() + count, buffer.fill);
}

void TUpStream::FreeBuffer(uint32_t n) {
  if (n >= buffers.size()) return;
  buffers[n] = Buffer{};
}

}  // namespace sonvex
