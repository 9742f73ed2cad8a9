// The packet walk of EVO (HD DVD) and VOB (DVD) program streams, shared by TEvoParser and
// TEvoDemuxer so that the two read the stream the same way: the table of start codes, the
// widening of packets whose declared length is too short, the system header that tells a VOB
// from an EVO, DSI packets, and the PES packets with the stream (class, id, format tag) each one
// belongs to. What a stage does with them it does in an IEvoPacketSink. The repairer, which
// rewrites the stream, uses the code table and the packet lengths alone.
#pragma once

#include <cstdint>

namespace sonvex {

// What an item of the stream is, by its 32-bit start code.
enum class TEvoItem : uint8_t {
  Zero,            // 00 00 00 00: two bytes of zero stuffing
  One,             // 00 00 00 01: one byte ahead of a start code
  Pack,            // 0x1BA: pack header with its stuffing
  SystemHeader,    // 0x1BB
  Skip,            // 0x1BC program stream map, 0x1BE padding
  PrivateStream2,  // 0x1BF: navigation packets (PCI, DSI)
  Pes,             // 0x1BD, 0x1C0..0x1CF, 0x1E0..0x1E3, 0x1FD
  Invalid,         // anything else: not an EVO/VOB stream
};

TEvoItem ClassifyEvoCode(uint32_t code);

// The declared length of the item at `at` of class `item`, with at least 13 bytes there (14 for a
// pack header). Zero for a pack header of which byte 13 is not there yet.
uint32_t EvoItemLength(TEvoItem item, const uint8_t* at, uint32_t remaining);

// The stream a PES packet belongs to. Neither video nor audio means subtitle.
struct TEvoStream {
  bool isVideo = false;
  bool isAudio = false;
  uint32_t id = 0;          // number of the stream within its class
  const char* tag = "";     // "mpeg2", "h264", "vc1", "mp2", "ac3", "dts", "thd", "evo/pcm", ...
  uint32_t drop = 0;        // bytes of the private stream 1 header in front of the payload
  bool Same(const TEvoStream& other) const {
    return isVideo == other.isVideo && isAudio == other.isAudio && id == other.id;
  }
};

// The start and end PTM of a DSI packet (private stream 2, substream 1) of `length` bytes; false
// for another navigation packet or one too short to hold them.
bool ReadDsiTimes(const uint8_t* at, uint32_t length, uint32_t& start, uint32_t& end);

class IEvoPacketSink {
public:
  virtual ~IEvoPacketSink() = default;
  // A DSI packet with the start and end PTM of its unit.
  virtual void EvoDsi(uint32_t start, uint32_t end) = 0;
  // A packet of `stream` was met; comes ahead of its header (private stream 1 and extended
  // streams: once the header has told the stream).
  virtual void EvoStream(const TEvoStream& stream) = 0;
  // The payload of a packet of `stream`, private header bytes dropped; `pts` is the 32-bit PTS or
  // -1. False stops the walk (the stage has failed).
  virtual bool EvoPayload(const TEvoStream& stream, const uint8_t* payload, uint32_t size,
                          int64_t pts) = 0;
  // Every PES packet ends here, whether it had a payload of a known stream or not.
  virtual void EvoPesDone() {}
  // A packet had to be widened to the next start code, and is now complete.
  virtual void EvoWidened() {}
};

class TEvoPacketWalk {
public:
  // `demuxerTable`: the private stream 1 table of the demuxer, which serves fewer streams than
  // the parser lists (no DTS 0x98..0x9F, no PCM or TrueHD streams 8..15).
  explicit TEvoPacketWalk(bool demuxerTable) : DemuxerTable(demuxerTable) {}

  enum class TStop {
    Wait,     // the rest needs more data
    BadCode,  // a code outside the table: "This doesn't seem to be a valid EVO/VOB file."
    Invalid,  // a PES header that doesn't fit its packet: "The source file is invalid."
    Sink,     // the sink returned false
  };

  // Walks the items in `data`, while 2052 bytes or more remain (13 or more when `flushing`).
  // Returns the number of bytes consumed; `stop` tells why the walk ended. A packet with an
  // invalid header is consumed, and the walk ends behind it.
  uint32_t Walk(const uint8_t* data, uint32_t fill, bool flushing, IEvoPacketSink& sink,
                TStop& stop);

  // Set from the system header: its last entry (third last byte) is not the EVO mark 0xFD.
  // Ahead of the first system header, from the pack header's multiplex rate.
  bool IsVob() const { return isVob; }

private:
  // Widens `length` to the next 00 00 01 and tests whether the item is complete.
  bool Complete(const uint8_t* at, uint32_t remaining, uint32_t& length, bool flushing,
                bool& widened);
  // One PES packet; false for a header that doesn't fit.
  bool PesStep(const uint8_t* at, uint32_t length, IEvoPacketSink& sink, bool& sinkStop);

  const bool DemuxerTable;
  bool isVob = false;
  bool systemHeaderSeen = false;
  // How far the item at the front of the data was widened on an earlier walk that had to wait:
  // the search for the next start code goes on from there instead of starting again.
  uint32_t resumeLength = 0;
};

}  // namespace sonvex
