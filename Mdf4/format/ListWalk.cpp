#include "Mdf4/format/ListWalk.h"

#include <algorithm>

namespace tolvex {

bool ListWalk::enter(const BlockScan& scan) {
  const BlockHeader& header = scan.header;
  const std::uint64_t record = scan.dataPosition();
  if (header.type == block_type::kHL) {
    std::uint64_t first = 0;
    if (!file_.ReadAt(scan.linkPosition(link::hl_dl_first), sizeof first, &first)) return false;
    link_ = {DataLink::First, header.type, link::hl_dl_first, scan.linkPosition(link::hl_dl_first),
             first};
    return true;
  }
  static_assert(sizeof(m4DLRecord) == sizeof(m4LDRecord));
  DataList list;
  list.position = scan.position;
  list.links = header.linkCount;
  list.columns = header.type == block_type::kLD;
  if (list.columns) {
    m4LDRecord fields;
    if (!file_.ReadAt(record, sizeof fields, &fields)) return false;
    list.stated = fields.ld_count;
    list.hasInvalidation = (fields.ld_flags & kLdFlagInvalidation) != 0;
    list.hasEqualLength = (fields.ld_flags & kLdFlagEqualLength) != 0;
  } else {
    m4DLRecord fields;
    if (!file_.ReadAt(record, sizeof fields, &fields)) return false;
    list.stated = fields.dl_count;
    list.hasEqualLength = (fields.dl_flags & kDlFlagEqualLength) != 0;
  }
  list.room = (std::max<std::uint64_t>(list.links, 1) - 1) / (list.hasInvalidation ? 2 : 1);
  list.lengths = record + sizeof(m4DLRecord);
  list.lengthCount =
      (std::max<std::uint64_t>(scan.dataBytes, sizeof(m4DLRecord)) - sizeof(m4DLRecord)) /
      sizeof(std::uint64_t);
  list_ = list;
  entry_ = 0;
  if (list.hasEqualLength && !readLength(0, list_.equalLength)) list_.equalLength = 0;
  list_.nextIsUnreadable = list.links != 0 && !file_.ReadAt(list_.linkPosition(link::dl_dl_next),
                                                            kLinkSize, &list_.next);
  setEntries(std::min(list_.stated, list_.room));
  return true;
}

void ListWalk::setEntries(std::uint64_t entries) {
  entries_ = entries;
  goToEntry();
}

void ListWalk::pass() {
  if (link_.role == DataLink::Entry) {
    ++entry_;
    goToEntry();
  } else {
    link_.target = 0;
  }
}

void ListWalk::goToEntry() {
  const std::uint16_t kind = list_.columns ? block_type::kLD : block_type::kDL;
  if (entry_ < entries_) {
    const std::uint64_t index = link::dl_data + entry_;
    link_ = {DataLink::Entry, kind, index, list_.linkPosition(index), linkAt(index)};
  } else {
    link_ = {DataLink::NextList, kind, link::dl_dl_next, list_.linkPosition(link::dl_dl_next),
             list_.next};
  }
}

std::uint64_t ListWalk::linkAt(std::uint64_t index) const {
  std::uint64_t target = 0;
  if (index >= list_.links || !file_.ReadAt(list_.linkPosition(index), sizeof target, &target)) {
    return 0;
  }
  return target;
}

bool ListWalk::readLength(std::uint64_t number, std::uint64_t& value) const {
  return number < list_.lengthCount &&
         file_.ReadAt(list_.lengths + number * sizeof value, sizeof value, &value);
}

}  // namespace tolvex
