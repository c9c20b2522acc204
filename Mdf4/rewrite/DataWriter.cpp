#include "Mdf4/rewrite/DataWriter.h"

#include <zlib.h>

#include <algorithm>
#include <array>
#include <cstring>

#include "Mdf4/format/BlockRecords.h"
#include "Mdf4/format/DataBlocks.h"

namespace tolvex {
namespace {

constexpr std::uint64_t kSmallestBuffer = 4096;

}  // namespace

DataWriter::DataWriter(DirectFile& file, std::uint16_t type, std::uint64_t unit,
                       const WorkSizes& sizes)
    : file_(file),
      type_(type),
      unit_(unit),
      blockBytes_(std::max(sizes.block, unit)),
      blocksPerList_(sizes.blocksPerList) {}

std::uint8_t* DataWriter::room(std::uint64_t bytes) {
  if (bytes > capacity_ - used_) {
    const std::uint64_t wanted = std::max({used_ + bytes, 2 * capacity_, kSmallestBuffer});
    std::unique_ptr<std::uint8_t[]> bigger(new std::uint8_t[inMemory(wanted)]);
    if (used_ != 0) std::memcpy(bigger.get(), buffer_.get(), inMemory(used_));
    buffer_ = std::move(bigger);
    capacity_ = wanted;
  }
  return buffer_.get() + used_;
}

bool DataWriter::commit(std::uint64_t bytes) {
  used_ += bytes;
  if (used_ < blockBytes_) return !failed_;
  return writeBlock(used_ - rest());
}

bool DataWriter::append(ByteSpan bytes) {
  std::copy(bytes.begin(), bytes.end(), room(bytes.size()));
  return commit(bytes.size());
}

bool DataWriter::writeBlock(std::uint64_t bytes) {
  if (failed_ || bytes == 0) return !failed_;
  BlockHeader header;
  header.type = type_;
  header.length = kBlockHeaderSize + bytes;
  const std::uint64_t position = file_.Allocate(header.length, false);
  const std::array<ByteSpan, 2> pieces = {bytesOf(header),
                                          ByteSpan(buffer_.get(), inMemory(bytes))};
  failed_ = !file_.WriteAt(position, pieces);
  if (failed_) return false;
  if (hasChecksum_) {
    checksum_ = static_cast<std::uint32_t>(crc32_z(checksum_, buffer_.get(), inMemory(bytes)));
  }
  blocks_.push_back({written_, position});
  written_ += bytes;
  used_ -= bytes;
  std::memmove(buffer_.get(), buffer_.get() + bytes, inMemory(used_));
  return blocks_.size() - listed_ < blocksPerList_ || writeList();
}

// Writes the blocks that are not listed yet into a list behind the last one.
bool DataWriter::writeList() {
  M4DLBlock list;
  list.dl_flags = 0;  // offsets, no equal length
  std::vector<std::uint64_t> offsets;
  for (; listed_ < blocks_.size(); ++listed_) {
    list.add(blocks_[listed_].position);
    offsets.push_back(blocks_[listed_].offset);
  }
  list.setExtra(std::move(offsets));
  const std::uint64_t position = list.save(&file_, m4Block::kSaveAll);
  failed_ = position == 0;
  if (lastList_ != 0 && !failed_) {
    failed_ = !file_.WriteAt(lastList_ + kBlockHeaderSize, sizeof position, &position);
  }
  if (link_ == 0) link_ = position;
  lastList_ = position;
  return !failed_;
}

bool DataWriter::finish() {
  if (!writeBlock(used_)) return false;
  buffer_.reset();
  capacity_ = 0;
  if (listed_ == 0 && blocks_.size() <= 1) {
    if (!blocks_.empty()) link_ = blocks_[0].position;
    return true;
  }
  return listed_ == blocks_.size() || writeList();
}

const DataWriter::Block& DataWriter::blockAt(std::uint64_t offset) const {
  return *std::prev(std::ranges::upper_bound(blocks_, offset, {}, &Block::offset));
}

bool DataWriter::overwrite(std::uint64_t offset, ByteSpan bytes) {
  for (const std::uint8_t byte : bytes) {
    if (!overwriteByte(offset++, byte)) return false;
  }
  return true;
}

bool DataWriter::overwriteByte(std::uint64_t offset, std::uint8_t byte) {
  if (offset >= written_) {
    buffer_[inMemory(offset - written_)] = byte;
    return !failed_;
  }
  std::uint8_t before = 0;
  const Block& block = blockAt(offset);
  failed_ = failed_ || !read(offset, {&before, 1}) ||
            !file_.WriteAt(block.position + kBlockHeaderSize + (offset - block.offset), 1, &byte);
  // Checksums of equal lengths differ by what differs in the bytes, wherever that stands.
  const uLong change = crc32_z(0, &before, 1) ^ crc32_z(0, &byte, 1);
  if (hasChecksum_) {
    checksum_ ^= static_cast<std::uint32_t>(
        crc32_combine(change, 0, static_cast<z_off_t>(written_ - offset - 1)));
  }
  return !failed_;
}

bool DataWriter::read(std::uint64_t offset, WritableBytes bytes) const {
  if (offset > size() || bytes.size() > size() - offset) return false;
  while (!bytes.empty()) {
    std::uint64_t count = bytes.size();
    if (offset >= written_) {
      std::copy_n(buffer_.get() + (offset - written_), count, bytes.begin());
    } else {
      const Block& block = blockAt(offset);
      const std::uint64_t end = &block == &blocks_.back() ? written_ : (&block + 1)->offset;
      count = std::min(count, end - offset);
      if (!file_.ReadAt(block.position + kBlockHeaderSize + (offset - block.offset), count,
                        bytes.data())) {
        return false;
      }
    }
    offset += count;
    bytes = bytes.subspan(inMemory(count));
  }
  return true;
}

}  // namespace tolvex
