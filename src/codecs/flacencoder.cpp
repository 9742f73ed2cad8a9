// TFlacEncoder. Samples are widened to 32 bits for libFLAC; 8-bit input is in WAV's offset form.
// The blocks libFLAC writes during init (the stream header) go out marked as header, so the
// destination may hold them back until audio follows.
#include "codecs/flacencoder.h"

#include "framework/smallstages.h"

namespace sonvex {
namespace {

FLAC__StreamEncoderWriteStatus WriteBytes(const FLAC__StreamEncoder*, const FLAC__byte buffer[],
                                          size_t bytes, uint32_t, uint32_t, void* client) {
  return FLAC__StreamEncoderWriteStatus(
      static_cast<TFlacEncoder*>(client)->WriteCallback(buffer, bytes));
}
FLAC__StreamEncoderSeekStatus Seek(const FLAC__StreamEncoder*, FLAC__uint64 offset,
                                   void* client) {
  return FLAC__StreamEncoderSeekStatus(static_cast<TFlacEncoder*>(client)->SeekCallback(offset));
}
FLAC__StreamEncoderTellStatus Tell(const FLAC__StreamEncoder*, FLAC__uint64* offset,
                                   void* client) {
  uint64_t value = 0;
  auto status = FLAC__StreamEncoderTellStatus(static_cast<TFlacEncoder*>(client)->TellCallback(&value));
  *offset = value;
  return status;
}

constexpr const char* kInitMessages[] = {
    nullptr,
    "General failure to set up FLAC encoder.",
    "The FLAC encoder was not compiled with support for the given container format.",
    "A required FLAC encoder callback was not supplied.",
    "The FLAC encoder has an invalid setting for number of channels.",
    "The FLAC encoder has an invalid setting for bits-per-sample.",
    "The FLAC encoder has an invalid setting for the input sample rate.",
    "The FLAC encoder has an invalid setting for the block size.",
    "The FLAC encoder has an invalid setting for the maximum LPC order.",
    "The FLAC encoder has an invalid setting for the precision of the quantized linear predictor "
    "coefficients.",
    "The FLAC encoder's block size is less than the maximum LPC order.",
    "The FLAC encoder settings are incorrect.",
    "The FLAC encoder metadata input is invalid.",
    "The FLAC encoder was initialized twice.",
};

// The seekable end behind a next stage: the stage itself or the end of its chain.
std::shared_ptr<ISeekableUpStream> SeekableOf(const UpStreamRef& up) {
  if (auto seekable = Query<ISeekableUpStream>(up)) return seekable;
  return Query<ISeekableUpStream>(up->LastStage());
}

}  // namespace

TFlacEncoder::TFlacEncoder(uint32_t compressionLevel, std::shared_ptr<IFlacDecoder> source)
    : compressionLevel(compressionLevel), source(std::move(source)) {}

TFlacEncoder::~TFlacEncoder() {
  if (encoder) {
    if (!finalised) {
      aborted = true;  // nothing more reaches the next stage from here
      FLAC__stream_encoder_finish(encoder);
    }
    FLAC__stream_encoder_delete(encoder);
  }
}

void TFlacEncoder::LogState(bool inFinish) {
  switch (FLAC__stream_encoder_get_state(encoder)) {
    case 1: Log(2, "The FLAC encoder was not initialized properly."); break;
    case 2: Log(2, "An error occurred in the FLAC encoder's ogg layer."); break;
    case 3: Log(2, "An error occurred in the FLAC encoder's verifyer."); break;
    case 4: Log(2, "The FLAC encoder's verifyer detected a data mismatch."); break;
    case 5: Log(2, "One of the FLAC encoder's callbacks returned a fatal error."); break;
    case 7: Log(2, "An error occurred while writing the FLAC stream."); break;
    case 8: Log(2, "The FLAC encoder couldn't allocate enough memory."); break;
    default:
      Log(2, inFinish ? "The FLAC encoder finalization failed." : "The FLAC encoding failed.");
  }
}

bool TFlacEncoder::InitAudio(const std::string& format, uint32_t inChannels, uint32_t bits,
                             uint32_t rate, bool bigEndian, int64_t totalSize) {
  if (!valid) return false;
  if (!CheckUpStreams("FLAC encoder")) return false;
  if (format != "pcm" || inChannels < 1 || inChannels > 8 || bigEndian ||
      (bits != 8 && bits != 16 && bits != 24))
    return Fail("The FLAC encoder received a non-supported data format.");
  if (encoder) return Fail("The FLAC encoder was initialized twice.");
  if (!NotifyAudio("flac", inChannels, bits, rate, bigEndian, totalSize)) {
    valid = false;
    return false;
  }
  Log(0, "Encoding FLAC...");
  channels = inChannels;
  sampleRate = rate;
  bytesPerSample = bits / 8;
  encoder = FLAC__stream_encoder_new();
  if (!encoder) return Fail("Creating the FLAC encoder instance failed.");
  bool ok = FLAC__stream_encoder_set_channels(encoder, channels) &&
            FLAC__stream_encoder_set_bits_per_sample(encoder, bits) &&
            FLAC__stream_encoder_set_metadata(encoder, nullptr, 0) &&
            FLAC__stream_encoder_set_compression_level(encoder, compressionLevel) &&
            FLAC__stream_encoder_set_sample_rate(encoder, rate) &&
            FLAC__stream_encoder_set_verify(encoder, true);
  if (ok && sizeContest)
    ok = FLAC__stream_encoder_set_max_lpc_order(encoder, 0) &&
         FLAC__stream_encoder_set_verify(encoder, false);
  if (ok && totalSize > 0)
    ok = FLAC__stream_encoder_set_total_samples_estimate(encoder, uint64_t(totalSize));
  auto decoder = source.lock();
  if (ok && !metadataTaken && decoder) {
    metadataTaken = true;
    auto& blocks = decoder->Metadata();
    if (!blocks.empty())
      ok = FLAC__stream_encoder_set_metadata(
          encoder, const_cast<FLAC__StreamMetadata**>(blocks.data()), uint32_t(blocks.size()));
  }
  if (!ok) return Fail("Initializing the FLAC encoder failed.");
  FLAC__StreamEncoderInitStatus status =
      FLAC__stream_encoder_init_stream(encoder, WriteBytes, Seek, Tell, nullptr, this);
  headerDone = true;
  if (status != FLAC__STREAM_ENCODER_INIT_STATUS_OK) {
    if (status == FLAC__STREAM_ENCODER_INIT_STATUS_ENCODER_ERROR) {
      LogState(false);
      valid = false;
      return false;
    }
    uint32_t index = uint32_t(status);
    return Fail(index < std::size(kInitMessages) && kInitMessages[index]
                    ? kInitMessages[index]
                    : "The FLAC encoder initialization failed.");
  }
  formatReceived = true;
  return !aborted;
}

int TFlacEncoder::WriteCallback(const uint8_t* buffer, size_t bytes) {
  if (aborted || !valid) return FLAC__STREAM_ENCODER_WRITE_STATUS_FATAL_ERROR;
  if (!Send(!headerDone, buffer, uint32_t(bytes), -1, false)) {
    aborted = true;
    return FLAC__STREAM_ENCODER_WRITE_STATUS_FATAL_ERROR;
  }
  return FLAC__STREAM_ENCODER_WRITE_STATUS_OK;
}

int TFlacEncoder::SeekCallback(uint64_t offset) {
  // A seek reaches the files directly: the blocks still gathered for them go first.
  if (!valid || aborted || !HandOverBatches()) return FLAC__STREAM_ENCODER_SEEK_STATUS_ERROR;
  for (auto& up : upStreams) {
    auto seekable = SeekableOf(up);
    if (!seekable) return FLAC__STREAM_ENCODER_SEEK_STATUS_UNSUPPORTED;
    seekable->Seek(int64_t(offset));
    if (seekable->Position() != int64_t(offset)) return FLAC__STREAM_ENCODER_SEEK_STATUS_UNSUPPORTED;
  }
  return FLAC__STREAM_ENCODER_SEEK_STATUS_OK;
}

int TFlacEncoder::TellCallback(uint64_t* offset) {
  if (!valid || aborted || !HandOverBatches()) return FLAC__STREAM_ENCODER_TELL_STATUS_ERROR;
  for (auto& up : upStreams) {
    auto seekable = SeekableOf(up);
    if (!seekable) return FLAC__STREAM_ENCODER_TELL_STATUS_UNSUPPORTED;
    *offset = uint64_t(seekable->Position());
  }
  return FLAC__STREAM_ENCODER_TELL_STATUS_OK;
}

bool TFlacEncoder::Write(SenderId, bool, const uint8_t* data, uint32_t size, int64_t, bool) {
  if (!valid || aborted) return false;
  if (!formatReceived) return Fail("The FLAC encoder didn't receive the format information.");
  if (!StoreData(0, data, size))
    return Fail("The FLAC encoder was not able to allocate enough memory.");
  const uint32_t frames = BufferFill(0) / channels / bytesPerSample;
  if (frames == 0) return true;
  const uint32_t count = frames * channels;
  if (!ReserveBuffer(1, count * 4))
    return Fail("The FLAC encoder was not able to allocate enough memory.");
  const uint8_t* in = BufferData(0);
  int32_t* wide = reinterpret_cast<int32_t*>(BufferData(1));
  if (bytesPerSample == 1) {
    for (uint32_t i = 0; i < count; i++) wide[i] = int32_t(in[i]) - 128;
  } else if (bytesPerSample == 2) {
    for (uint32_t i = 0; i < count; i++, in += 2) wide[i] = int16_t(uint16_t(in[0] | in[1] << 8));
  } else {
    for (uint32_t i = 0; i < count; i++, in += 3)
      wide[i] = int32_t(uint32_t(in[0]) << 8 | uint32_t(in[1]) << 16 | uint32_t(in[2]) << 24) >> 8;
  }
  bool ok;
  try {
    ok = FLAC__stream_encoder_process_interleaved(encoder, wide, frames);
  } catch (...) {
    aborted = true;
    return Fail("The FLAC encoder crashed.");
  }
  if (!ok) {
    aborted = true;
    LogState(false);
    valid = false;
    return false;
  }
  RemoveData(0, frames * channels * bytesPerSample);
  return true;
}

bool TFlacEncoder::Finish() {
  if (!valid || aborted) return false;
  if (!formatReceived) return Fail("The FLAC encoder didn't receive the format information.");
  finalised = true;
  if (!FLAC__stream_encoder_finish(encoder)) {
    LogState(true);
    valid = false;
    return false;
  }
  return FinishUpStreams();
}

}  // namespace sonvex
