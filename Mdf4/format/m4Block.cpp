#include "Mdf4/format/m4Block.h"

#include <algorithm>
#include <array>
#include <cinttypes>

#include "Mdf4/base/Diagnostics.h"
#include "Mdf4/format/BlockScan.h"
#include "Mdf4/format/BlockTraits.h"

namespace tolvex {
namespace {

// Nothing that is loaded whole is larger; a sparse file may claim it for little.
constexpr std::uint64_t kLargestLoaded = std::uint64_t{256} << 20;

}  // namespace

m4Block::m4Block(std::uint16_t type) : links_(inMemory(traitsOf(type).leastLinks)) {
  header_.type = type;
}

M4CGBlock::M4CGBlock(std::uint16_t version) {
  constexpr std::uint16_t kFirstWithMaster = 411;
  if (version >= kFirstWithMaster) links_.resize(link::cg_cg_master + 1);
}

bool m4Block::load(DirectFile& file, std::uint64_t position, const BlockHeader& header) {
  const BlockScan scan = scanHeader(header, position, file.end());
  if (noteDamage(file, scan)) return false;
  if (header.length > kLargestLoaded) {
    file.report(formatText("block at %" PRIu64 ": expected at most %" PRIu64
                           " bytes, found a length of %" PRIu64,
                           position, kLargestLoaded, header.length));
    return false;
  }
  if (!file.budget().takeLoad(header.length)) return false;
  file_ = &file;
  position_ = position;
  header_ = header;
  const std::uint64_t linkBytes = header.linkCount * kLinkSize;
  if (header.linkCount != 0) {
    links_.assign(inMemory(header.linkCount), 0);
    if (!file.ReadAt(position + kBlockHeaderSize, linkBytes, links_.data())) return false;
  }
  return readData(scan.dataPosition(), scan.dataBytes);
}

void m4Block::setLink(std::size_t index, std::uint64_t position) {
  if (index >= links_.size()) links_.resize(index + 1);
  links_[index] = position;
}

std::uint64_t m4Block::save(DirectFile* file, unsigned flags) {
  if (file != nullptr) file_ = file;
  if (file_ == nullptr) return 0;
  const std::uint64_t end = file_->end();
  const bool isNew = position_ == 0;
  if (isNew) {
    position_ = file_->Allocate(
        kBlockHeaderSize + links_.size() * kLinkSize + recordSize() + extraSize(), false);
  }
  if (flags == 0 || write(flags) != 0) return position_;
  if (isNew) {
    file_->giveBack(end);
    position_ = 0;
  }
  return 0;
}

std::uint64_t m4Block::write(unsigned flags) {
  const std::uint64_t linkBytes = links_.size() * kLinkSize;
  const std::uint64_t fixed = kBlockHeaderSize + linkBytes + recordSize();
  header_.length = fixed + extraSize();
  header_.linkCount = links_.size();

  std::array<ByteSpan, 4> pieces;
  std::size_t count = 0;
  std::uint64_t start = position_;
  const auto add = [&](const void* bytes, std::uint64_t size) {
    pieces[count++] = {static_cast<const std::uint8_t*>(bytes), inMemory(size)};
  };
  if ((flags & kSaveFixed) != 0) {
    add(&header_, kBlockHeaderSize);
    add(links_.data(), linkBytes);
    add(recordBytes(), recordSize());
  } else {
    start += fixed;
  }
  if ((flags & kSaveTrailing) != 0) {
    std::uint64_t size = 0;
    if (const void* bytes = extraData(0, size); bytes != nullptr) add(bytes, size);
  }
  if (!file_->WriteAt(start, std::span(pieces).first(count))) return 0;
  return file_->position();
}

std::uint64_t m4Block::reserve(DirectFile& file, std::uint64_t size, const char* label) {
  file_ = &file;
  position_ = file.Allocate(size, true);
  printDiagnostic("##%s (%8" PRIX64 ") %" PRId64 "+%" PRId64 "=%" PRId64 "\n", label, position_,
                  static_cast<std::int64_t>(position_), static_cast<std::int64_t>(size),
                  static_cast<std::int64_t>(position_ + size));
  return position_;
}

const void* M4TXBlock::extraData(unsigned index, std::uint64_t& size) const {
  size = index == 0 ? extraSize() : 0;
  return index == 0 ? text_.c_str() : nullptr;
}

bool M4TXBlock::readData(std::uint64_t position, std::uint64_t length) {
  text_.resize(inMemory(length));
  if (length == 0) return true;
  if (!file_->ReadAt(position, length, text_.data())) return false;
  text_.pop_back();
  return true;
}

}  // namespace tolvex
