// TTsParser: finds out what a TS (188 byte packets) or M2TS (192 byte packets) holds. It reads the
// PAT and every PMT, classifies the elementary streams, and runs a private chain per stream
// (TPesParser in raw mode, the stream's reader, TFileSimulator) until the reader has understood
// the format and a time stamp was seen; then the track goes into the stage's track lists with its
// delay relative to the first video track. It sends no data to its next stage.
#pragma once

#include <array>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "framework/upstream.h"
#include "ts/pesparser.h"
#include "ts/pgsreader.h"
#include "ts/tspacket.h"

namespace sonvex {

class TTsParser : public TUpStream {
public:
  TTsParser(bool listPids, bool dtsOption);
  // For format detection: `tsOption` is the "-logPids" switch, `dtsOption` goes to DTS readers.
  static std::shared_ptr<TTsParser> Create(bool tsOption, bool dtsOption = false) {
    return std::make_shared<TTsParser>(tsOption, dtsOption);
  }

  // Where the readers of the private chains come from; CreateTsTrackReader unless told otherwise.
  using ReaderFactory = std::function<UpStreamRef(const std::string& tag, bool dtsOption)>;
  void SetReaderFactory(ReaderFactory factory) { readerFactory = std::move(factory); }

  uint32_t BlockSize() override { return 314572800; }
  bool InitContainer(const std::string& format, int64_t totalSize, int64_t playTime) override;
  bool Write(SenderId sender, bool isHeader, const uint8_t* data, uint32_t size, int64_t position,
             bool flush) override;
  bool Finish() override;

  bool IsM2ts() const { return isM2ts; }
  uint32_t PacketSize() const { return packetSize; }

private:
  struct TsPidEntry {
    uint8_t Kind = 0;  // 0 unknown, 1 PMT, 2 video, 3 audio, 4 subtitle
    uint8_t StreamType = 0;
    std::unique_ptr<uint8_t[]> Section;
    uint16_t SectionLeft = 0;
    uint16_t SectionFill = 0;
    bool Started = false;
    bool ProgramHdmv = false;  // the program carries the "HDMV" registration
    int64_t FirstPts = -1;     // 33-bit PTS of the stream's first PES packet that has one
    int64_t FirstPosition = 0;  // where that packet lies in the source
  };
  struct TsTrack {
    bool IsVideo = false;
    uint32_t Pid = 0;
    std::shared_ptr<TPesParser> Chain;
    bool Reported = false;
    int64_t FirstPts = -1;
    std::string Description;
    bool ByPayload = false;  // a private stream: the chain waits for a payload that tells
    bool DolbyVisionEl = false;  // the enhancement layer of a dual-layer Dolby Vision title
  };

  bool Damaged(const std::string& what);
  bool HandlePacket(const uint8_t* packet);
  bool HandlePat(const uint8_t* packet, uint32_t p, bool unitStart);
  bool HandlePmt(TsPidEntry& entry, const uint8_t* packet, uint32_t p, bool unitStart);
  bool ParseStreams(TsPidEntry& entry);
  bool Classify(uint32_t pid, uint8_t type, const std::string& reg, std::string* text,
                bool noDescriptors = false, const TsEntryFacts& facts = {});
  // Builds the private chain of a track for the reader of `tag`.
  void MakeChain(TsTrack& track, const std::string& tag);
  void AddTrack(bool isVideo, uint32_t pid, const std::string& tag, const std::string& description,
                bool dolbyVisionEl = false);
  // A subtitle track is listed from the PMT alone, with the language the PMT gives.
  void AddSubtitle(uint32_t pid, const std::string& tag, const std::string& language);
  // Notes the first PTS of a stream and hands the time origin on to the subtitle tracks.
  void NoteFirstPts(TsPidEntry& entry, const uint8_t* payload, uint32_t size);
  void UpdateTimeOrigin();
  void FeedPes(bool isVideo, uint32_t pid, const uint8_t* data, uint32_t size, bool unitStart);
  void AnnounceContainer();

  ReaderFactory readerFactory;
  const bool ListPids;
  const bool DtsOption;
  bool formatSeen = false;
  int64_t containerDuration = 0;
  bool containerAnnounced = false;
  std::vector<TsTrack> tracks;
  uint32_t probeCount = 10;
  bool isM2ts = false;
  uint32_t packetSize = 188;
  uint32_t currentPid = 0;
  std::array<TsPidEntry, 8192> pids;
  int32_t patLeft = 0;
  int32_t patFill = 0;
  std::array<uint8_t, 1024> pat{};
  std::vector<uint32_t> seenPids;
  std::vector<std::pair<uint32_t, std::shared_ptr<TPgsReader>>> subtitleReaders;  // by PID
  int64_t bytesDone = 0;       // source bytes taken from buffer 0 so far
  int64_t packetPosition = 0;  // source position of the packet being handled
};

}  // namespace sonvex
