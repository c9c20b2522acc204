// The texts and conversions of a file.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "Mdf4/format/m4Block.h"

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

// Of texts that should be UTF-8: as they stand in the file, or with U+FFFD for what is none.
enum class TextForm { Stored, Checked };

// The texts and conversions of one file, each loaded once: what channels share in the file they
// share in memory. Borrows the file.
class FileTexts {
 public:
  explicit FileTexts(DirectFile& file, TextForm form = TextForm::Stored)
      : file_(file), form_(form) {}
  void clear();

  // The text of the TX block at the position; null for any other.
  SharedText plain(std::uint64_t position);
  // Of an MD block what stands in its <TX>, too.
  SharedText content(std::uint64_t position) { return entry(position).text; }
  // Of an MD block the XML, too.
  SharedText whole(std::uint64_t position);
  // A conversion without its texts; null for none.
  std::shared_ptr<const Conversion> numbers(std::uint64_t position);
  ChannelTexts load(const M4CNBlock& channel);

 private:
  struct Text {
    SharedText text;
    bool isXml = false;  // `text` is what stands in it
  };

  const Text& entry(std::uint64_t position);
  SharedText shared(std::string_view text) const;
  std::shared_ptr<const Conversion> conversion(std::uint64_t position);

  DirectFile& file_;
  TextForm form_;
  std::unordered_map<std::uint64_t, Text> texts_;
  std::unordered_map<std::uint64_t, SharedText> xml_;
  std::unordered_map<std::uint64_t, std::shared_ptr<const Conversion>> conversions_;
  std::unordered_map<std::uint64_t, std::shared_ptr<const Conversion>> numbers_;
};

// Fills record and values of `conversion` and returns its block; null when the position leads to no
// conversion.
std::unique_ptr<M4CCBlock> loadConversionNumbers(DirectFile& file, std::uint64_t position,
                                                 Conversion& conversion);

}  // namespace tolvex
