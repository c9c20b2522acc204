// MDF 4 blocks in memory: what every kind shares, and the kinds with a fixed record.
#pragma once

#include <algorithm>
#include <cstdint>
#include <span>
#include <string_view>
#include <vector>

#include "Mdf4/format/BlockRecords.h"
#include "Mdf4/format/DirectFile.h"

namespace tolvex {

// One block: header, links, record and trailing data. Made by the block loader from a file, or
// anew to be saved into one. Borrows the DirectFile it belongs to. Owned by whoever asked for it.
class m4Block {
 public:
  static constexpr unsigned kSaveFixed = 1;     // header, links and record
  static constexpr unsigned kSaveTrailing = 2;  // the trailing data
  static constexpr unsigned kSaveAll = kSaveFixed | kSaveTrailing;

  m4Block(const m4Block&) = delete;
  m4Block& operator=(const m4Block&) = delete;
  virtual ~m4Block() = default;

  virtual std::uint32_t recordSize() const { return 0; }
  virtual void* recordData() { return nullptr; }
  virtual std::uint64_t extraSize() const = 0;  // bytes of trailing data
  // The trailing data for index 0, null for any other.
  virtual const void* extraData(unsigned index, std::uint64_t& size) const = 0;
  // Takes over header, links and data of the block at `position`. False when the block does not lie
  // inside the file, is too short for its links or cannot be read; the damage is noted there.
  [[nodiscard]] virtual bool load(DirectFile& file, std::uint64_t position,
                                  const BlockHeader& header);
  [[nodiscard]] virtual bool readData(std::uint64_t position, std::uint64_t length) = 0;
  virtual std::uint16_t typeCode() const { return header_.type; }

  // The link, or 0 at and beyond the link count.
  std::uint64_t link(std::size_t index) const { return index < links_.size() ? links_[index] : 0; }
  void setLink(std::size_t index, std::uint64_t position);  // grows the links as needed
  std::size_t linkCount() const { return links_.size(); }

  std::uint64_t position() const { return position_; }  // 0 while not placed
  DirectFile* file() const { return file_; }

  // Places the block at the end of the file when it has no position, then writes the parts that
  // `flags` names. A given file becomes the block's file. Returns the block's position, or 0
  // without a file and when a write fails; a block that had no place then has none.
  [[nodiscard]] std::uint64_t save(DirectFile* file, unsigned flags);

 protected:
  explicit m4Block(std::uint16_t type);

  // Writes the parts of a placed block. Returns the position after it, or 0 on failure.
  [[nodiscard]] std::uint64_t write(unsigned flags);
  // Reserves `size` bytes at the end of `file` and makes the start the block's position.
  std::uint64_t reserve(DirectFile& file, std::uint64_t size, const char* label);

  DirectFile* file_ = nullptr;
  std::uint64_t position_ = 0;
  BlockHeader header_;
  std::vector<std::uint64_t> links_;

 private:
  virtual const void* recordBytes() const { return nullptr; }
};

// A block kind with a fixed record and trailing elements; the block object is its record.
template <class Record, class Extra, std::uint16_t Type>
class m4BlockImpl : public m4Block, public Record {
 public:
  static constexpr std::uint16_t kType = Type;

  std::uint32_t recordSize() const override { return sizeof(Record); }
  void* recordData() override { return static_cast<Record*>(this); }
  std::uint64_t extraSize() const override { return extra_.size() * sizeof(Extra); }
  const void* extraData(unsigned index, std::uint64_t& size) const override {
    size = index == 0 ? extraSize() : 0;
    return index == 0 ? extra_.data() : nullptr;
  }

  // A data section shorter than the record leaves the rest of the record 0. What lies beyond the
  // record is the trailing data, rounded up to whole elements.
  [[nodiscard]] bool readData(std::uint64_t position, std::uint64_t length) override {
    const std::uint64_t inRecord = std::min<std::uint64_t>(sizeof(Record), length);
    const std::uint64_t beyond = length - inRecord;
    *static_cast<Record*>(this) = Record{};
    if (!file_->ReadAt(position, inRecord, recordData())) return false;
    extra_.assign(inMemory((beyond + sizeof(Extra) - 1) / sizeof(Extra)), Extra{});
    return beyond == 0 || file_->ReadAt(position + inRecord, beyond, extra_.data());
  }

  std::span<const Extra> extra() const { return extra_; }
  void setExtra(std::vector<Extra> extra) { extra_ = std::move(extra); }

  // With the links that every block of the kind has.
  m4BlockImpl() : m4Block(Type), Record{} {}

 protected:
  std::vector<Extra> extra_;

 private:
  const void* recordBytes() const override { return static_cast<const Record*>(this); }
};

// The kinds with a record.
using EmbeddedByte = std::uint8_t;

using M4HDBlock = m4BlockImpl<m4HDRecord, EmbeddedByte, block_type::kHD>;
using M4FHBlock = m4BlockImpl<m4FHRecord, EmbeddedByte, block_type::kFH>;
using M4DGBlock = m4BlockImpl<m4DGRecord, EmbeddedByte, block_type::kDG>;
class M4CGBlock : public m4BlockImpl<m4CGRecord, EmbeddedByte, block_type::kCG> {
 public:
  // Version numbers up to 410: six links. From 411 on a channel group has one to its master group.
  explicit M4CGBlock(std::uint16_t version = 410);
};
class M4CNBlock : public m4BlockImpl<m4CNRecord, EmbeddedByte, block_type::kCN> {};
using M4CCBlock = m4BlockImpl<m4CCRecord, double, block_type::kCC>;
using M4SIBlock = m4BlockImpl<m4SIRecord, EmbeddedByte, block_type::kSI>;
using M4SRBlock = m4BlockImpl<m4SRRecord, EmbeddedByte, block_type::kSR>;
using M4CABlock = m4BlockImpl<m4CARecord, std::uint64_t, block_type::kCA>;
using M4CHBlock = m4BlockImpl<m4CHRecord, EmbeddedByte, block_type::kCH>;
using M4ATBlock = m4BlockImpl<m4ATRecord, EmbeddedByte, block_type::kAT>;
using M4EVBlock = m4BlockImpl<m4EVRecord, EmbeddedByte, block_type::kEV>;
using M4HLBlock = m4BlockImpl<m4HLRecord, std::uint64_t, block_type::kHL>;
using M4DZBlock = m4BlockImpl<m4DZRecord, EmbeddedByte, block_type::kDZ>;

// Text: the whole data section, ending in a NUL.
class M4TXBlock : public m4Block {
 public:
  static constexpr std::uint16_t kType = block_type::kTX;

  M4TXBlock() : M4TXBlock(kType) {}

  std::uint64_t extraSize() const override { return text_.size() + 1; }
  const void* extraData(unsigned index, std::uint64_t& size) const override;
  [[nodiscard]] bool readData(std::uint64_t position, std::uint64_t length) override;

  // The text up to its first NUL.
  std::string_view text() const { return text_.c_str(); }
  void setText(std::string_view text) { text_ = text; }

 protected:
  explicit M4TXBlock(std::uint16_t type) : m4Block(type) {}

 private:
  std::string text_;  // the data section without its last byte
};

// XML text.
class M4MDBlock : public M4TXBlock {
 public:
  static constexpr std::uint16_t kType = block_type::kMD;

  M4MDBlock() : M4TXBlock(kType) {}
};

}  // namespace tolvex
