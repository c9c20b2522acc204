#include "Mdf4/model/FileTexts.h"

#include <algorithm>
#include <cinttypes>
#include <string_view>
#include <utility>

#include "Mdf4/base/Diagnostics.h"
#include "Mdf4/format/BlockLoader.h"
#include "Mdf4/model/Text.h"

namespace tolvex {
namespace {

// The texts of one conversion, repeated ones included, may hold as many bytes as the file and this.
constexpr std::uint64_t kAlwaysText = 1 << 20;

// What stands between the first <TX> and the first </TX>.
std::string_view textOfXml(std::string_view xml) {
  constexpr std::string_view kOpen = "<TX>";
  constexpr std::string_view kClose = "</TX>";
  const std::size_t open = xml.find(kOpen);
  const std::size_t close = xml.find(kClose);
  if (open == std::string_view::npos || close == std::string_view::npos) return {};
  const std::size_t start = open + kOpen.size();
  return close < start ? std::string_view{} : xml.substr(start, close - start);
}

}  // namespace

void FileTexts::clear() {
  texts_.clear();
  xml_.clear();
  conversions_.clear();
  numbers_.clear();
}

const FileTexts::Text& FileTexts::entry(std::uint64_t position) {
  static const Text kNone;
  if (position == 0) return kNone;
  const auto found = texts_.find(position);
  if (found != texts_.end()) return found->second;
  Text entry;
  const std::uint64_t failed = file_.reads().failures();
  const std::unique_ptr<m4Block> block = loadBlock(file_, position);
  if (file_.reads().failures() != failed) return kNone;  // another attempt may succeed
  if (block != nullptr &&
      (block->typeCode() == block_type::kTX || block->typeCode() == block_type::kMD)) {
    entry.isXml = block->typeCode() == block_type::kMD;
    std::string_view text = static_cast<const M4TXBlock&>(*block).text();
    if (entry.isXml) text = textOfXml(text);
    if (!text.empty()) entry.text = shared(text);
  }
  return texts_.emplace(position, std::move(entry)).first->second;
}

SharedText FileTexts::shared(std::string_view text) const {
  auto copy = std::make_shared<std::string>(text);
  if (form_ == TextForm::Checked) makeUtf8(*copy);
  return copy;
}

SharedText FileTexts::plain(std::uint64_t position) {
  const Text& text = entry(position);
  return text.isXml ? nullptr : text.text;
}

SharedText FileTexts::whole(std::uint64_t position) {
  const Text& text = entry(position);
  if (!text.isXml) return text.text;
  const auto found = xml_.find(position);
  if (found != xml_.end()) return found->second;
  return xml_.emplace(position, shared(loadText(file_, position))).first->second;
}

std::shared_ptr<const Conversion> FileTexts::numbers(std::uint64_t position) {
  if (position == 0) return nullptr;
  const auto found = numbers_.find(position);
  if (found != numbers_.end()) return found->second;
  auto conversion = std::make_shared<Conversion>();
  const std::uint64_t failed = file_.reads().failures();
  if (loadConversionNumbers(file_, position, *conversion) == nullptr) conversion = nullptr;
  if (file_.reads().failures() != failed) return nullptr;
  return numbers_.emplace(position, std::move(conversion)).first->second;
}

std::unique_ptr<M4CCBlock> loadConversionNumbers(DirectFile& file, std::uint64_t position,
                                                 Conversion& conversion) {
  auto block = loadBlockAs<M4CCBlock>(file, position);
  if (block == nullptr) return nullptr;
  conversion.record = *block;
  const std::size_t values = std::min<std::size_t>(block->cc_val_count, block->extra().size());
  const auto stored = block->extra().first(values);
  conversion.values.assign(stored.begin(), stored.end());
  const std::size_t links = std::max<std::size_t>(block->linkCount(), link::cc_ref) - link::cc_ref;
  if (values < block->cc_val_count || links < block->cc_ref_count) {
    file.report(formatText("conversion at %" PRIu64
                           ": it states %u values and %u references, and has room for %zu and %zu",
                           position, unsigned{block->cc_val_count}, unsigned{block->cc_ref_count},
                           values, links));
  }
  return block;
}

std::shared_ptr<const Conversion> FileTexts::conversion(std::uint64_t position) {
  if (position == 0) return nullptr;
  const auto found = conversions_.find(position);
  if (found != conversions_.end()) return found->second;
  auto conversion = std::make_shared<Conversion>();
  const std::uint64_t failed = file_.reads().failures();
  const auto block = loadConversionNumbers(file_, position, *conversion);
  if (file_.reads().failures() != failed) return nullptr;
  if (block == nullptr) return conversions_.emplace(position, nullptr).first->second;
  std::uint64_t room = file_.end() + kAlwaysText;
  for (std::size_t i = link::cc_ref;
       i < block->linkCount() && conversion->texts.size() < block->cc_ref_count; ++i) {
    SharedText entryText = content(block->link(i));
    const std::uint64_t size = entryText == nullptr ? 0 : entryText->size();
    if (size > room) {
      file_.report(
          formatText("conversion at %" PRIu64 ": its texts are larger than the file", position));
      break;
    }
    room -= size;
    conversion->texts.push_back(std::move(entryText));
  }
  conversion->name = content(block->link(link::cc_tx_name));
  conversion->unit = content(block->link(link::cc_md_unit));
  conversion->comment = content(block->link(link::cc_md_comment));
  return conversions_.emplace(position, std::move(conversion)).first->second;
}

ChannelTexts FileTexts::load(const M4CNBlock& channel) {
  ChannelTexts texts;
  texts.name = content(channel.link(link::cn_tx_name));
  texts.unit = content(channel.link(link::cn_md_unit));
  texts.comment = content(channel.link(link::cn_md_comment));
  texts.conversion = conversion(channel.link(link::cn_cc_conversion));
  return texts;
}

}  // namespace tolvex
