// TFlacDecoder. The pushing thread gathers the blocks it gets and hands about 1 MiB at a time over
// (inputReady); it gathers the next while libFLAC's read callback takes them, and waits for
// inputUsed only before the next hand-over. Everything behind the decoder runs on its thread.
#include "codecs/flacdecoder.h"

#include <FLAC/metadata.h>
#include <FLAC/stream_decoder.h>

#include <chrono>
#include <cstring>

namespace sonvex {
namespace {

FLAC__StreamDecoderReadStatus Read(const FLAC__StreamDecoder*, FLAC__byte buffer[], size_t* bytes,
                                   void* client) {
  return FLAC__StreamDecoderReadStatus(static_cast<TFlacDecoder*>(client)->ReadCallback(buffer, bytes));
}
FLAC__StreamDecoderWriteStatus WriteFrame(const FLAC__StreamDecoder*, const FLAC__Frame* frame,
                                          const FLAC__int32* const buffer[], void* client) {
  return FLAC__StreamDecoderWriteStatus(
      static_cast<TFlacDecoder*>(client)->WriteCallback(frame, buffer));
}
void MetadataBlock(const FLAC__StreamDecoder*, const FLAC__StreamMetadata* block, void* client) {
  static_cast<TFlacDecoder*>(client)->MetadataCallback(block);
}
void Error(const FLAC__StreamDecoder*, FLAC__StreamDecoderErrorStatus status, void* client) {
  static_cast<TFlacDecoder*>(client)->ErrorCallback(int(status));
}

constexpr std::chrono::milliseconds kThreadWait{1000};
constexpr size_t kHandOverBytes = 1 << 20;

}  // namespace

TFlacDecoder::TFlacDecoder() {
  decoder = FLAC__stream_decoder_new();
  if (!decoder) {
    Fail("Creating the FLAC decoder instance failed.");
    return;
  }
  try {
    thread = std::thread([this] { Run(); });
  } catch (...) {
    Fail("Creating the FLAC decoder thread failed.");
  }
}

void TFlacDecoder::StopThread() {
  finishing = true;
  inputReady.Set();
  inputUsed.Set();
  if (thread.joinable()) {
    // The thread waits only on inputReady, which stays set: it must end now.
    threadDone.WaitFor(kThreadWait);
    thread.join();
  }
}

TFlacDecoder::~TFlacDecoder() {
  StopThread();
  if (decoder) {
    if (!finalised) FLAC__stream_decoder_finish(decoder);
    FLAC__stream_decoder_delete(decoder);
  }
  for (auto* block : metadata) FLAC__metadata_object_delete(block);
}

void TFlacDecoder::Run() {
  FLAC__stream_decoder_set_metadata_respond_all(decoder);
  FLAC__StreamDecoderInitStatus status = FLAC__stream_decoder_init_stream(
      decoder, Read, nullptr, nullptr, nullptr, nullptr, WriteFrame, MetadataBlock, Error, this);
  if (status != FLAC__STREAM_DECODER_INIT_STATUS_OK) {
    switch (status) {
      case FLAC__STREAM_DECODER_INIT_STATUS_UNSUPPORTED_CONTAINER:
        Log(2, "The FLAC decoder was not compiled with support for the given container format.");
        break;
      case FLAC__STREAM_DECODER_INIT_STATUS_INVALID_CALLBACKS:
        Log(2, "A required callback for the FLAC decoder was not supplied.");
        break;
      case FLAC__STREAM_DECODER_INIT_STATUS_MEMORY_ALLOCATION_ERROR:
        Log(2, "An error occurred during allocating memory for the FLAC decoder.");
        break;
      default:
        Log(2, "The FLAC decoder initialization failed.");
    }
    aborted = true;
  } else {
    FLAC__stream_decoder_process_until_end_of_metadata(decoder);
    if (!aborted && channels && !finishing) {
      uint32_t duration = sampleRate ? uint32_t(totalSamples * 1000 / sampleRate) : 0;
      SetAudioDetails("flac", "FLAC", "", "", duration, channels, 0, bytesPerSample * 8,
                      sampleRate, 0, 0, 0, false);
      if (NotifyAudio("pcm", channels, bytesPerSample * 8, sampleRate, false,
                      int64_t(totalSamples))) {
        streaming = true;
        FLAC__stream_decoder_process_until_end_of_stream(decoder);
      } else
        aborted = true;
    } else if (!finishing) {
      aborted = true;
    }
  }
  // threadDone goes first: a Write that clears inputUsed after this point sees it, and one that
  // cleared it before gets the signal below.
  threadDone.Set();
  inputUsed.Set();
  if (aborted) inputReady.Set();
}

int TFlacDecoder::ReadCallback(uint8_t* buffer, size_t* bytes) {
  while (!finishing && inputSize == 0) {
    inputUsed.Set();
    inputReady.Wait();
    inputReady.Reset();
  }
  if (finishing && inputSize == 0) {
    *bytes = 0;
    return FLAC__STREAM_DECODER_READ_STATUS_ABORT;
  }
  size_t take = std::min<size_t>(*bytes, inputSize);
  std::memcpy(buffer, input, take);
  input += take;
  inputSize -= uint32_t(take);
  *bytes = take;
  return FLAC__STREAM_DECODER_READ_STATUS_CONTINUE;
}

void TFlacDecoder::MetadataCallback(const FLAC__StreamMetadata* block) {
  if (block->type == FLAC__METADATA_TYPE_STREAMINFO) {
    const auto& info = block->data.stream_info;
    sampleRate = info.sample_rate;
    channels = info.channels;
    bytesPerSample = info.bits_per_sample / 8;
    totalSamples = info.total_samples;
    metadataSeen = true;
    Log(0, "Decoding FLAC...");
  } else if (FLAC__StreamMetadata* copy = FLAC__metadata_object_clone(block)) {
    metadata.push_back(copy);
  }
}

int TFlacDecoder::WriteCallback(const FLAC__Frame* frame, const int32_t* const* channelData) {
  try {
    if (!metadataSeen || bytesPerSample == 0 || bytesPerSample > 3) {
      Log(2, "The FLAC decoder didn't find the metadata.");
      aborted = true;
      return FLAC__STREAM_DECODER_WRITE_STATUS_ABORT;
    }
    const uint32_t blockSize = frame->header.blocksize;
    const uint32_t frameChannels = std::min(frame->header.channels, channels);
    const uint32_t bytes = bytesPerSample;
    uint64_t size = uint64_t(blockSize) * channels * bytes;
    if (!ReserveBuffer(0, uint32_t(size))) {
      Log(2, "The FLAC decoder was not able to allocate enough memory.");
      aborted = true;
      return FLAC__STREAM_DECODER_WRITE_STATUS_ABORT;
    }
    uint8_t* out = BufferData(0);
    std::memset(out, 0, size);
    for (uint32_t c = 0; c < frameChannels; c++) {
      const int32_t* in = channelData[c];
      uint8_t* o = out + c * bytes;
      const uint32_t step = channels * bytes;
      if (bytes == 1) {
        for (uint32_t i = 0; i < blockSize; i++, o += step) o[0] = uint8_t(in[i] + 128);
      } else if (bytes == 2) {
        for (uint32_t i = 0; i < blockSize; i++, o += step) {
          o[0] = uint8_t(in[i]);
          o[1] = uint8_t(in[i] >> 8);
        }
      } else {
        for (uint32_t i = 0; i < blockSize; i++, o += step) {
          o[0] = uint8_t(in[i]);
          o[1] = uint8_t(in[i] >> 8);
          o[2] = uint8_t(in[i] >> 16);
        }
      }
    }
    if (!Send(false, out, uint32_t(size), -1, false)) {
      aborted = true;
      return FLAC__STREAM_DECODER_WRITE_STATUS_ABORT;
    }
    return FLAC__STREAM_DECODER_WRITE_STATUS_CONTINUE;
  } catch (...) {
    Log(2, "The FLAC decoding crashed.");
    aborted = true;
    return FLAC__STREAM_DECODER_WRITE_STATUS_ABORT;
  }
}

void TFlacDecoder::ErrorCallback(int status) {
  if (finishing || aborted) return;
  aborted = true;
  switch (status) {
    case 0: Log(2, "An error in the stream caused the FLAC decoder to lose synchronization."); break;
    case 1: Log(2, "The FLAC decoder encountered a corrupted frame header."); break;
    case 2: Log(2, "The frame's data did not match the CRC in the footer."); break;
    case 3: Log(2, "The decoder encountered reserved fields in use in the stream."); break;
    default: Log(2, "The FLAC decoder reported an unknown error.");
  }
}

bool TFlacDecoder::InitAudio(const std::string& format, uint32_t, uint32_t, uint32_t, bool,
                             int64_t) {
  if (!valid) return false;
  if (!CheckUpStreams("FLAC decoder")) return false;
  if (format != "?" && format != "flac")
    return Fail("The FLAC decoder received a non-supported data format.");
  return true;
}

bool TFlacDecoder::Write(SenderId, bool, const uint8_t* data, uint32_t size, int64_t, bool) {
  if (valid && !finishing && !aborted && size != 0) {
    pending.insert(pending.end(), data, data + size);
    // Until the metadata is through, each block is handed over and taken before Write returns,
    // so that the format is known (format detection asks at once); then 1 MiB at a time.
    const bool known = streaming;
    if (!known || pending.size() >= kHandOverBytes) HandOverInput();
    if (!known) HandOverInput();
  }
  return !aborted;
}

// Waits until the thread has taken all of the last hand-over (or has ended), then gives it what
// has gathered. The thread sets inputUsed whenever it waits for input, so once that is seen it
// touches neither `input` nor `inputSize` until inputReady.
void TFlacDecoder::HandOverInput() {
  if (!handing && pending.empty()) return;
  inputUsed.Wait();
  handing = false;
  input = nullptr;
  inputSize = 0;
  if (pending.empty()) return;
  if (threadDone.IsSet()) {
    pending.clear();
    return;
  }
  handed.swap(pending);
  pending.clear();
  input = handed.data();
  inputSize = uint32_t(handed.size());
  handing = true;
  inputUsed.Reset();
  inputReady.Set();
}

bool TFlacDecoder::Finish() {
  // The last gathered bytes go over, and the thread takes all of them, before it is told to end.
  if (valid && !aborted) {
    HandOverInput();
    HandOverInput();
  }
  finishing = true;
  inputReady.Set();
  inputUsed.Set();
  if (!valid || aborted) return false;
  if (!threadDone.WaitFor(kThreadWait)) {
    Log(2, "The FLAC decoder thread seems to hang.");
    valid = false;
    return false;
  }
  if (thread.joinable()) thread.join();
  finalised = true;
  if (!FLAC__stream_decoder_finish(decoder)) {
    Log(2, "Finalizing the FLAC decoder failed.");
    valid = false;
    return false;
  }
  return FinishUpStreams();
}

}  // namespace sonvex
