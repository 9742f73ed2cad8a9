// The factories of the detection candidates, one per slot. A reader family plugs its reader in
// by including its header beside its slot and returning its Create() there; a slot that returns
// nullptr stays empty. The detector makes each candidate silent and ends its chain in a
// TFileSimulator, so a factory only builds the reader (or, for slot 7, the reader chain).

#include "files/detectorcandidates.h"

#include "ac3/ac3reader.h"
#include "codecs/flacdecoder.h"
#include "codecs/wavdtsreader.h"
#include "codecs/wavreader.h"
#include "dts/dtsreader.h"
#include "evo/evoparser.h"
#include "mp2/mp2reader.h"
#include "thd/thdreader.h"
#include "ts/tsparser.h"
#include "video/h264reader.h"
#include "video/h265reader.h"
#include "video/mpeg2reader.h"
#include "video/vc1reader.h"

namespace sonvex {

// Slot 0: TEvoParser (takes the EVO option).
UpStreamRef MakeEvoParserCandidate(TCandidateContext& context) {
  return TEvoParser::Create(context.evoOption);
}

// Slot 1: TTsParser (takes the TS option: "-logPids"; the EVO option goes to its DTS readers).
UpStreamRef MakeTsParserCandidate(TCandidateContext& context) {
  return TTsParser::Create(context.tsOption, context.evoOption);
}

// Slot 2: TDtsReader.
UpStreamRef MakeDtsReaderCandidate(TCandidateContext& context) {
  return TDtsReader::Create();
}

// Slot 3: TAc3Reader.
UpStreamRef MakeAc3ReaderCandidate(TCandidateContext& context) {
  return TAc3Reader::Create();
}

// Slot 4: TMp2Reader.
UpStreamRef MakeMp2ReaderCandidate(TCandidateContext& context) {
  return TMp2Reader::Create();
}

// Slot 5: TThdReader.
UpStreamRef MakeThdReaderCandidate(TCandidateContext& context) {
  return TThdReader::Create();
}

// Slot 6: TWavReader.
UpStreamRef MakeWavReaderCandidate(TCandidateContext& context) {
  return TWavReader::Create();
}

// Slot 7: TWavReader -> TWavDtsReader -> TDtsReader. The head is returned; the TDtsReader goes
// into context.dtsWavReader.
UpStreamRef MakeWavDtsReaderCandidate(TCandidateContext& context) {
  auto head = TWavReader::Create();
  auto dts = TDtsReader::Create();
  head->AppendUpStream(TWavDtsReader::Create());
  head->AppendUpStream(dts);
  context.dtsWavReader = dts;
  return head;
}

// Slot 8: TFlacDecoder.
UpStreamRef MakeFlacDecoderCandidate(TCandidateContext& context) {
  return TFlacDecoder::Create();
}

// Slot 9: TVc1Reader.
UpStreamRef MakeVc1ReaderCandidate(TCandidateContext& context) {
  return TVc1Reader::Create();
}

// Slot 10: TMpeg2Reader.
UpStreamRef MakeMpeg2ReaderCandidate(TCandidateContext& context) {
  return TMpeg2Reader::Create();
}

// Slot 11: Th264Reader.
UpStreamRef MakeH264ReaderCandidate(TCandidateContext& context) {
  return Th264Reader::Create();
}

// Slot 12: Th265Reader.
UpStreamRef MakeH265ReaderCandidate(TCandidateContext& context) {
  return Th265Reader::Create();
}

}  // namespace sonvex
