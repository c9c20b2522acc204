// From a channel's blocks to the description by which its values are decoded.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <unordered_map>
#include <vector>

#include "Mdf4/format/m4Block.h"
#include "tolvex/Mdf4.h"

namespace tolvex {

// A text that several descriptions may share; null for "".
using SharedText = std::shared_ptr<const std::string>;

// A conversion block with its texts. Shared by the channels that link it.
struct Conversion {
  m4CCRecord record = {};
  std::vector<double> values;     // cc_val, as many as the block states and holds
  std::vector<SharedText> texts;  // one per cc_ref, likewise
  SharedText name;
  SharedText unit;
  SharedText comment;
};

// What a channel's description takes from blocks other than the channel's own.
struct ChannelTexts {
  SharedText name;
  SharedText unit;
  SharedText comment;
  std::shared_ptr<const Conversion> conversion;  // null: none
};

// Loads the texts and conversions of many channels of one file, each of them once: what channels
// share in the file they share in memory.
class ChannelTextLoader {
 public:
  // For about `channels` channels, which only sizes the tables in advance.
  ChannelTextLoader(DirectFile& file, std::size_t channels);
  ChannelTexts load(const M4CNBlock& channel);

 private:
  SharedText text(std::uint64_t position);
  std::shared_ptr<const Conversion> conversion(std::uint64_t position);

  DirectFile& file_;
  std::unordered_map<std::uint64_t, SharedText> texts_;
  std::unordered_map<std::uint64_t, std::shared_ptr<const Conversion>> conversions_;
};

// Fills record and values of `conversion` and returns its block; null when the position leads to no
// conversion.
std::unique_ptr<M4CCBlock> loadConversionNumbers(DirectFile& file, std::uint64_t position,
                                                 Conversion& conversion);

// The whole description, or all but the conversion's values and texts.
enum class Tables : std::uint8_t { With, Without };
MdfSigCCInfo describeChannel(const M4CNBlock& channel, const ChannelTexts& texts, Tables tables);

}  // namespace tolvex
