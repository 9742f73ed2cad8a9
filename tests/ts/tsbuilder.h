// Builds small synthetic transport streams for the tests: a bit writer, PES packets, PAT and PMT
// sections, and their packetisation into 188 byte TS or 192 byte M2TS packets.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "framework/console.h"

namespace sonvex::test {}

// The helpers of the transport stream tests; the shared test stages stay visible.
namespace sonvex::tstest {

using namespace ::sonvex::test;

using Bytes = std::vector<uint8_t>;

class BitWriter {
public:
  void Put(int bits, uint64_t value) {
    for (int i = bits - 1; i >= 0; i--) {
      current = uint8_t(current << 1 | ((value >> i) & 1));
      if (++used == 8) {
        bytes.push_back(current);
        used = 0;
        current = 0;
      }
    }
  }
  void PutBytes(const Bytes& data) {
    for (uint8_t b : data) Put(8, b);
  }
  Bytes bytes;

private:
  uint8_t current = 0;
  int used = 0;
};

// A PES packet with a PTS (or none when pts < 0); `bounded` false writes a length of 0.
inline Bytes MakePes(uint8_t streamId, int64_t pts, const Bytes& payload, bool bounded = true) {
  BitWriter w;
  uint32_t headerData = pts >= 0 ? 5 : 0;
  w.Put(24, 0x000001);                                      // packet_start_code_prefix
  w.Put(8, streamId);                                       // stream_id
  w.Put(16, bounded ? 3 + headerData + payload.size() : 0);  // PES_packet_length
  w.Put(2, 2);                                              // '10'
  w.Put(6, 0);                                              // scrambling, priority, alignment...
  w.Put(2, pts >= 0 ? 2 : 0);                               // PTS_DTS_flags
  w.Put(6, 0);                                              // ESCR, ES rate, ... extension flags
  w.Put(8, headerData);                                     // PES_header_data_length
  if (pts >= 0) {
    w.Put(4, 2);                    // '0010'
    w.Put(3, uint64_t(pts) >> 30);  // PTS[32..30]
    w.Put(1, 1);                    // marker_bit
    w.Put(15, uint64_t(pts) >> 15);  // PTS[29..15]
    w.Put(1, 1);                    // marker_bit
    w.Put(15, uint64_t(pts));       // PTS[14..0]
    w.Put(1, 1);                    // marker_bit
  }
  w.PutBytes(payload);
  return w.bytes;
}

inline uint32_t Crc32Mpeg(const Bytes& data) {
  uint32_t crc = 0xFFFFFFFF;
  for (uint8_t b : data) {
    crc ^= uint32_t(b) << 24;
    for (int i = 0; i < 8; i++) crc = crc & 0x80000000 ? crc << 1 ^ 0x04C11DB7 : crc << 1;
  }
  return crc;
}

// program_association_section with (program_number, PMT PID) pairs, pointer_field in front.
inline Bytes MakePat(const std::vector<std::pair<uint16_t, uint16_t>>& programs) {
  BitWriter w;
  w.Put(8, 0);                           // table_id
  w.Put(1, 1);                           // section_syntax_indicator
  w.Put(3, 3);                           // '0', reserved
  w.Put(12, 9 + 4 * programs.size());    // section_length
  w.Put(16, 1);                          // transport_stream_id
  w.Put(2, 3);                           // reserved
  w.Put(5, 0);                           // version_number
  w.Put(1, 1);                           // current_next_indicator
  w.Put(8, 0);                           // section_number
  w.Put(8, 0);                           // last_section_number
  for (auto [number, pid] : programs) {
    w.Put(16, number);                   // program_number
    w.Put(3, 7);                         // reserved
    w.Put(13, pid);                      // program_map_PID
  }
  Bytes section = w.bytes;
  uint32_t crc = Crc32Mpeg(section);
  for (int i = 3; i >= 0; i--) section.push_back(uint8_t(crc >> (8 * i)));
  section.insert(section.begin(), 0);    // pointer_field
  return section;
}

struct PmtStream {
  uint8_t type;
  uint16_t pid;
  Bytes descriptors;  // tag, length, body ...
};

inline Bytes Registration(const std::string& id) {
  Bytes d = {0x05, 4};
  d.insert(d.end(), id.begin(), id.end());
  return d;
}

inline Bytes MakePmt(uint16_t programNumber, const std::vector<PmtStream>& streams,
                     const Bytes& programInfo = {}) {
  size_t loop = 0;
  for (const auto& s : streams) loop += 5 + s.descriptors.size();
  BitWriter w;
  w.Put(8, 2);                                        // table_id
  w.Put(1, 1);                                        // section_syntax_indicator
  w.Put(3, 3);                                        // '0', reserved
  w.Put(12, 13 + programInfo.size() + loop);          // section_length
  w.Put(16, programNumber);                           // program_number
  w.Put(2, 3);                                        // reserved
  w.Put(5, 0);                                        // version_number
  w.Put(1, 1);                                        // current_next_indicator
  w.Put(8, 0);                                        // section_number
  w.Put(8, 0);                                        // last_section_number
  w.Put(3, 7);                                        // reserved
  w.Put(13, 0x1FFF);                                  // PCR_PID
  w.Put(4, 15);                                       // reserved
  w.Put(12, programInfo.size());                      // program_info_length
  w.PutBytes(programInfo);
  for (const auto& s : streams) {
    w.Put(8, s.type);                                 // stream_type
    w.Put(3, 7);                                      // reserved
    w.Put(13, s.pid);                                 // elementary_PID
    w.Put(4, 15);                                     // reserved
    w.Put(12, s.descriptors.size());                  // ES_info_length
    w.PutBytes(s.descriptors);
  }
  Bytes section = w.bytes;
  uint32_t crc = Crc32Mpeg(section);
  for (int i = 3; i >= 0; i--) section.push_back(uint8_t(crc >> (8 * i)));
  section.insert(section.begin(), 0);                 // pointer_field
  return section;
}

// Cuts `payload` into packets of one PID; the last packet is filled up with an adaptation field.
class TsMuxer {
public:
  explicit TsMuxer(bool m2ts = false) : m2ts(m2ts) {}

  void Put(uint16_t pid, const Bytes& payload, bool unitStart = true) {
    size_t at = 0;
    bool first = true;
    do {
      size_t n = std::min<size_t>(184, payload.size() - at);
      Bytes chunk(payload.begin() + long(at), payload.begin() + long(at + n));
      Packet(pid, chunk, first && unitStart);
      at += n;
      first = false;
    } while (at < payload.size());
  }

  // One packet: a payload of up to 184 bytes; shorter ones get adaptation field stuffing.
  void Packet(uint16_t pid, const Bytes& chunk, bool unitStart, int continuity = -1,
              bool discontinuity = false) {
    BitWriter w;
    if (m2ts) w.Put(32, 0);                           // TP_extra_header (copy permission, ATS)
    uint8_t& counter = counters[pid & 0x1FFF];
    if (continuity >= 0) counter = uint8_t(continuity);
    bool adaptation = chunk.size() < 184 || discontinuity;
    w.Put(8, 0x47);                                   // sync_byte
    w.Put(1, 0);                                      // transport_error_indicator
    w.Put(1, unitStart);                              // payload_unit_start_indicator
    w.Put(1, 0);                                      // transport_priority
    w.Put(13, pid);                                   // PID
    w.Put(2, 0);                                      // transport_scrambling_control
    w.Put(2, adaptation ? 3 : 1);                     // adaptation_field_control
    w.Put(4, counter);                                // continuity_counter
    counter = (counter + 1) & 15;
    if (adaptation) {
      size_t fieldLength = 183 - chunk.size();
      w.Put(8, fieldLength);                          // adaptation_field_length
      if (fieldLength > 0) {
        w.Put(1, discontinuity);                      // discontinuity_indicator
        w.Put(7, 0);                                  // other flags
        for (size_t i = 1; i < fieldLength; i++) w.Put(8, 0xFF);  // stuffing_byte
      }
    }
    w.PutBytes(chunk);
    stream.insert(stream.end(), w.bytes.begin(), w.bytes.end());
  }

  bool m2ts;
  Bytes stream;
  uint8_t counters[8192] = {};
};

// Collects the lines that the stages log while it lives.
struct LogCatcher {
  LogCatcher() {
    SetLogHook([this](int level, const std::string& text) { lines.push_back(text); levels.push_back(level); });
  }
  ~LogCatcher() { SetLogHook(nullptr); }
  bool Has(const std::string& text) const {
    for (const auto& line : lines)
      if (line == text || (line.size() > text.size() && line.compare(line.size() - text.size(), text.size(), text) == 0))
        return true;
    return false;
  }
  int Count(const std::string& text) const {
    int n = 0;
    for (const auto& line : lines) n += line == text;
    return n;
  }
  std::vector<std::string> lines;
  std::vector<int> levels;
};

}  // namespace sonvex::tstest
