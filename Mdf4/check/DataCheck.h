// The check of what lies behind links to data: lists, data blocks, compressed data blocks.
#pragma once

#include <cstdint>
#include <string>

#include "Mdf4/check/BlockCheck.h"
#include "Mdf4/check/BlockReader.h"

namespace tolvex {

// What a data link leads to.
enum class DataRole : std::uint8_t { Records, Values, Reduction, Array };

// Walks the blocks behind one data link in order, one at a time, so that the walks of a file's
// groups can take turns and together go through the file from front to back.
class DataCheck {
 public:
  // `recordBytes` and `invalBytes`: data and invalidation bytes of a record, in column storage.
  DataCheck(BlockCheck& walk, BlockReader& delivery, const BlockLink& link, DataRole place,
            ByteSink& sink, std::uint64_t recordBytes = 0, std::uint64_t invalBytes = 0)
      : walk_(walk),
        delivery_(delivery),
        place_(place),
        sink_(sink),
        recordBytes_(recordBytes),
        invalBytes_(invalBytes),
        link_(link) {}

  bool done() const { return done_; }
  // Where the block lies that the next step checks.
  std::uint64_t next() const { return link_.target; }
  void step();

 private:
  enum class At : std::uint8_t { Start, List, Data, Invalidation };

  struct List {
    FoundBlock block = {};
    std::uint64_t count = 0;    // as stated
    std::uint64_t entries = 0;  // of these, those that the block has links for
    std::uint64_t equalLength = 0;
    bool equal = false;         // all data blocks but the chain's last are of equalLength
    bool offsets = false;       // the block tells where each data block belongs
    bool columns = false;       // LD: lengths and offsets count records
    bool invalidation = false;  // invalidation blocks are listed, too
    bool last = false;          // of the chain
  };

  void stepTo(FoundBlock& block);
  void lose();
  void finish();
  void openHeader(const FoundBlock& block);
  void openList(const FoundBlock& block);
  void checkCount();
  void checkLengths();
  void checkLikeFirst();
  void keepRoom();
  void goOn();
  void goToEntry();

  void checkData(FoundBlock& block);
  void checkInvalidation(const FoundBlock& block);
  void checkEqualLength(const FoundBlock& block);
  void checkOffset();
  void extend(FoundBlock& block);
  bool partOf(const FoundBlock& block, StoredPart& part);
  std::uint16_t kindWanted() const;
  bool isLastBlock() const {
    return at_ == At::Start || (list_.last && entry_ + 1 == list_.entries);
  }
  std::uint64_t unit() const { return list_.columns ? recordBytes_ : 1; }
  std::string listField(const char* field) const;
  std::string lengthField() const;

  BlockCheck& walk_;
  BlockReader& delivery_;
  const DataRole place_;
  ByteSink& sink_;
  const std::uint64_t recordBytes_;
  const std::uint64_t invalBytes_;
  BlockLink link_;
  At at_ = At::Start;
  List list_;
  List firstList_;
  std::uint64_t entry_ = 0;       // in the list
  std::uint64_t length_ = 0;      // bytes of all data blocks so far
  std::uint64_t partLength_ = 0;  // of the one visited last
  int zipType_ = -1;              // that a header states; told once when blocks differ
  bool complete_ = true;
  bool done_ = false;
};

}  // namespace tolvex
