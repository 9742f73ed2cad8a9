// TPushVideoSource: video samples into a Matroska file through libavformat.
#include "mux/pushvideosource.h"

#include <algorithm>
#include <climits>
#include <cstring>
#include <filesystem>

extern "C" {
#include <libavformat/avformat.h>
#include <libavutil/mathematics.h>
}

namespace sonvex {

namespace {
// Frames whose presentation time may lie ahead of a later frame's (B-frame reordering).
constexpr size_t kReorderDepth = 16;
// Blocks in a row without a sync point after which the stream can't be muxed usefully.
constexpr uint32_t kSyncLimit = 999;
constexpr AVRational kTicks = {1, 10000000};
constexpr const char* kNoFormat = "The DirectShow muxer received a non-supported data format.";
constexpr const char* kNotAccepted = "The Haali Matroska Muxer didn't accept the video stream.";
}  // namespace

std::shared_ptr<TPushVideoSource> TPushVideoSource::Create(const std::string& destination,
                                                           CreatedHook noteCreated) {
  return std::make_shared<TPushVideoSource>(destination, noteCreated);
}

TPushVideoSource::TPushVideoSource(const std::string& destination, CreatedHook noteCreated)
    : destination(destination), noteCreated(noteCreated) {
  std::error_code error;
  std::filesystem::path folder = std::filesystem::path(destination).parent_path();
  if (!folder.empty()) std::filesystem::create_directories(folder, error);
}

TPushVideoSource::~TPushVideoSource() { Close(); }

void TPushVideoSource::Close() {
  for (AVPacket* packet : pending) av_packet_free(&packet);
  pending.clear();
  if (context) {
    if (context->pb) avio_closep(&context->pb);
    avformat_free_context(context);
    context = nullptr;
    stream = nullptr;
  }
}

uint32_t TPushVideoSource::AverageTimePerFrame(uint32_t rateNumerator,
                                               uint32_t rateDenominator) {
  uint64_t d = rateNumerator / 1000;
  if (d == 0) return 0;
  return uint32_t((uint64_t(rateDenominator) * 10000 + d / 2) / d);
}

std::string TPushVideoSource::AvcConfiguration(const std::string& headers) {
  std::string sps, pps;
  size_t spsCount = 0, ppsCount = 0;
  for (size_t at = 0; at + 2 <= headers.size();) {
    size_t length = size_t(uint8_t(headers[at])) << 8 | uint8_t(headers[at + 1]);
    if (length == 0 || length > headers.size() - at - 2) break;
    std::string unit = headers.substr(at, length + 2);
    uint8_t type = uint8_t(unit[2]) & 0x1F;
    if (type == 7) {
      sps += unit;
      spsCount++;
    } else if (type == 8) {
      pps += unit;
      ppsCount++;
    }
    at += length + 2;
  }
  if (spsCount == 0 || spsCount > 31 || ppsCount > 255 || sps.size() < 6) return {};
  std::string record;
  record.push_back(1);        // configurationVersion
  record.push_back(sps[3]);   // AVCProfileIndication
  record.push_back(sps[4]);   // profile_compatibility
  record.push_back(sps[5]);   // AVCLevelIndication
  record.push_back(char(0xFF));  // reserved, lengthSizeMinusOne = 3
  record.push_back(char(0xE0 | spsCount));
  record += sps;
  record.push_back(char(ppsCount));
  record += pps;
  return record;
}

bool TPushVideoSource::InitVideo(const std::string& format, bool, bool, uint32_t width,
                                 uint32_t height, uint32_t aspectX, uint32_t aspectY,
                                 uint32_t rateNumerator, uint32_t rateDenominator,
                                 const std::string& description) {
  if (!valid) return false;
  if (!CheckUpStreams("DirectShow muxer")) return false;
  AVCodecID codec;
  std::string privateData = description;
  if (format == "h264") {
    codec = AV_CODEC_ID_H264;
    privateData = AvcConfiguration(description);
    if (privateData.empty()) return Fail(kNoFormat);
  } else if (format == "vc1") {
    codec = AV_CODEC_ID_VC1;
  } else if (format == "mpeg2") {
    codec = AV_CODEC_ID_MPEG2VIDEO;
  } else {
    return Fail(kNoFormat);
  }
  if (headerWritten) return true;  // a second announcement of the same stream
  this->format = format;
  this->width = width;
  this->height = height;
  this->aspectX = aspectX;
  this->aspectY = aspectY;
  timePerFrame = AverageTimePerFrame(rateNumerator, rateDenominator);
  // VC-1 in Matroska wants the entry point beside the sequence header in the private data;
  // it comes with the first frame.
  if (codec == AV_CODEC_ID_VC1) {
    vc1Header = privateData;
    return true;
  }
  return Open(codec, privateData);
}

bool TPushVideoSource::Open(int codecId, const std::string& privateData) {
  if (avformat_alloc_output_context2(&context, nullptr, "matroska", destination.c_str()) < 0 ||
      !context)
    return Fail("Getting \"Haali Matroska Muxer\" instance failed.");
  stream = avformat_new_stream(context, nullptr);
  if (!stream) return Fail("Adding Haali Matroska Muxer failed.");
  AVCodecParameters* par = stream->codecpar;
  par->codec_type = AVMEDIA_TYPE_VIDEO;
  par->codec_id = AVCodecID(codecId);
  par->width = int(width);
  par->height = int(height);
  if (!privateData.empty()) {
    par->extradata = static_cast<uint8_t*>(
        av_mallocz(privateData.size() + AV_INPUT_BUFFER_PADDING_SIZE));
    if (!par->extradata) return Fail("The DirectShow muxer couldn't allocate enough memory.");
    std::memcpy(par->extradata, privateData.data(), privateData.size());
    par->extradata_size = int(privateData.size());
  }
  // The display size comes from the aspect: a sample aspect of (aspect x height) : (aspect y x
  // width) makes the muxer write a display width of height x aspect.
  if (aspectX && aspectY && width && height) {
    int num = 0, den = 0;
    av_reduce(&num, &den, int64_t(aspectX) * height, int64_t(aspectY) * width, INT_MAX);
    par->sample_aspect_ratio = stream->sample_aspect_ratio = AVRational{num, den};
  }
  stream->time_base = kTicks;
  av_dict_set(&stream->metadata, "language", "und", 0);
  if (avio_open(&context->pb, destination.c_str(), AVIO_FLAG_WRITE) < 0)
    return Fail("Setting DirectShow destination file name failed.");
  if (noteCreated) noteCreated(destination);
  Log(0, "Muxing video to Matroska...");
  if (avformat_write_header(context, nullptr) < 0) return Fail(kNotAccepted);
  headerWritten = true;
  return true;
}

bool TPushVideoSource::WritePacket(AVPacket* packet) {
  av_packet_rescale_ts(packet, kTicks, stream->time_base);
  int result = av_write_frame(context, packet);
  av_packet_free(&packet);
  if (result < 0) return Fail("Writing the Matroska file failed.");
  return true;
}

bool TPushVideoSource::Drain(size_t keep) {
  while (pending.size() > keep) {
    AVPacket* packet = pending.front();
    pending.pop_front();
    int64_t dts = packet->pts;
    for (size_t i = 0; i < pending.size() && i < kReorderDepth; i++)
      dts = std::min(dts, pending[i]->pts);
    if (dts < lastDts) dts = lastDts;
    if (packet->pts < dts) packet->pts = dts;  // a damaged order: never shown before decoded
    packet->dts = lastDts = dts;
    if (!WritePacket(packet)) return false;
  }
  return true;
}

bool TPushVideoSource::Write(SenderId, bool, const uint8_t* data, uint32_t size,
                             int64_t position, bool flush) {
  if (!valid) return false;
  if (!CheckUpStreams("DirectShow muxer")) return false;
  if (size == 0) return true;
  if (!headerWritten && format == "vc1") {
    // The headers in front of the first frame: up to its frame start code.
    std::string headers = vc1Header;
    if (size >= 4 && data[3] == 0x0F)
      for (uint32_t i = 4; i + 3 < size; i++)
        if (data[i] == 0 && data[i + 1] == 0 && data[i + 2] == 1 && data[i + 3] == 0x0D) {
          headers.assign(reinterpret_cast<const char*>(data), i);
          break;
        }
    if (!Open(AV_CODEC_ID_VC1, headers)) return false;
  }
  if (!headerWritten) return Fail(kNoFormat);
  bool sync;
  if (format == "h264")
    sync = flush;
  else
    sync = size >= 4 && data[3] == (format == "vc1" ? 0x0F : 0xB3);
  if (sync) {
    blocksWithoutSync = 0;
  } else if (++blocksWithoutSync >= kSyncLimit) {
    Log(2, "Unfortunately the Haali Muxer cannot handle this source file.");
    Log(2, "It doesn't contain enough seek/recovery points.");
    valid = false;
    return false;
  }
  AVPacket* packet = av_packet_alloc();
  if (!packet || av_new_packet(packet, int(size)) < 0) {
    av_packet_free(&packet);
    return Fail("The DirectShow muxer couldn't allocate enough memory.");
  }
  std::memcpy(packet->data, data, size);
  if (position < 0)
    position = pending.empty() ? (lastDts == INT64_MIN ? 0 : lastDts + timePerFrame)
                               : pending.back()->pts + timePerFrame;
  packet->pts = position;
  packet->stream_index = 0;
  if (sync) packet->flags |= AV_PKT_FLAG_KEY;
  pending.push_back(packet);
  return Drain(kReorderDepth);
}

bool TPushVideoSource::Finish() {
  if (!valid) return false;
  if (!headerWritten) return Fail(kNoFormat);
  if (!Drain(0)) return false;
  if (av_write_trailer(context) < 0) return Fail("Writing the Matroska file failed.");
  if (avio_closep(&context->pb) < 0) return Fail("Writing the Matroska file failed.");
  Close();
  return FinishUpStreams();
}

}  // namespace sonvex
