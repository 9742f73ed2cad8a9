// Helpers of the file stage tests: a byte pattern, and the transport/program stream pieces the
// source probe tests build: PAT, PMT, PES headers, TS packets, pack headers and DSI packets.
#pragma once

#include "support/stream.h"

namespace sonvex::filestest {
using namespace ::sonvex::test;

inline Bytes ReadWhole(const std::string& name) { return ReadBytes(name); }
inline void WriteWhole(const std::string& name, const Bytes& bytes) { WriteBytes(name, bytes); }
using TLogRecorder = TLog;
using TBitWriter = BitWriter;

// A pattern that differs at every position of a few MiB, so that any shifted byte shows.
inline std::vector<uint8_t> Pattern(size_t size, uint32_t seed) {
  std::vector<uint8_t> bytes(size);
  uint32_t x = seed * 2654435761u + 1;
  for (auto& b : bytes) {
    x = x * 1664525u + 1013904223u;
    b = uint8_t(x >> 24);
  }
  return bytes;
}

// A PES header with a PTS and no payload length (video style).
inline std::vector<uint8_t> PesHeader(uint8_t streamId, int64_t pts) {
  TBitWriter w;
  w.Put(24, 0x000001);      // packet_start_code_prefix
  w.Put(8, streamId);       // stream_id
  w.Put(16, 0);             // PES_packet_length (unbounded)
  w.Put(2, 2);              // '10'
  w.Put(6, 0);              // scrambling, priority, alignment, copyright, original
  w.Put(2, 2);              // PTS_DTS_flags: PTS only
  w.Put(6, 0);              // ESCR, ES_rate, DSM_trick_mode, additional_copy, CRC, extension
  w.Put(8, 5);              // PES_header_data_length
  w.Put(4, 2);              // '0010'
  w.Put(3, pts >> 30);      // PTS[32..30]
  w.Put(1, 1);              // marker_bit
  w.Put(15, pts >> 15);     // PTS[29..15]
  w.Put(1, 1);              // marker_bit
  w.Put(15, pts);           // PTS[14..0]
  w.Put(1, 1);              // marker_bit
  return w.bytes;
}

// A PSI section: table id, the body, and a CRC field (not checked by the probe).
inline std::vector<uint8_t> Section(uint8_t tableId, uint16_t idExtension,
                                    const std::vector<uint8_t>& body) {
  TBitWriter w;
  w.Put(8, tableId);              // table_id
  w.Put(1, 1);                    // section_syntax_indicator
  w.Put(1, 0);                    // '0'
  w.Put(2, 3);                    // reserved
  w.Put(12, 5 + body.size() + 4); // section_length
  w.Put(16, idExtension);         // transport_stream_id / program_number
  w.Put(2, 3);                    // reserved
  w.Put(5, 0);                    // version_number
  w.Put(1, 1);                    // current_next_indicator
  w.Put(8, 0);                    // section_number
  w.Put(8, 0);                    // last_section_number
  for (uint8_t b : body) w.Put(8, b);
  w.Put(32, 0);                   // CRC_32
  return w.bytes;
}

inline std::vector<uint8_t> PatBody(uint16_t program, uint16_t pmtPid) {
  TBitWriter w;
  w.Put(16, program);  // program_number
  w.Put(3, 7);         // reserved
  w.Put(13, pmtPid);   // program_map_PID
  return w.bytes;
}

struct TEsEntry {
  uint8_t streamType;
  uint16_t pid;
  uint16_t infoLength = 0;  // descriptor bytes (zeros) that follow
};

inline std::vector<uint8_t> PmtBody(uint16_t pcrPid, const std::vector<TEsEntry>& streams) {
  TBitWriter w;
  w.Put(3, 7);        // reserved
  w.Put(13, pcrPid);  // PCR_PID
  w.Put(4, 15);       // reserved
  w.Put(12, 0);       // program_info_length
  for (const auto& es : streams) {
    w.Put(8, es.streamType);   // stream_type
    w.Put(3, 7);               // reserved
    w.Put(13, es.pid);         // elementary_PID
    w.Put(4, 15);              // reserved
    w.Put(12, es.infoLength);  // ES_info_length
    for (int i = 0; i < es.infoLength; i++) w.Put(8, 0);
  }
  return w.bytes;
}

// One 188-byte TS packet (with a 4-byte time code ahead for 192), padded by adaptation stuffing.
inline std::vector<uint8_t> TsPacket(uint16_t pid, bool unitStart, std::vector<uint8_t> payload,
                                     uint32_t packetSize = 188) {
  if (payload.size() > 184) payload.resize(184);
  size_t stuffing = 184 - payload.size();
  TBitWriter w;
  if (packetSize == 192) w.Put(32, 0);  // TP_extra_header: copy permission and arrival time
  w.Put(8, 0x47);                       // sync_byte
  w.Put(1, 0);                          // transport_error_indicator
  w.Put(1, unitStart);                  // payload_unit_start_indicator
  w.Put(1, 0);                          // transport_priority
  w.Put(13, pid);                       // PID
  w.Put(2, 0);                          // transport_scrambling_control
  w.Put(2, stuffing ? 3 : 1);           // adaptation_field_control
  w.Put(4, 0);                          // continuity_counter
  if (stuffing) {
    w.Put(8, stuffing - 1);             // adaptation_field_length
    if (stuffing > 1) w.Put(8, 0);      // flags
    for (size_t i = 2; i < stuffing; i++) w.Put(8, 0xFF);  // stuffing_byte
  }
  for (uint8_t b : payload) w.Put(8, b);
  return w.bytes;
}

// A section as the payload of a unit start: pointer_field 0, then the section.
inline std::vector<uint8_t> WithPointer(const std::vector<uint8_t>& section) {
  std::vector<uint8_t> payload = {0};
  payload.insert(payload.end(), section.begin(), section.end());
  return payload;
}

inline void Append(std::vector<uint8_t>& to, const std::vector<uint8_t>& bytes) {
  to.insert(to.end(), bytes.begin(), bytes.end());
}

// MPEG-2 pack header with no stuffing.
inline std::vector<uint8_t> PackHeader() {
  TBitWriter w;
  w.Put(32, 0x1BA);  // pack_start_code
  w.Put(2, 1);       // '01'
  w.Put(3, 0);       // SCR[32..30]
  w.Put(1, 1);       // marker
  w.Put(15, 0);      // SCR[29..15]
  w.Put(1, 1);       // marker
  w.Put(15, 0);      // SCR[14..0]
  w.Put(1, 1);       // marker
  w.Put(9, 0);       // SCR_ext
  w.Put(1, 1);       // marker
  w.Put(22, 0x6270); // program_mux_rate
  w.Put(2, 3);       // markers
  w.Put(5, 31);      // reserved
  w.Put(3, 0);       // pack_stuffing_length
  return w.bytes;
}

// Private stream 2, substream 1 (DSI), with a start and end presentation time at bytes 45, 49.
inline std::vector<uint8_t> DsiPacket(uint32_t start, uint32_t end) {
  std::vector<uint8_t> body(1018, 0);
  body[0] = 1;  // substream: DSI
  for (int i = 0; i < 4; i++) {
    body[45 + i] = uint8_t(start >> (24 - 8 * i));
    body[49 + i] = uint8_t(end >> (24 - 8 * i));
  }
  TBitWriter w;
  w.Put(32, 0x1BF);          // private_stream_2
  w.Put(16, body.size());    // PES_packet_length
  for (uint8_t b : body) w.Put(8, b);
  return w.bytes;
}

// A program stream PES packet with a PTS and `payload` bytes of zeros.
inline std::vector<uint8_t> PsPes(uint8_t streamId, int64_t pts, uint16_t payload) {
  auto bytes = PesHeader(streamId, pts);
  uint16_t length = uint16_t(bytes.size() - 6 + payload);
  bytes[4] = uint8_t(length >> 8);
  bytes[5] = uint8_t(length);
  bytes.resize(bytes.size() + payload, 0);
  return bytes;
}

}  // namespace sonvex::filestest
