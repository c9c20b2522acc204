#include "Mdf4/check/BlockReader.h"

#include <algorithm>
#include <cinttypes>
#include <new>
#include <span>
#include <utility>

#include "Mdf4/base/Diagnostics.h"
#include "Mdf4/base/Transposition.h"

namespace tolvex {
namespace {

// As many inflated bytes as no file of records reaches, but one made to inflate without end.
constexpr std::uint64_t kInflatedPerByte = 128;
constexpr std::uint64_t kAlwaysInflated = std::uint64_t{256} << 20;

void need(bool memory) {
  if (!memory) throw std::bad_alloc();
}

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
  return part.compressed ? deliverInflated(block, part, sink) : deliverPlain(part, sink);
}

bool BlockReader::deliverPlain(const StoredPart& part, ByteSink& sink) {
  if (!sink.wantsBytes()) {
    sink.skip(part.length);
    progress_(part.stored);
    return true;
  }
  need(buffer_.reserve(std::min(sizes_.piece, part.length)));
  bool whole = true;
  for (std::uint64_t done = 0; done < part.length;) {
    const std::uint64_t length = std::min(sizes_.piece, part.length - done);
    const WritableBytes piece(buffer_.data(), length);
    const std::uint64_t start = part.position + done;
    const std::uint64_t got = walk_.file().readPieces(start, std::span(&piece, 1));
    if (got != 0) sink.bytes(piece.first(got), start);
    // What cannot be read is a finding elsewhere.
    const ByteRange unreadable = walk_.file().reads().nextUnreadable(start + got, start + length);
    const std::uint64_t passed = got == length ? 0
                                 : unreadable.start == start + got
                                     ? unreadable.end - unreadable.start
                                     : part.length - done - got;
    if (passed != 0) sink.skip(passed);
    whole = whole && passed == 0;
    done += got + passed;
    progress_(got + passed);
  }
  return whole;
}

bool BlockReader::deliverInflated(const FoundBlock& block, const StoredPart& part, ByteSink& sink) {
  progress_(part.stored);
  if (!charge(part.length)) {
    if (!std::exchange(toldOfBudget_, true)) {
      walk_.findings().warning(block.position, fieldName(block.type, "compressed data"), "",
                               "not inflated, as all that follow: they are too many");
    }
    sink.skip(part.length);
    return true;
  }
  const bool transposed = part.zip.dz_zip_type == kZipTransposeDeflate;
  std::uint64_t delivered = 0;
  std::string fault;
  if (transposed && sink.wantsBytes() && canBeHeld(part)) {
    fault = inflateRows(inflater_, part, rows_);
    if (fault.empty()) {
      delivered = part.length;
      sink.bytes({rows_.data(), part.length}, part.position);
    }
  } else {
    PieceInflater::Piece take;
    if (sink.wantsBytes() && !transposed) {
      take = [&](ByteSpan piece) {
        delivered += piece.size();
        sink.bytes(piece, part.position);
      };
    }
    fault = inflater_.inflate(part.position, part.stored, part.length, take);
  }
  if (delivered != part.length) sink.skip(part.length - delivered);
  if (fault.empty()) return true;
  walk_.findings().error(part.position, fieldName(block.type, "compressed data"),
                         formatText("%" PRIu64 " bytes, inflated", part.length), fault);
  return false;
}

// Puts the whole of a block that can be held into `rows`. "" or what is wrong with it.
std::string BlockReader::inflateRows(PieceInflater& inflater, const StoredPart& part,
                                     ByteBuffer& rows) {
  const bool transposed = part.zip.dz_zip_type == kZipTransposeDeflate;
  ByteBuffer& target = transposed ? columns_ : rows;
  need(target.reserve(part.length) && rows.reserve(part.length));
  std::uint64_t done = 0;
  std::string fault =
      inflater.inflate(part.position, part.stored, part.length, [&](ByteSpan piece) {
        std::copy(piece.begin(), piece.end(), target.data() + done);
        done += piece.size();
      });
  if (fault.empty() && transposed) {
    undoTransposition({columns_.data(), part.length}, part.zip.dz_zip_parameter,
                      {rows.data(), part.length});
  }
  return fault;
}

std::shared_ptr<const InflatedBlock> BlockReader::inflate(const StoredPart& part) {
  if (!canBeHeld(part)) return nullptr;
  DirectFile& file = walk_.file();
  InflatedBlocks& known = file.inflatedBlocks();
  std::shared_ptr<InflatedBlock> block = known.find(part.position, part.length);
  const bool isNew = block == nullptr;
  const bool again = isNew && known.wasInflated(part.position);
  if (isNew) {
    const std::uint64_t cost = std::max(part.length, InflatedBlock::kLeastCost);
    if (again ? !file.budget().takeAgain(cost) : !charge(part.length)) return nullptr;
    block = std::make_shared<InflatedBlock>();
    if (!inflateRows(lookUps_, part, block->bytes).empty()) return nullptr;
    block->size = part.length;
    known.add(part.position, part.length, block);
  }
  known.hold(part.position, block, again, file.end());
  return block;
}

bool BlockReader::charge(std::uint64_t bytes) {
  if (bytes > budget_) return false;
  budget_ -= bytes;
  return true;
}

}  // namespace tolvex
