// The EVO/VOB packet walk: start codes, packet lengths, PES headers and stream classes.
#include "evo/evopackets.h"

#include "framework/bitreader.h"
#include "ts/pestimeline.h"

namespace sonvex {

namespace {

struct TEvoCodeRow {
  uint32_t first, last;
  TEvoItem item;
};
constexpr TEvoCodeRow kEvoCodes[] = {
    {0x00000000, 0x00000000, TEvoItem::Zero},
    {0x00000001, 0x00000001, TEvoItem::One},
    {0x000001BA, 0x000001BA, TEvoItem::Pack},
    {0x000001BB, 0x000001BB, TEvoItem::SystemHeader},
    {0x000001BC, 0x000001BC, TEvoItem::Skip},
    {0x000001BE, 0x000001BE, TEvoItem::Skip},
    {0x000001BF, 0x000001BF, TEvoItem::PrivateStream2},
    {0x000001BD, 0x000001BD, TEvoItem::Pes},
    {0x000001C0, 0x000001CF, TEvoItem::Pes},
    {0x000001E0, 0x000001E3, TEvoItem::Pes},
    {0x000001FD, 0x000001FD, TEvoItem::Pes},
};

// PES stream ids with a class of their own; 0xBD and 0xFD are decided by their content.
struct TEvoStreamIdRow {
  uint8_t first, last;
  bool isVideo;
  uint8_t idMask;  // the id is (stream id AND mask) ...
  uint8_t idBase;  // ... + base
  const char* tag;
};
constexpr TEvoStreamIdRow kEvoStreamIds[] = {
    {0xC0, 0xCF, false, 0x0F, 0, "mp2"},
    {0xE0, 0xE0, true, 0x00, 0, "mpeg2"},
    {0xE1, 0xE1, true, 0x00, 1, "mpeg2"},
    {0xE2, 0xE2, true, 0x00, 0, "h264"},
    {0xE3, 0xE3, true, 0x00, 1, "h264"},
};

// Private stream 1: the first payload byte `b` names the substream. A row matches when
// (b AND mask) = value; the first match counts. A tag of nullptr is PCM, whose tag depends on
// whether the stream is a VOB.
enum class TSubClass : uint8_t { Subtitle, Audio };
struct TPrivateRow {
  uint8_t mask, value;
  TSubClass kind;
  uint8_t idMask, idBase;
  const char* tag;
  uint8_t drop;
};
constexpr TPrivateRow kParserPrivate[] = {
    {0xE0, 0x20, TSubClass::Subtitle, 0x1F, 0, "evo/sub", 1},
    {0xF8, 0x80, TSubClass::Audio, 0x07, 0, "ac3", 4},
    {0xF8, 0x88, TSubClass::Audio, 0x07, 0, "dts", 4},
    {0xF8, 0x98, TSubClass::Audio, 0x07, 8, "dts", 4},
    {0xF0, 0xC0, TSubClass::Audio, 0x0F, 0, "ac3", 4},
    {0xF0, 0xA0, TSubClass::Audio, 0x0F, 0, nullptr, 4},
    {0xF0, 0xB0, TSubClass::Audio, 0x0F, 0, "thd", 5},
};
constexpr TPrivateRow kDemuxerPrivate[] = {
    {0xE0, 0x20, TSubClass::Subtitle, 0x1F, 0, "evo/sub", 1},
    {0xF8, 0x80, TSubClass::Audio, 0x07, 0, "ac3", 4},
    {0xF8, 0x88, TSubClass::Audio, 0x07, 0, "dts", 4},
    {0xF8, 0xC0, TSubClass::Audio, 0x07, 0, "ac3", 4},
    {0xF8, 0xC8, TSubClass::Audio, 0x07, 8, "ac3", 4},
    {0xF8, 0xA0, TSubClass::Audio, 0x07, 0, nullptr, 4},
    {0xF8, 0xB0, TSubClass::Audio, 0x07, 0, "thd", 5},
};

// The highest program_mux_rate of a DVD: 10.08 Mbit/s in units of 50 bytes per second.
constexpr uint32_t kDvdMuxRate = 25200;

// Extended stream ids of packets 0xFD: VC-1 video.
constexpr uint8_t kVc1Primary = 0x55;
constexpr uint8_t kVc1Secondary = 0x56;

template <size_t N>
const TPrivateRow* FindPrivateRow(const TPrivateRow (&rows)[N], uint8_t b) {
  for (const TPrivateRow& row : rows)
    if ((b & row.mask) == row.value) return &row;
  return nullptr;
}

}  // namespace

TEvoItem ClassifyEvoCode(uint32_t code) {
  for (const TEvoCodeRow& row : kEvoCodes)
    if (code >= row.first && code <= row.last) return row.item;
  return TEvoItem::Invalid;
}

uint32_t EvoItemLength(TEvoItem item, const uint8_t* at, uint32_t remaining) {
  switch (item) {
    case TEvoItem::Zero: return 2;
    case TEvoItem::One: return 1;
    case TEvoItem::Pack: return remaining < 14 ? 0 : 14 + (at[13] & 7);
    case TEvoItem::Invalid: return 0;
    default: return 6 + uint32_t(Be16(at + 4));
  }
}

bool ReadDsiTimes(const uint8_t* at, uint32_t length, uint32_t& start, uint32_t& end) {
  if (length < 6 + 53 || at[6] != 1) return false;
  start = Be32(at + 6 + 45);
  end = Be32(at + 6 + 49);
  return true;
}

bool TEvoPacketWalk::Complete(const uint8_t* at, uint32_t remaining, uint32_t& length,
                              bool flushing, bool& widened) {
  uint32_t declared = length;
  if (resumeLength > length) length = resumeLength;
  while (uint64_t(length) + 4 <= remaining &&
         !(at[length] == 0 && at[length + 1] == 0 && at[length + 2] == 1))
    length++;
  widened = length != declared;
  if (length > remaining) return false;
  if (uint64_t(length) + 4 <= remaining) return true;
  if (!flushing) resumeLength = length;
  return flushing;
}

uint32_t TEvoPacketWalk::Walk(const uint8_t* data, uint32_t fill, bool flushing,
                              IEvoPacketSink& sink, TStop& stop) {
  uint32_t offset = 0;
  stop = TStop::Wait;
  while (fill - offset >= 2052 || (flushing && fill - offset >= 13)) {
    const uint8_t* at = data + offset;
    const uint32_t remaining = fill - offset;
    TEvoItem item = ClassifyEvoCode(Be32(at));
    if (item == TEvoItem::Invalid) {
      stop = TStop::BadCode;
      return offset;
    }
    uint32_t length = EvoItemLength(item, at, remaining);
    bool widened = false;
    if (length == 0 || !Complete(at, remaining, length, flushing, widened)) return offset;
    resumeLength = 0;
    // Zero stuffing that runs on is no packet of the authoring's making.
    if (widened && item != TEvoItem::Zero && item != TEvoItem::One) sink.EvoWidened();
    if (item == TEvoItem::SystemHeader) {
      isVob = at[length - 3] != 0xFD;
      systemHeaderSeen = true;
    } else if (item == TEvoItem::Pack && !systemHeaderSeen) {
      // Until a system header tells, the multiplex rate does: a DVD can't go beyond 10.08
      // Mbit/s (25200 units of 50 bytes per second), an HD DVD goes up to 30.24 Mbit/s. A VOB
      // file of a DVD title may begin anywhere, far from the next system header.
      uint32_t muxRate = uint32_t(at[10]) << 14 | uint32_t(at[11]) << 6 | at[12] >> 2;
      isVob = muxRate != 0 && muxRate <= kDvdMuxRate;
    } else if (item == TEvoItem::PrivateStream2) {
      uint32_t start, end;
      if (ReadDsiTimes(at, length, start, end)) sink.EvoDsi(start, end);
    } else if (item == TEvoItem::Pes) {
      bool sinkStop = false;
      bool fits = PesStep(at, length, sink, sinkStop);
      sink.EvoPesDone();
      if (sinkStop) {
        stop = TStop::Sink;
        return offset;
      }
      if (!fits) {
        stop = TStop::Invalid;
        return offset + length;
      }
    }
    offset += length;
  }
  return offset;
}

bool TEvoPacketWalk::PesStep(const uint8_t* at, uint32_t length, IEvoPacketSink& sink,
                             bool& sinkStop) {
  const uint8_t streamId = at[3];
  TEvoStream stream;
  bool known = false;
  for (const TEvoStreamIdRow& row : kEvoStreamIds) {
    if (streamId < row.first || streamId > row.last) continue;
    stream.isVideo = row.isVideo;
    stream.isAudio = !row.isVideo;
    stream.id = uint32_t(streamId & row.idMask) + row.idBase;
    stream.tag = row.tag;
    known = true;
    sink.EvoStream(stream);
    break;
  }

  // The header: flags at byte 7, its data length at byte 8, the fields from byte 9 on.
  if (length < 9) return false;
  const uint8_t flags = at[7];
  const uint32_t headerLength = at[8];
  uint32_t q = 9;
  int64_t pts = -1;
  if (flags & 0x80) {
    if (q + 5 > length) return false;
    uint32_t value = ReadPts32(at + q);
    if (value != 0xFFFFFFFF) pts = value;
    q += 5;
    if ((flags & 0xC0) == 0xC0) q += 5;  // DTS
  }
  if (flags & 0x20) q += 6;  // ESCR
  if (flags & 0x10) q += 3;  // ES rate
  if (flags & 0x04) q += 1;  // additional copy info
  if (flags & 0x02) q += 2;  // previous PES CRC
  if (flags & 0x01) {        // PES extension
    if (q >= length) return false;
    const uint8_t extension = at[q];
    q += 1;
    if (extension & 0x80) q += 16;  // private data
    if (extension & 0x40) q += 1;   // pack header field length
    if (extension & 0x20) q += 2;   // sequence counter
    if (extension & 0x10) q += 2;   // P-STD buffer
    if (extension & 0x01) {         // extension 2: its length, then the stream id extension
      if (streamId == 0xFD) {
        if (q + 2 > length) return false;
        uint8_t extended = at[q + 1] & 0x7F;
        if (extended != kVc1Primary && extended != kVc1Secondary) return true;
        stream.isVideo = true;
        stream.id = extended == kVc1Primary ? 0 : 1;
        stream.tag = "vc1";
        known = true;
        sink.EvoStream(stream);
      }
      q += 2;
    }
  }
  const uint32_t payloadStart = 9 + headerLength;
  if (payloadStart < q || payloadStart > length) return false;
  const uint8_t* payload = at + payloadStart;
  uint32_t size = length - payloadStart;

  if (streamId == 0xBD) {
    if (size == 0) return true;
    const uint8_t b = payload[0];
    const TPrivateRow* row =
        DemuxerTable ? FindPrivateRow(kDemuxerPrivate, b) : FindPrivateRow(kParserPrivate, b);
    if (!row || size < row->drop) return true;
    stream.isVideo = false;
    stream.isAudio = row->kind == TSubClass::Audio;
    stream.id = uint32_t(b & row->idMask) + row->idBase;
    stream.tag = row->tag ? row->tag : isVob ? "vob/pcm" : "evo/pcm";
    stream.drop = row->drop;
    known = true;
    sink.EvoStream(stream);
    payload += row->drop;
    size -= row->drop;
  }
  if (known && !sink.EvoPayload(stream, payload, size, pts)) sinkStop = true;
  return true;
}

}  // namespace sonvex
