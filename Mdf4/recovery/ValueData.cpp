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
        const std::uint64_t got = bytes.readSome(count, place);
        if (!writer_.commit(got)) return false;
        const std::uint64_t unreadable = got == count ? 0 : bytes.passUnreadable();
        lose(offset + got, unreadable);
        offset += got + unreadable;
        unread -= got + unreadable;
        if (got != count && unreadable == 0) break;
      }
      openEnd_ = block.cut;
    } else {
      openEnd_ = unread == 0;  // nobody knows where the next block's bytes belong
    }
    lose(offset, unread);
    offset += unread;
  }
  return true;
}

void ValueData::lose(std::uint64_t start, std::uint64_t bytes) {
  if (bytes == 0) return;
  lostBytes_ += bytes;
  if (!lost_.empty() && lost_.back().end == start) {
    lost_.back().end = start + bytes;
    lost_.back().before = lostBytes_;
  } else {
    lost_.push_back({start, start + bytes, lostBytes_});
  }
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
