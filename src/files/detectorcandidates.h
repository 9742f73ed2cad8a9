// The candidates of format detection: one reader of every kind, in a fixed order that decides
// ties. Each slot has a factory that makes its candidate's chain, or returns nullptr while that
// reader isn't built; the detector leaves such a slot empty.
#pragma once

#include <cstdint>

#include "framework/upstream.h"

namespace sonvex {

struct TCandidateContext {
  bool evoOption = false;  // handed to the readers that take it
  bool tsOption = false;
  // Set by the WAV/DTS slot: the DTS reader at the end of its chain.
  UpStreamRef dtsWavReader;
};

using TCandidateFactory = UpStreamRef (*)(TCandidateContext& context);

struct TCandidateSlot {
  uint32_t index;
  const char* name;
  TCandidateFactory factory;
};

UpStreamRef MakeEvoParserCandidate(TCandidateContext& context);
UpStreamRef MakeTsParserCandidate(TCandidateContext& context);
UpStreamRef MakeDtsReaderCandidate(TCandidateContext& context);
UpStreamRef MakeAc3ReaderCandidate(TCandidateContext& context);
UpStreamRef MakeMp2ReaderCandidate(TCandidateContext& context);
UpStreamRef MakeThdReaderCandidate(TCandidateContext& context);
UpStreamRef MakeWavReaderCandidate(TCandidateContext& context);
UpStreamRef MakeWavDtsReaderCandidate(TCandidateContext& context);
UpStreamRef MakeFlacDecoderCandidate(TCandidateContext& context);
UpStreamRef MakeVc1ReaderCandidate(TCandidateContext& context);
UpStreamRef MakeMpeg2ReaderCandidate(TCandidateContext& context);
UpStreamRef MakeH264ReaderCandidate(TCandidateContext& context);
UpStreamRef MakeH265ReaderCandidate(TCandidateContext& context);

// The order is the detector's tie-break: container parsers first, then audio, then video.
inline constexpr TCandidateSlot kCandidateSlots[] = {
    {0, "TEvoParser", &MakeEvoParserCandidate},
    {1, "TTsParser", &MakeTsParserCandidate},
    {2, "TDtsReader", &MakeDtsReaderCandidate},
    {3, "TAc3Reader", &MakeAc3ReaderCandidate},
    {4, "TMp2Reader", &MakeMp2ReaderCandidate},
    {5, "TThdReader", &MakeThdReaderCandidate},
    {6, "TWavReader", &MakeWavReaderCandidate},
    {7, "TWavReader + TWavDtsReader + TDtsReader", &MakeWavDtsReaderCandidate},
    {8, "TFlacDecoder", &MakeFlacDecoderCandidate},
    {9, "TVc1Reader", &MakeVc1ReaderCandidate},
    {10, "TMpeg2Reader", &MakeMpeg2ReaderCandidate},
    {11, "Th264Reader", &MakeH264ReaderCandidate},
    {12, "Th265Reader", &MakeH265ReaderCandidate},
};
inline constexpr uint32_t kCandidateCount = sizeof(kCandidateSlots) / sizeof(kCandidateSlots[0]);
// The slot whose chain holds the DTS reader that tells "dtswav" apart from "wav".
inline constexpr uint32_t kDtsWavSlot = 7;

static_assert(kCandidateCount == 13);
static_assert([] {
  for (uint32_t i = 0; i < kCandidateCount; i++)
    if (kCandidateSlots[i].index != i) return false;
  return true;
}());

}  // namespace sonvex
