#include "Mdf4/recovery/ValueData.h"

#include <algorithm>
#include <array>

#include "Mdf4/format/BlockRecords.h"
#include "Mdf4/recovery/BlockBytes.h"

namespace tolvex {
namespace {

constexpr std::uint64_t kPrefix = sizeof(std::uint32_t);

}  // namespace

ValueData::ValueData(DirectFile& out, const WorkSizes& sizes)
    : pieceSize_(sizes.piece), writer_(out, block_type::kSD, 1, sizes) {}

bool ValueData::copy(DirectFile& in, const DataRun& run) {
  DataSequence blocks(in, run);
  ChainBlock block;
  std::uint64_t offset = 0;  // in the input's signal data
  while (!openEnd_ && blocks.next(block)) {
    std::uint64_t unread = block.bytes;
    if (block.kind == ChainBlock::Data) {
      BlockBytes bytes(in, block);
      while (bytes.left() != 0) {
        const std::uint64_t count = std::min(bytes.left(), pieceSize_);
        std::uint8_t* const place = writer_.room(count);
        if (place == nullptr) return false;
        if (!bytes.read(count, place)) break;
        if (!writer_.commit(count)) return false;
        offset += count;
        unread -= count;
      }
      openEnd_ = block.cut;
    } else {
      openEnd_ = unread == 0;  // nobody knows where the next block's bytes belong
    }
    if (unread != 0) {
      lostBytes_ += unread;
      lost_.push_back({offset, offset + unread, lostBytes_});
      offset += unread;
    }
  }
  return true;
}

std::optional<std::uint64_t> ValueData::find(std::uint64_t offset) const {
  const auto behind =
      std::upper_bound(lost_.begin(), lost_.end(), offset,
                       [](std::uint64_t value, const Lost& lost) { return value < lost.start; });
  std::uint64_t limit = writer_.size();  // in the output
  if (behind != lost_.begin()) {
    const Lost& before = *std::prev(behind);
    if (offset < before.end) return std::nullopt;
    offset -= before.before;
  }
  if (behind != lost_.end()) {
    limit = behind->start - (behind->before - (behind->end - behind->start));
  }
  std::array<std::uint8_t, kPrefix> prefix = {};
  if (offset > limit || limit - offset < kPrefix || !writer_.read(offset, prefix)) {
    return std::nullopt;
  }
  if (loadNumber<std::uint32_t>(prefix.data()) > limit - offset - kPrefix) return std::nullopt;
  return offset;
}

std::uint64_t ValueData::add(ByteSpan value) {
  const std::uint64_t offset = writer_.size();
  writer_.append(value);
  return offset;
}

std::uint64_t ValueData::empty() {
  constexpr std::array<std::uint8_t, kPrefix> kNothing = {};
  if (!empty_) empty_ = add(kNothing);
  return *empty_;
}

}  // namespace tolvex
