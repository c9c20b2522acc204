#include "Mdf4/rewrite/ValueData.h"

#include <algorithm>
#include <array>
#include <limits>

#include "Mdf4/format/BlockBytes.h"
#include "Mdf4/format/BlockRecords.h"

namespace tolvex {

ValueData::ValueData(DirectFile& out, const WorkSizes& sizes)
    : pieceSize_(sizes.piece), writer_(out, block_type::kSD, 1, sizes) {}

bool ValueData::copy(DirectFile& in, const FoundData& run) {
  FoundBlocks blocks(in, run);
  ListedBlock block;
  std::uint64_t offset = 0;  // in the input's signal data
  while (!openEnd_ && blocks.next(block)) {
    std::uint64_t unread = block.bytes;
    if (block.kind == ListedBlock::Data) {
      BlockBytes bytes(in, block);
      while (bytes.left() != 0) {
        const std::uint64_t count = std::min(bytes.left(), pieceSize_);
        std::uint8_t* const place = writer_.room(count);
        if (place == nullptr) return false;
        const std::uint64_t got = bytes.readSome(count, place);
        starts_.take({place, inMemory(got)});
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
  return coverRest();
}

// Makes one value, or as few as their lengths can state, of all behind the last whole one.
bool ValueData::coverRest() {
  std::uint64_t at = starts_.end();
  copied_ = writer_.size();
  copyable_ = copied_;
  while (at < writer_.size()) {
    constexpr std::array<std::uint8_t, kValuePrefix> kZeros = {};
    const std::uint64_t room = writer_.size() - at;
    if (room < kValuePrefix && !writer_.append(ByteSpan(kZeros).subspan(inMemory(room))))
      return false;
    const std::uint64_t covered = std::min<std::uint64_t>(
        writer_.size() - at - kValuePrefix, std::numeric_limits<std::uint32_t>::max());
    const auto length = static_cast<std::uint32_t>(covered);
    if (!writer_.overwrite(at, bytesOf(length))) return false;
    covers_.push_back(at);
    at += kValuePrefix + covered;
  }
  return true;
}

void ValueData::lose(std::uint64_t start, std::uint64_t bytes) {
  if (bytes == 0) return;
  starts_.breakOff();
  lostBytes_ += bytes;
  if (!lost_.empty() && lost_.back().end == start) {
    lost_.back().end = start + bytes;
    lost_.back().before = lostBytes_;
  } else {
    lost_.push_back({start, start + bytes, lostBytes_});
  }
}

std::optional<std::uint64_t> ValueData::find(std::uint64_t offset) {
  const auto behind =
      std::upper_bound(lost_.begin(), lost_.end(), offset,
                       [](std::uint64_t value, const Lost& lost) { return value < lost.start; });
  std::uint64_t limit = copied_;  // in the output
  if (behind != lost_.begin()) {
    const Lost& before = *std::prev(behind);
    if (offset < before.end) return std::nullopt;
    offset -= before.before;
  }
  if (behind != lost_.end()) {
    limit = behind->start - (behind->before - (behind->end - behind->start));
  }
  const auto length = [this](std::uint64_t at, std::uint32_t& bytes) {
    return writer_.read(at, writableBytesOf(bytes));
  };
  if (starts_.mayStart(offset, length)) return offset;
  std::uint32_t bytes = 0;
  if (covers_.empty() || offset > limit || limit - offset < kValuePrefix ||
      !length(offset, bytes) || bytes > limit - offset - kValuePrefix) {
    return std::nullopt;
  }
  return addAgain(offset, kValuePrefix + bytes);
}

// Adds a value that stands in what is no sequence.
std::optional<std::uint64_t> ValueData::addAgain(std::uint64_t offset, std::uint64_t size) {
  constexpr std::size_t kMostKept = 1 << 16;
  const auto cover = std::ranges::lower_bound(covers_, offset - std::min(offset, kValuePrefix - 1));
  if (cover != covers_.end() && *cover < offset + size)
    return std::nullopt;  // bytes of it are gone
  const auto known = again_.find(offset);
  if (known != again_.end()) return known->second;
  if (size > copyable_) return std::nullopt;
  copyable_ -= size;
  const std::uint64_t start = writer_.size();
  for (std::uint64_t done = 0; done < size;) {
    const std::uint64_t count = std::min(size - done, pieceSize_);
    std::uint8_t* const place = writer_.room(count);
    if (place == nullptr || !writer_.read(offset + done, {place, inMemory(count)}) ||
        !writer_.commit(count)) {
      return std::nullopt;
    }
    done += count;
  }
  if (again_.size() < kMostKept) again_.emplace(offset, start);
  return start;
}

std::uint64_t ValueData::add(ByteSpan value) {
  const std::uint64_t offset = writer_.size();
  static_cast<void>(writer_.append(value));  // the next write fails as well
  return offset;
}

std::uint64_t ValueData::empty() {
  constexpr std::array<std::uint8_t, kValuePrefix> kNothing = {};
  if (!empty_) empty_ = add(kNothing);
  return *empty_;
}

}  // namespace tolvex
