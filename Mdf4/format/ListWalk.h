// The way from a data link to its data blocks: along HL, DL and LD.
#pragma once

#include <cstdint>

#include "Mdf4/format/BlockScan.h"
#include "Mdf4/format/DirectFile.h"

namespace tolvex {

// A DL or LD as it stands in the file. What it states is not checked: numbers and links may lead
// anywhere, and `stated` may be more than there are links.
struct DataList {
  std::uint64_t position = 0;     // of the block
  std::uint64_t links = 0;        // all of them
  std::uint64_t stated = 0;       // dl_count, ld_count: data blocks
  std::uint64_t room = 0;         // data blocks that the links are enough for
  std::uint64_t next = 0;         // where the next list is; 0: none
  std::uint64_t lengths = 0;      // position of the lengths or offsets behind the record
  std::uint64_t lengthCount = 0;  // of them, that the block has room for
  std::uint64_t equalLength = 0;  // of all data blocks but the chain's last; 0: not stated
  bool columns = false;           // LD: lengths count records, the data are in column storage
  bool hasInvalidation = false;   // an invalidation block is listed for each data block
  bool hasEqualLength = false;    // else an offset is listed for each data block
  bool nextIsUnreadable = false;

  std::uint64_t linkPosition(std::uint64_t index) const {
    return position + kBlockHeaderSize + index * kLinkSize;
  }
};

// A link on the way.
struct DataLink {
  enum Role : std::uint8_t {
    First,     // from outside to a data block or a list, or from a header to a list
    NextList,  //
    Entry,     // from a list to a data block; 0: it misses one
  };
  Role role = First;
  std::uint16_t from = 0;      // kind of the block that it stands in; 0 for the first
  std::uint64_t index = 0;     // among the links of that block
  std::uint64_t position = 0;  // of the link itself; 0 for the first
  std::uint64_t target = 0;
};

// Goes link by link and holds one list at a time, however long the chain. At each link its user
// looks at what the link leads to, then goes into it, when it is a list, or past it. Lists that
// lead in a circle do not end: the user knows what it has seen. Borrows the file.
class ListWalk {
 public:
  ListWalk(DirectFile& file, std::uint64_t dataLink) : file_(file) { link_.target = dataLink; }

  bool done() const { return link_.role != DataLink::Entry && link_.target == 0; }
  const DataLink& link() const { return link_; }
  // The list of an entry, and its number in it. Of other links: the list that they stand in.
  const DataList& list() const { return list_; }
  std::uint64_t entry() const { return entry_; }
  // Whether no other data block follows in the chain.
  bool isLastEntry() const { return list_.next == 0 && entry_ + 1 == entries_; }

  // Goes into the list, or header, that the link leads to: `scan` is its header. False when it
  // cannot be read; the walk then is where it was.
  [[nodiscard]] bool enter(const BlockScan& scan);
  // So many entries are gone along, instead of as many as the list states and has links for.
  void setEntries(std::uint64_t entries);
  // No list follows this one.
  void endChain() { list_.next = 0; }
  // Goes past what the link leads to.
  void pass();

  // The invalidation link beside the entry when the list has room for `count` data links; 0: none.
  std::uint64_t invalidationLink(std::uint64_t count) const { return linkAt(1 + count + entry_); }
  std::uint64_t linkAt(std::uint64_t index) const;
  // The length or offset with that number behind the list's record. False when there is none.
  [[nodiscard]] bool readLength(std::uint64_t number, std::uint64_t& value) const;

 private:
  void goToEntry();

  DirectFile& file_;
  DataLink link_;
  DataList list_;
  std::uint64_t entry_ = 0;
  std::uint64_t entries_ = 0;
};

}  // namespace tolvex
