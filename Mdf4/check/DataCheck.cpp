#include "Mdf4/check/DataCheck.h"

#include <algorithm>
#include <cinttypes>

#include "Mdf4/base/Diagnostics.h"
#include "Mdf4/format/BlockTraits.h"

namespace tolvex {
namespace {

using namespace block_type;

}  // namespace

void DataCheck::step() {
  if (std::optional<FoundBlock> block = walk_.enterData(link_)) {
    stepTo(*block);
  } else if (link_.target == 0) {
    finish();
  } else {
    lose();
  }
}

void DataCheck::stepTo(FoundBlock& block) {
  switch (block.type) {
    case kHL:
      openHeader(block);
      break;
    case kDL:
    case kLD:
      openList(block);
      break;
    default:
      if (at_ == At::Invalidation) {
        checkInvalidation(block);
      } else {
        checkData(block);
      }
      goOn();
  }
}

// What the link should have led to is missing.
void DataCheck::lose() {
  complete_ = false;
  if (at_ == At::List) {
    finish();
  } else {
    goOn();
  }
}

void DataCheck::finish() {
  done_ = true;
  if (at_ != At::Start && walk_.announced(Unfinished::LastList)) complete_ = false;
  sink_.end(complete_);
}

void DataCheck::openHeader(const FoundBlock& block) {
  const auto record = walk_.record<m4HLRecord>(block);
  if (record.hl_zip_type > kZipTransposeDeflate) {
    walk_.findings().error(block.field(offsetof(m4HLRecord, hl_zip_type)),
                           fieldName(kHL, "hl_zip_type"), "at most 1",
                           std::to_string(record.hl_zip_type));
  }
  walk_.checkReserved(block.field(offsetof(m4HLRecord, hl_reserved)), kHL, "hl_reserved",
                      bytesOf(record.hl_reserved));
  zipType_ = record.hl_zip_type;
  link_ = walk_.link(block, link::hl_dl_first);
}

void DataCheck::openList(const FoundBlock& block) {
  list_ = {};
  list_.block = block;
  list_.columns = block.type == kLD;
  list_.last = walk_.link(block, link::dl_dl_next).target == 0;
  if (list_.columns) {
    const auto record = walk_.record<m4LDRecord>(block);
    list_.count = record.ld_count;
    list_.equal = (record.ld_flags & kLdFlagEqualLength) != 0;
    list_.invalidation = (record.ld_flags & kLdFlagInvalidation) != 0;
  } else {
    const auto record = walk_.record<m4DLRecord>(block);
    list_.count = record.dl_count;
    list_.equal = (record.dl_flags & kDlFlagEqualLength) != 0;
    walk_.checkReserved(block.field(offsetof(m4DLRecord, dl_reserved)), kDL, "dl_reserved",
                        bytesOf(record.dl_reserved));
  }
  checkCount();
  checkLengths();
  checkLikeFirst();
  keepRoom();
  entry_ = 0;
  at_ = At::Data;
  goToEntry();
}

std::string DataCheck::listField(const char* field) const {
  return fieldName(list_.block.type, (list_.columns ? "ld_" : "dl_") + std::string(field));
}

// The field behind the record.
std::string DataCheck::lengthField() const {
  return listField(list_.equal ? (list_.columns ? "equal_sample_count" : "equal_length")
                               : (list_.columns ? "sample_offset" : "offset"));
}

void DataCheck::checkCount() {
  const std::uint64_t links = list_.block.links - std::min<std::uint64_t>(list_.block.links, 1);
  const std::uint64_t room = list_.invalidation ? links / 2 : links;
  list_.entries = std::min(list_.count, room);
  if (list_.count == room || (list_.last && walk_.announced(Unfinished::LastList))) return;
  const std::uint64_t position = list_.block.field(list_.columns ? offsetof(m4LDRecord, ld_count)
                                                                 : offsetof(m4DLRecord, dl_count));
  const std::string expected = formatText("%" PRIu64 ", as the block has links", room);
  if (list_.count > room) {
    walk_.findings().error(position, listField("count"), expected, std::to_string(list_.count));
  } else {
    walk_.findings().warning(position, listField("count"), expected, std::to_string(list_.count));
  }
}

void DataCheck::checkLengths() {
  const std::uint64_t position = list_.block.field(sizeof(m4DLRecord));
  const std::uint64_t room =
      (list_.block.dataBytes - std::min<std::uint64_t>(list_.block.dataBytes, sizeof(m4DLRecord))) /
      sizeof(std::uint64_t);
  const std::uint64_t needed = list_.equal ? 1 : list_.entries;
  list_.offsets = !list_.equal && room >= needed;
  if (room < needed) {
    walk_.findings().error(position, lengthField(), formatText("%" PRIu64 " values", needed),
                           formatText("room for %" PRIu64, room));
    list_.equal = false;
  }
  if (list_.equal) walk_.read(position, sizeof list_.equalLength, &list_.equalLength);
}

// What a list states of its blocks' lengths holds for all lists of the chain.
void DataCheck::checkLikeFirst() {
  if (at_ != At::List) firstList_ = list_;
  if (list_.equal == firstList_.equal && list_.equalLength == firstList_.equalLength) return;
  const auto text = [](const List& list) {
    return list.equal ? std::to_string(list.equalLength) : std::string("no equal length");
  };
  walk_.findings().error(list_.block.dataPosition(), lengthField(),
                         text(firstList_) + ", as in the first list", text(list_));
}

// The recorder reserves room for five entries: what the last list does not use is no gap.
void DataCheck::keepRoom() {
  constexpr std::uint64_t kReserved =
      kBlockHeaderSize + 6 * kLinkSize + sizeof(m4DLRecord) + sizeof(std::uint64_t);
  const std::uint64_t end = list_.block.position + kReserved;
  if (list_.last && list_.equal && !list_.columns && list_.block.end() < end) {
    walk_.reserve(list_.block.end(), end);
  }
}

// Goes on behind the block that was checked, or is missing.
void DataCheck::goOn() {
  if (at_ == At::Start) {
    finish();
  } else if (at_ == At::Data && list_.invalidation) {
    at_ = At::Invalidation;
    goToEntry();
  } else {
    at_ = At::Data;
    ++entry_;
    goToEntry();
  }
}

// Takes the first link from here on that leads somewhere.
void DataCheck::goToEntry() {
  while (entry_ < list_.entries) {
    const std::uint64_t skipped = at_ == At::Invalidation ? list_.count : 0;
    link_ = walk_.link(list_.block, link::dl_data + skipped + entry_);
    if (link_.target != 0) return;
    if (at_ == At::Data && !list_.columns) {
      complete_ = false;
      if (!list_.last || !walk_.announced(Unfinished::LastList)) {
        walk_.findings().error(link_.position, fieldName(kDL, linkName(kDL, link_.index)),
                               "a data block", "none");
      }
    }
    partLength_ = 0;
    if (at_ == At::Data && list_.invalidation) {
      at_ = At::Invalidation;
    } else {
      at_ = At::Data;
      ++entry_;
    }
  }
  at_ = At::List;
  link_ = walk_.link(list_.block, link::dl_dl_next);
  if (link_.target == 0) finish();
}

// The kind of plain block that belongs here; 0: any.
std::uint16_t DataCheck::kindWanted() const {
  const bool columns = list_.columns || (at_ == At::Start && recordBytes_ != 0);
  const bool invalidation = at_ == At::Invalidation;
  switch (place_) {
    case DataRole::Records:
      return invalidation ? kDI : columns ? kDV : kDT;
    case DataRole::Values:
      return kSD;
    case DataRole::Reduction:
      return invalidation ? kRI : columns ? kRV : kRD;
    case DataRole::Array:
      break;
  }
  return 0;
}

bool DataCheck::partOf(const FoundBlock& block, StoredPart& part) {
  const std::uint16_t wanted = kindWanted();
  part = {block.dataPosition(), block.dataBytes, block.dataBytes};
  part.compressed = block.type == kDZ;
  std::uint16_t kind = block.type;
  if (part.compressed) {
    part.zip = walk_.record<m4DZRecord>(block);
    kind = part.zip.dz_org_block_type;
  }
  if (wanted == 0 ? !isPlainData(kind) : kind != wanted) {
    const std::string expected = wanted == 0 ? "a data block" : letters(wanted);
    walk_.findings().error(part.compressed ? block.dataPosition() : link_.position,
                           part.compressed
                               ? fieldName(kDZ, "dz_org_block_type")
                               : fieldName(link_.from, linkName(link_.from, link_.index)),
                           expected, quoted(letters(kind)));
  }
  if (!part.compressed) return true;
  const FieldFaults faults = faultsOf(part.zip, block.room());
  walk_.enter(block, faults);
  part.position += sizeof part.zip;
  part.stored = part.zip.dz_data_length;
  part.length = part.zip.dz_org_data_length;
  if (zipType_ >= 0 && zipType_ != part.zip.dz_zip_type) {
    walk_.findings().warning(
        block.field(offsetof(m4DZRecord, dz_zip_type)), fieldName(kDZ, "dz_zip_type"),
        formatText("%d, as the HL block states", zipType_), std::to_string(part.zip.dz_zip_type));
    zipType_ = -1;
  }
  return std::ranges::none_of(faults, &FieldFault::error);
}

// Where the file says so itself, the last block goes on to the next one, linked or not, or to the
// end of the file.
void DataCheck::extend(FoundBlock& block) {
  if (!walk_.lengthIsAnnounced(block.type) || !isLastBlock()) return;
  const OwnedRanges::Range rest = walk_.owned().nextGap(block.end(), walk_.file().end());
  if (rest.start == rest.end || rest.start - block.end() >= kLinkSize) return;
  BlockHeader next;
  if (walk_.read(rest.start, sizeof next, &next) && next.marker == kBlockMarker &&
      isKnownBlock(next.type)) {
    return;
  }
  if (walk_.owned().add(block.end(), rest.end)) block.dataBytes = rest.end - block.dataPosition();
  block.cut = false;
}

void DataCheck::checkData(FoundBlock& block) {
  extend(block);
  StoredPart part;
  const bool sound = partOf(block, part);
  partLength_ = part.length;
  complete_ &= sound && !block.cut;
  if (!sound) return;
  if (!block.cut || part.compressed) {
    checkEqualLength(block);
    checkOffset();
  }
  sink_.begin(part);
  complete_ &= delivery_.deliver(block, part, sink_);
  length_ += part.length;
}

void DataCheck::checkEqualLength(const FoundBlock& block) {
  if (at_ == At::Start || unit() == 0) return;
  if (list_.columns && partLength_ % recordBytes_ != 0) {
    walk_.findings().error(block.position, fieldName(block.type, "data"),
                           formatText("whole records of %" PRIu64 " bytes", recordBytes_),
                           formatText("%" PRIu64 " bytes", partLength_));
  }
  if (!list_.equal) return;
  const std::uint64_t length = partLength_ / unit();
  const bool fits = isLastBlock() ? length <= list_.equalLength : length == list_.equalLength;
  if (fits) return;
  walk_.findings().error(
      block.position, fieldName(block.type, "data"),
      formatText("%s%" PRIu64 " %s, as the list states", isLastBlock() ? "at most " : "",
                 list_.equalLength, list_.columns ? "records" : "bytes"),
      std::to_string(length));
}

void DataCheck::checkOffset() {
  if (at_ == At::Start || !list_.offsets || !complete_ || unit() == 0) return;
  const std::uint64_t position =
      list_.block.dataPosition() + sizeof(m4DLRecord) + entry_ * sizeof(std::uint64_t);
  std::uint64_t offset = 0;
  if (!walk_.read(position, sizeof offset, &offset) || offset == length_ / unit()) return;
  walk_.findings().error(position, lengthField(),
                         formatText("%" PRIu64 ", the sum of the lengths before", length_ / unit()),
                         std::to_string(offset));
}

// The invalidation bytes beside the records of the data block before.
void DataCheck::checkInvalidation(const FoundBlock& block) {
  StoredPart part;
  if (!partOf(block, part) || block.cut) return;
  ByteSink nobody;
  delivery_.deliver(block, part, nobody);
  const std::uint64_t wanted =
      recordBytes_ == 0 ? part.length : partLength_ / recordBytes_ * invalBytes_;
  if (part.length == wanted) return;
  walk_.findings().error(block.position, fieldName(block.type, "data"),
                         formatText("%" PRIu64 " bytes, for the records beside", wanted),
                         std::to_string(part.length));
}

}  // namespace tolvex
