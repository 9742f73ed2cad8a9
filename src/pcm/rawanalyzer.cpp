// TRawAnalyzer. Candidates in table order: channels 1 to 8, layouts 1 to 6, little then big
// endian (8-bit layouts only little). Each is an encoder (behind a TEndianSwapper for big
// endian) at compression level 8, in its size contest form (fixed predictors only), with a
// TFileSimulator that counts its output. The analysis runs on every block; a decision can be
// replaced by a later one when another candidate pulls ahead.
#include "pcm/rawanalyzer.h"

#include <algorithm>
#include <vector>

#include "codecs/flacencoder.h"
#include "pcm/endianswapper.h"

namespace sonvex {

namespace {

constexpr uint64_t kPruneStart = 0x10000;
constexpr uint64_t kDecisionMinimum = 0x40000;
constexpr uint64_t kSureSize = 0x500000;

// Pruning: with `best` above the size, a candidate above best * num / den is dropped. The last
// row that applies counts.
struct TPruneRow {
  uint64_t above;
  uint64_t num, den;
};
constexpr TPruneRow kPruneRows[] = {
    {0x10000, 5, 1}, {0x20000, 3, 1}, {0x40000, 2, 1}, {0x80000, 3, 2}};

std::string EndianWord(bool big) { return big ? "big" : "little"; }

}  // namespace

TRawAnalyzer::TRawAnalyzer(uint32_t rate, bool strict, uint32_t endian, uint32_t bits,
                           uint32_t suggestedChannelCount)
    : sampleRate(rate ? rate : 48000), strict(strict), suggestedEndian(endian),
      suggestedBits(bits), suggestedChannels(suggestedChannelCount) {
  if (strict) {
    channels = suggestedChannels;
    bytes = suggestedBits / 8;
    if (suggestedEndian) {
      endianKnown = true;
      bigEndian = suggestedEndian == 2;
    }
  }
}

uint32_t TRawAnalyzer::ActiveCandidates() const {
  return uint32_t(std::count_if(candidates.begin(), candidates.end(),
                                [](const TCandidate& c) { return c.first != nullptr; }));
}

std::string TRawAnalyzer::Standings() const {
  std::string text;
  for (const TCandidate& c : candidates)
    if (c.first)
      text += std::to_string(c.channels) + "/" + std::to_string(c.bytes * 8) +
              (c.bigEndian ? "be" : "le") + "+" + std::to_string(c.skip) + ": " +
              std::to_string(c.sink->Size()) + "\n";
  return text;
}

bool TRawAnalyzer::InitAudio(const std::string& format, uint32_t inChannels, uint32_t inBits,
                             uint32_t, bool, int64_t totalSize) {
  if (!valid) return false;
  if (format != "?" && format != "raw" && format != "pcm")
    return Fail("The RAW analyzer received a non-supported data format.");
  formatReceived = true;
  streamBytes = uint64_t(std::max<int64_t>(totalSize, 0)) * inChannels * inBits / 8;
  if (strict && suggestedChannels && suggestedBits && suggestedEndian) {
    SetDetails();
    valid = false;  // nothing to analyse: the source stops here
  }
  return true;
}

void TRawAnalyzer::BuildCandidates() {
  candidatesBuilt = true;
  size_t slot = 0;
  for (uint32_t ch = 1; ch <= kRawMaxChannels; ch++) {
    for (const TRawLayout& layout : kRawLayouts) {
      for (bool big : {false, true}) {
        TCandidate& c = candidates[slot++];
        if (big && layout.bytes == 1) continue;
        if (strict && ((suggestedChannels && suggestedChannels != ch) ||
                       (suggestedBits && suggestedBits != layout.bytes * 8) ||
                       (suggestedEndian && (suggestedEndian == 2) != big)))
          continue;
        c.channels = ch;
        c.bytes = layout.bytes;
        c.skip = layout.skip;
        c.skipLeft = layout.skip;
        c.bigEndian = big;
        auto encoder = TFlacEncoder::Create(8);
        encoder->SetSizeContest();
        c.sink = TFileSimulator::Create();
        encoder->SetUpStream(c.sink);
        if (big) {
          c.first = TEndianSwapper::Create();
          c.first->SetUpStream(encoder);
        } else {
          c.first = encoder;
        }
        c.first->SetSilent(true);
        c.first->InitAudio("pcm", ch, layout.bytes * 8, sampleRate, big, 0);
        if (!c.first->IsValid()) {
          Log(2, "The RAW analyzer raised an internal error for " + std::to_string(ch) +
                     " channels, " + std::to_string(layout.bytes * 8) + " bit, " +
                     EndianWord(big) + " endian.");
          Drop(c);
        }
      }
    }
  }
}

void TRawAnalyzer::Drop(TCandidate& candidate) {
  candidate.first = nullptr;
  candidate.sink = nullptr;
}

bool TRawAnalyzer::Write(SenderId, bool, const uint8_t* data, uint32_t size, int64_t, bool) {
  if (!valid) return false;
  if (!formatReceived) return Fail("The RAW analyzer received a non-supported data format.");
  if (!candidatesBuilt) BuildCandidates();
  bytesReceived += size;
  for (TCandidate& c : candidates) {
    if (!c.first) continue;
    if (c.skipLeft < size) {
      if (!c.first->Write(0, false, data + c.skipLeft, size - c.skipLeft, -1, false)) Drop(c);
      c.skipLeft = 0;
    } else {
      c.skipLeft -= size;
    }
  }
  Analyse(false);
  return valid;
}

bool TRawAnalyzer::FillFromSuggestions() {
  if (!channels) channels = suggestedChannels;
  if (!bytes) bytes = suggestedBits / 8;
  if (!endianKnown && suggestedEndian) {
    endianKnown = true;
    bigEndian = suggestedEndian == 2;
  }
  return !Unknown();
}

void TRawAnalyzer::CannotTell() {
  Log(0, "Was not able to figure out all parameters of this RAW/PCM file.");
  Log(0, "Please specify channel, bitdepth and endian parameters via command line.");
}

void TRawAnalyzer::SetDetails() {
  if (Unknown()) return;
  uint64_t duration = streamBytes / channels / bytes * 1000 / sampleRate;
  SetAudioDetails("pcm", "RAW/PCM", "", "", uint32_t(duration), channels, 0, bytes * 8,
                  sampleRate, 0, 0, skip, bigEndian);
}

void TRawAnalyzer::CompareEndian() {
  if (!suggestedEndian || !endianKnown) return;
  std::string word = EndianWord(suggestedEndian == 2);
  if ((suggestedEndian == 2) == bigEndian) {
    Log(0, "The suggested endian (" + word + ") should be correct.");
  } else {
    Log(2, "The suggested endian (" + word + ") doesn't seem to fit.");
    endianKnown = false;
    valid = false;
    refused = true;
  }
}

void TRawAnalyzer::CompareDepth() {
  if (!suggestedBits || !bytes) return;
  std::string text = "The suggested depth of " + std::to_string(suggestedBits) + " bits ";
  if (suggestedBits == bytes * 8) {
    Log(0, text + "should be correct.");
  } else {
    Log(2, text + "doesn't seem to fit.");
    bytes = 0;
    valid = false;
    refused = true;
  }
}

void TRawAnalyzer::CompareChannels() {
  if (!suggestedChannels || !channels) return;
  std::string text = "The suggested number of " + std::to_string(suggestedChannels) + " channels ";
  if (suggestedChannels == channels) {
    Log(0, text + "should be correct.");
  } else {
    Log(2, text + "doesn't seem to fit.");
    channels = 0;
    valid = false;
    refused = true;
  }
}

void TRawAnalyzer::TakeEndian(bool big) {
  if (endianKnown && bigEndian == big) return;
  endianKnown = true;
  bigEndian = big;
  Log(1, big ? "The RAW/PCM file seems to be big endian."
             : "The RAW/PCM file seems to be little endian.");
  CompareEndian();
}

void TRawAnalyzer::TakeLayout(uint32_t newBytes, uint32_t newSkip) {
  if (bytes == newBytes && skip == newSkip) return;
  bytes = newBytes;
  skip = newSkip;
  Log(0, "The RAW/PCM file seems to have a bitdepth of " + std::to_string(bytes * 8) + " bits.");
  if (skip > 0) {
    Log(1, "The RAW/PCM file seems to be improperly aligned.");
    Log(1, channels == 1 ? "Will try to work around the problem."
                         : "Will try to work around the problem, but the channel order may be "
                           "incorrect.");
  }
  CompareDepth();
}

void TRawAnalyzer::TakeChannels(uint32_t newChannels) {
  if (channels == newChannels) return;
  channels = newChannels;
  Log(0, "The RAW/PCM file seems to have " + std::to_string(channels) + " channels.");
  CompareChannels();
}

void TRawAnalyzer::Decide(const TCandidate& winner) {
  if (!endianKnown || bigEndian != winner.bigEndian) TakeEndian(winner.bigEndian);
  if (valid) TakeLayout(winner.bytes, winner.skip);
  if (valid) TakeChannels(winner.channels);
  if (valid) SetDetails();
}

void TRawAnalyzer::Analyse(bool final) {
  std::vector<uint64_t> sizes;
  for (const TCandidate& c : candidates)
    if (c.first && c.skipLeft == 0 && c.sink->Size() > 0) sizes.push_back(uint64_t(c.sink->Size()));
  if (sizes.empty()) return;
  std::sort(sizes.begin(), sizes.end());
  const uint64_t best = sizes[0];
  const bool hasSecond = sizes.size() > 1;
  const uint64_t second = hasSecond ? sizes[1] : 0;
  const uint64_t received = bytesReceived;

  // Not even the best reading compresses below 10/13 of the raw size: no PCM to tell apart.
  if (received > kDecisionMinimum && received * 10 < best * 13) {
    if (FillFromSuggestions())
      SetDetails();
    else
      CannotTell();
    for (TCandidate& c : candidates) Drop(c);
    valid = false;  // the source stops; what is known stands in the details
    return;
  }
  bool decided = (hasSecond && best > kDecisionMinimum && second * 10 > best * 15) ||
                 (best > kSureSize && (!hasSecond || second * 10 > best * 13)) ||
                 (final && (!hasSecond || second * 10 > best * 11));
  if (decided) {
    for (const TCandidate& c : candidates) {
      if (c.first && c.skipLeft == 0 && uint64_t(c.sink->Size()) == best) {
        Decide(c);
        break;
      }
    }
    return;
  }
  if (final) return;
  const TPruneRow* row = nullptr;
  for (const TPruneRow& r : kPruneRows)
    if (best > r.above) row = &r;
  if (!row) return;
  bool dropped = false;
  for (TCandidate& c : candidates) {
    if (!c.first || c.skipLeft != 0) continue;
    if (uint64_t(c.sink->Size()) * row->den > best * row->num) {
      Drop(c);
      dropped = true;
    }
  }
  if (!dropped) return;
  // Consensus among the survivors, for each unknown in turn.
  const TCandidate* any = nullptr;
  bool oneOrder = true, oneLayout = true, oneCount = true;
  for (const TCandidate& c : candidates) {
    if (!c.first) continue;
    if (!any) {
      any = &c;
      continue;
    }
    oneOrder = oneOrder && c.bigEndian == any->bigEndian;
    oneLayout = oneLayout && c.bytes == any->bytes && c.skip == any->skip;
    oneCount = oneCount && c.channels == any->channels;
  }
  if (!any) return;
  if (!endianKnown && oneOrder) TakeEndian(any->bigEndian);
  if (valid && !bytes && oneLayout) TakeLayout(any->bytes, any->skip);
  if (valid && !channels && oneCount) TakeChannels(any->channels);
  if (valid) SetDetails();
}

void TRawAnalyzer::ReportChannelCounts() {
  struct TCount {
    uint32_t channels;
    uint64_t size;
  };
  std::vector<TCount> counts;
  for (uint32_t ch = 1; ch <= kRawMaxChannels; ch++) {
    for (const TCandidate& c : candidates) {
      if (c.first && c.channels == ch) {
        counts.push_back({ch, uint64_t(c.sink->Size())});
        break;
      }
    }
  }
  if (counts.size() < 2) {
    Log(2, "Internal error in channel analyzation.");
    return;
  }
  uint32_t winner = 0;
  uint64_t smallest = UINT64_MAX;
  for (const TCount& c : counts) {
    if (c.size < smallest) {
      smallest = c.size;
      winner = c.channels;
    } else if (c.size == smallest) {
      winner = 0;
    }
  }
  bool suggestionListed = false;
  std::string list;
  for (size_t i = 0; i < counts.size(); i++) {
    if (i > 0) list += i + 1 == counts.size() ? " or " : ", ";
    list += std::to_string(counts[i].channels);
    suggestionListed = suggestionListed || counts[i].channels == suggestedChannels;
  }
  Log(0, "The RAW/PCM file probably has " + list + " channels.");
  if (winner) Log(0, "The most probable number of channels is " + std::to_string(winner) + ".");
  if (!suggestedChannels) {
    Log(0, "Please specify one of these via command line paramater.");
  } else if (suggestionListed) {
    channels = suggestedChannels;
    Log(0, "The suggested number of " + std::to_string(channels) + " channels " +
               (channels == winner ? "is probably correct." : "might be correct - or not."));
    SetDetails();
  } else {
    Log(0, "The suggested number of " + std::to_string(suggestedChannels) +
               " channels doesn't seem to fit.");
  }
}

bool TRawAnalyzer::Finish() {
  if (!formatReceived) return false;
  if (valid && Unknown()) {
    // The encoders hold back the samples of their last, unfinished frame, more of them the more
    // channels and bytes a reading has: finished, every candidate has coded all it was given.
    for (TCandidate& c : candidates)
      if (c.first && !c.first->Finish()) Drop(c);
    Analyse(true);
  }
  if (refused) return true;
  if (!Unknown() || !candidatesBuilt) {
    if (!Unknown()) SetDetails();
    return true;
  }
  if (bytes == 0 || !endianKnown) {
    if (FillFromSuggestions())
      SetDetails();
    else if (ActiveCandidates() > 0 || valid)
      CannotTell();
    return true;
  }
  ReportChannelCounts();
  return true;
}

}  // namespace sonvex
