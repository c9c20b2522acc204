#include "Mdf4/plain/StreamDictionary.h"

#include <utility>

namespace tolvex::plain {
namespace {

// Of one channel; with more its numbers begin anew, so that memory does not grow with a stream.
constexpr std::uint64_t kMostTexts = 1 << 16;
constexpr std::size_t kMostBytes = 4 << 20;

}  // namespace

void StreamDictionary::renumber(MdfColumn& column) {
  if (texts_->count() > kMostTexts || texts_->bytes.size() > kMostBytes) {
    codes_.clear();
    texts_ = std::make_shared<Texts>();
  }
  add(column.texts());
  std::vector<std::int32_t> numbers;
  numbers.reserve(column.texts().size());
  for (const std::string& text : column.texts()) numbers.push_back(codes_.at(text));
  // The column is this stream's own.
  auto* const codes = const_cast<std::int32_t*>(column.as<std::int32_t>());
  for (std::uint64_t i = 0; i < column.size(); ++i) {
    codes[i] = codes[i] < 0 ? 0 : numbers[static_cast<std::size_t>(codes[i])];
  }
}

void StreamDictionary::add(const std::vector<std::string>& texts) {
  std::shared_ptr<Texts> more;
  for (const std::string& text : texts) {
    const auto code = static_cast<std::int32_t>(codes_.size());
    if (!codes_.try_emplace(text, code).second) continue;
    if (more == nullptr) more = std::make_shared<Texts>(*texts_);
    more->bytes += text;
    more->offsets.push_back(static_cast<std::int64_t>(more->bytes.size()));
  }
  if (more != nullptr) texts_ = std::move(more);
}

ArrowOwner<ArrowArray> StreamDictionary::texts() const {
  ArrowParts parts;
  parts.length = static_cast<std::int64_t>(texts_->count());
  parts.buffers = {nullptr, texts_->offsets.data(), texts_->bytes.data()};
  parts.kept = {texts_};
  return makeArray(std::move(parts));
}

}  // namespace tolvex::plain
