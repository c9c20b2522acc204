#include "Mdf4/check/BlockReader.h"

#include <algorithm>
#include <cinttypes>
#include <string>
#include <utility>

#include "Mdf4/base/Diagnostics.h"
#include "Mdf4/format/BlockBytes.h"

namespace tolvex {
namespace {

// As many inflated bytes as no file of records reaches, but one made to inflate without end.
constexpr std::uint64_t kInflatedPerByte = 128;
constexpr std::uint64_t kAlwaysInflated = std::uint64_t{256} << 20;

}  // namespace

BlockReader::BlockReader(BlockCheck& walk, const WorkSizes& sizes,
                         std::function<void(std::uint64_t)> progress)
    : walk_(walk),
      sizes_(sizes),
      progress_(std::move(progress)),
      inflater_(walk.file(), sizes.piece),
      lookUps_(walk.file(), sizes.piece),
      budget_(walk.file().end() / 2 > ~std::uint64_t{0} / kInflatedPerByte / 4
                  ? ~std::uint64_t{0}
                  : walk.file().end() * kInflatedPerByte + kAlwaysInflated) {}

bool BlockReader::deliver(const FoundBlock& block, const StoredPart& part, ByteSink& sink) {
  return part.zip ? deliverInflated(block, part, sink) : deliverPlain(part, sink);
}

bool BlockReader::deliverPlain(const StoredPart& part, ByteSink& sink) {
  if (!sink.wantsBytes()) {
    sink.skip(part.length);
    progress_(part.length);
    return true;
  }
  if (!buffer_.reserve(std::min(sizes_.piece, part.length))) return false;
  BlockBytes stored(walk_.file(), part.position, part.length);
  bool whole = true;
  while (stored.left() != 0) {
    const std::uint64_t start = part.position + part.length - stored.left();
    const std::uint64_t length = std::min(sizes_.piece, stored.left());
    const std::uint64_t got = stored.readSome(length, buffer_.data());
    if (got != 0) sink.bytes({buffer_.data(), inMemory(got)}, start);
    progress_(got);
    if (got == length) continue;
    // What cannot be read is a finding elsewhere.
    std::uint64_t passed = stored.passUnreadable();
    if (passed == 0) {
      passed = stored.left();
      stored.pass(passed);
    }
    sink.skip(passed);
    progress_(passed);
    whole = false;
  }
  return whole;
}

bool BlockReader::deliverInflated(const FoundBlock& block, const StoredPart& part, ByteSink& sink) {
  progress_(part.stored());
  if (!charge(part.length)) {
    if (!std::exchange(toldOfBudget_, true)) {
      walk_.findings().warning(block.position, fieldName(block.type, "compressed data"), "",
                               "not inflated, as all that follow: they are too many");
    }
    sink.skip(part.length);
    return true;
  }
  const bool transposed = part.zip->isTransposed();
  std::uint64_t delivered = 0;
  std::string fault;
  if (transposed && sink.wantsBytes() && canBeHeld(part)) {
    fault = inflater_.inflateRows(*part.zip, part.length, rows_).fault(part.length);
    if (fault.empty()) {
      delivered = part.length;
      sink.bytes({rows_.data(), inMemory(part.length)}, part.position);
    }
  } else {
    BlockInflater::Piece take;
    if (sink.wantsBytes() && !transposed) {
      take = [&](ByteSpan piece) {
        delivered += piece.size();
        sink.bytes(piece, part.position);
      };
    }
    fault = inflater_.inflate(part.position, part.stored(), part.length, take).fault(part.length);
  }
  if (delivered != part.length) sink.skip(part.length - delivered);
  if (fault.empty()) return true;
  walk_.findings().error(part.position, fieldName(block.type, "compressed data"),
                         formatText("%" PRIu64 " bytes, inflated", part.length), fault);
  return false;
}

std::shared_ptr<const InflatedBlock> BlockReader::inflate(const StoredPart& part) {
  if (!canBeHeld(part)) return nullptr;
  DirectFile& file = walk_.file();
  return file.inflatedBlocks().fetch(
      part.position, part.length, file.end(), false, [&](InflatedBlock& block, bool again) {
        const std::uint64_t cost = std::max(part.length, InflatedBlock::kLeastCost);
        if (again ? !file.budget().takeAgain(cost) : !charge(part.length)) return false;
        block.size = part.length;
        return lookUps_.inflateRows(*part.zip, part.length, block.bytes).fault(part.length).empty();
      });
}

bool BlockReader::charge(std::uint64_t bytes) {
  if (bytes > budget_) return false;
  budget_ -= bytes;
  return true;
}

}  // namespace tolvex
