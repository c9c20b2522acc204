#include "Mdf4/check/DataCheck.h"

#include <algorithm>
#include <cinttypes>

#include "Mdf4/base/Diagnostics.h"
#include "Mdf4/format/BlockTraits.h"

namespace tolvex {

using namespace block_type;

// The link as findings name it.
BlockLink DataCheck::link() const {
  const DataLink& link = walk_.link();
  if (link.from == 0) return first_;
  return {link.from, inMemory(link.index), link.position, link.target};
}

void DataCheck::step() {
  const BlockLink link = this->link();
  std::optional<FoundBlock> block = blocks_.enterData(link);
  if (inList()) {
    if (block) {
      checkData(*block, link);
    } else {
      checkMissing();
    }
    if (walk_.list().hasInvalidation) checkInvalidation();
    walk_.pass();
  } else if (block && isDataList(block->type)) {
    enter(*block);
  } else {
    complete_ &= block.has_value() || link.target == 0;
    if (block) checkData(*block, link);
    walk_.pass();
  }
  if (walk_.done()) finish();
}

void DataCheck::finish() {
  done_ = true;
  if (firstList_ && blocks_.announced(Unfinished::LastList)) complete_ = false;
  sink_.end(complete_);
}

void DataCheck::enter(const FoundBlock& block) {
  if (!walk_.enter(block.scan())) {
    complete_ = false;
    walk_.pass();
  } else if (block.type == kHL) {
    checkHeader(block);
  } else {
    checkList(block);
  }
}

void DataCheck::checkHeader(const FoundBlock& block) {
  const auto record = blocks_.record<m4HLRecord>(block);
  if (record.hl_zip_type > kZipTransposeDeflate) {
    blocks_.enter(block, {{true, offsetof(m4HLRecord, hl_zip_type), "hl_zip_type", "at most 1",
                           std::to_string(record.hl_zip_type)}});
  }
  blocks_.checkReserved(block);
  zipType_ = record.hl_zip_type;
}

void DataCheck::checkList(const FoundBlock& block) {
  blocks_.checkReserved(block);
  checkCount(block);
  checkLengths(block);
  checkLikeFirst();
  keepRoom(block);
}

std::string DataCheck::listField(const char* field) const {
  const bool columns = walk_.list().columns;
  return fieldName(columns ? kLD : kDL, (columns ? "ld_" : "dl_") + std::string(field));
}

// The field behind the record.
std::string DataCheck::lengthField() const {
  const bool columns = walk_.list().columns;
  return listField(hasEqualLength_ ? (columns ? "equal_sample_count" : "equal_length")
                                   : (columns ? "sample_offset" : "offset"));
}

void DataCheck::checkCount(const FoundBlock& block) {
  const DataList& list = walk_.list();
  if (list.stated == list.room || (isLastList() && blocks_.announced(Unfinished::LastList))) return;
  const std::uint64_t position =
      block.field(list.columns ? offsetof(m4LDRecord, ld_count) : offsetof(m4DLRecord, dl_count));
  const std::string expected = formatText("%" PRIu64 ", as the block has links", list.room);
  if (list.stated > list.room) {
    blocks_.findings().error(position, listField("count"), expected, std::to_string(list.stated));
  } else {
    blocks_.findings().warning(position, listField("count"), expected, std::to_string(list.stated));
  }
}

void DataCheck::checkLengths(const FoundBlock& block) {
  const DataList& list = walk_.list();
  hasEqualLength_ = list.hasEqualLength;
  const std::uint64_t needed = hasEqualLength_ ? 1 : std::min(list.stated, list.room);
  hasOffsets_ = !hasEqualLength_ && list.lengthCount >= needed;
  if (list.lengthCount >= needed) return;
  blocks_.findings().error(block.field(sizeof(m4DLRecord)), lengthField(),
                           formatText("%" PRIu64 " values", needed),
                           formatText("room for %" PRIu64, list.lengthCount));
  hasEqualLength_ = false;
}

// What a list states of its blocks' lengths holds for all lists of the chain.
void DataCheck::checkLikeFirst() {
  const DataList& list = walk_.list();
  if (!firstList_) firstList_ = list;
  if (list.hasEqualLength == firstList_->hasEqualLength &&
      list.equalLength == firstList_->equalLength) {
    return;
  }
  const auto text = [](const DataList& of) {
    return of.hasEqualLength ? std::to_string(of.equalLength) : std::string("no equal length");
  };
  blocks_.findings().error(list.lengths - sizeof(m4DLRecord), lengthField(),
                           text(*firstList_) + ", as in the first list", text(list));
}

// The recorder reserves room for five entries: what the last list does not use is no gap.
void DataCheck::keepRoom(const FoundBlock& block) {
  constexpr std::uint64_t kReserved =
      kBlockHeaderSize + 6 * kLinkSize + sizeof(m4DLRecord) + sizeof(std::uint64_t);
  const std::uint64_t end = block.position + kReserved;
  if (isLastList() && hasEqualLength_ && block.type == kDL && block.end() < end) {
    blocks_.reserve(block.end(), end);
  }
}

// An entry that leads to no data block. In column storage entries may be empty.
void DataCheck::checkMissing() {
  const BlockLink link = this->link();
  partLength_ = 0;
  if (link.target == 0 && walk_.list().columns) return;
  complete_ = false;
  if (link.target != 0 || (isLastList() && blocks_.announced(Unfinished::LastList))) return;
  blocks_.findings().error(link.position, fieldName(kDL, linkName(kDL, link.index)), "a data block",
                           "none");
}

// The kind of plain block that belongs here; 0: any.
std::uint16_t DataCheck::kindWanted(bool isInvalidation) const {
  const bool columns = inList() ? walk_.list().columns : recordBytes_ != 0;
  switch (role_) {
    case DataRole::Records:
      return isInvalidation ? kDI : columns ? kDV : kDT;
    case DataRole::Values:
      return kSD;
    case DataRole::Reduction:
      return isInvalidation ? kRI : columns ? kRV : kRD;
    case DataRole::Array:
      break;
  }
  return 0;
}

bool DataCheck::partOf(const FoundBlock& block, const BlockLink& link, bool isInvalidation,
                       StoredPart& part) {
  const std::uint16_t wanted = kindWanted(isInvalidation);
  part = {block.dataPosition(), block.dataBytes};
  std::uint16_t kind = block.type;
  if (block.type == kDZ) {
    const auto record = blocks_.record<m4DZRecord>(block);
    part = {block.dataPosition() + sizeof record, record.dz_org_data_length,
            CompressedData{record, block.dataPosition() + sizeof record, block.dataBytes}};
    kind = record.dz_org_block_type;
  }
  if (wanted == 0 ? !isPlainData(kind) : kind != wanted) {
    const std::string expected = wanted == 0 ? "a data block" : letters(wanted);
    blocks_.findings().error(part.zip ? block.dataPosition() : link.position,
                             part.zip ? fieldName(kDZ, "dz_org_block_type")
                                      : fieldName(link.from, linkName(link.from, link.index)),
                             expected, quoted(letters(kind)));
  }
  if (!part.zip) return true;
  const m4DZRecord& record = part.zip->record;
  const FieldFaults faults = faultsOf(record, block.room());
  blocks_.enter(block, faults);
  if (zipType_ >= 0 && zipType_ != record.dz_zip_type) {
    blocks_.enter(block, {{false, offsetof(m4DZRecord, dz_zip_type), "dz_zip_type",
                           formatText("%d, as the HL block states", zipType_),
                           std::to_string(record.dz_zip_type)}});
    zipType_ = -1;
  }
  return std::ranges::none_of(faults, &FieldFault::error);
}

// Where the file says so itself, the last block goes on to the next one, linked or not, or to the
// end of the file.
void DataCheck::extend(FoundBlock& block) {
  if (!blocks_.lengthIsAnnounced(block.type) || !isLastBlock()) return;
  const OwnedRanges::Range rest = blocks_.owned().nextGap(block.end(), blocks_.file().end());
  if (rest.start == rest.end || rest.start - block.end() >= kLinkSize ||
      scanBlock(blocks_.file(), rest.start).isBlock()) {
    return;
  }
  if (blocks_.owned().add(block.end(), rest.end)) block.dataBytes = rest.end - block.dataPosition();
  block.cut = false;
}

void DataCheck::checkData(FoundBlock& block, const BlockLink& link) {
  extend(block);
  StoredPart part;
  const bool sound = partOf(block, link, false, part);
  partLength_ = part.length;
  complete_ &= sound && !block.cut;
  if (!sound) return;
  if (inList() && unit() != 0 && (!block.cut || part.zip)) {
    checkEqualLength(block, part.length);
    checkOffset();
  }
  sink_.begin(part);
  complete_ &= reader_.deliver(block, part, sink_);
  length_ += part.length;
}

void DataCheck::checkEqualLength(const FoundBlock& block, std::uint64_t bytes) {
  const DataList& list = walk_.list();
  if (list.columns && bytes % recordBytes_ != 0) {
    blocks_.findings().error(block.position, fieldName(block.type, "data"),
                             formatText("whole records of %" PRIu64 " bytes", recordBytes_),
                             formatText("%" PRIu64 " bytes", bytes));
  }
  if (!hasEqualLength_) return;
  const std::uint64_t length = bytes / unit();
  const bool fits = isLastBlock() ? length <= list.equalLength : length == list.equalLength;
  if (fits) return;
  blocks_.findings().error(
      block.position, fieldName(block.type, "data"),
      formatText("%s%" PRIu64 " %s, as the list states", isLastBlock() ? "at most " : "",
                 list.equalLength, list.columns ? "records" : "bytes"),
      std::to_string(length));
}

void DataCheck::checkOffset() {
  if (!hasOffsets_ || !complete_) return;
  std::uint64_t offset = 0;
  if (!walk_.readLength(walk_.entry(), offset) || offset == length_ / unit()) return;
  blocks_.findings().error(
      walk_.list().lengths + walk_.entry() * sizeof offset, lengthField(),
      formatText("%" PRIu64 ", the sum of the lengths before", length_ / unit()),
      std::to_string(offset));
}

// The invalidation bytes beside the records of the data block before.
void DataCheck::checkInvalidation() {
  const std::uint64_t index = link::dl_data + walk_.list().stated + walk_.entry();
  const BlockLink link = {kLD, inMemory(index), walk_.list().linkPosition(index),
                          walk_.linkAt(index)};
  const std::optional<FoundBlock> block = blocks_.enterData(link);
  if (!block) {
    complete_ &= link.target == 0;
    return;
  }
  StoredPart part;
  if (!partOf(*block, link, true, part) || block->cut) return;
  ByteSink nobody;
  static_cast<void>(reader_.deliver(*block, part, nobody));  // findings tell what is wrong
  const std::uint64_t wanted =
      recordBytes_ == 0 ? part.length : partLength_ / recordBytes_ * invalBytes_;
  if (part.length == wanted) return;
  blocks_.findings().error(block->position, fieldName(block->type, "data"),
                           formatText("%" PRIu64 " bytes, for the records beside", wanted),
                           std::to_string(part.length));
}

}  // namespace tolvex
