// The check of what lies behind links to data: lists, data blocks, compressed data blocks.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "Mdf4/check/BlockCheck.h"
#include "Mdf4/check/BlockReader.h"
#include "Mdf4/format/ListWalk.h"

namespace tolvex {

// What a data link leads to.
enum class DataRole : std::uint8_t { Records, Values, Reduction, Array };

// Checks the blocks behind one data link in order, one at a time, so that the checks of a file's
// groups can take turns and together go through the file from front to back.
class DataCheck {
 public:
  // `recordBytes` and `invalBytes`: data and invalidation bytes of a record, in column storage.
  DataCheck(BlockCheck& blocks, BlockReader& reader, const BlockLink& link, DataRole role,
            ByteSink& sink, std::uint64_t recordBytes = 0, std::uint64_t invalBytes = 0)
      : blocks_(blocks),
        reader_(reader),
        role_(role),
        sink_(sink),
        recordBytes_(recordBytes),
        invalBytes_(invalBytes),
        first_(link),
        walk_(blocks.file(), link.target) {}

  bool done() const { return done_; }
  // Where the block lies that the next step checks.
  std::uint64_t next() const { return walk_.link().target; }
  void step();

 private:
  BlockLink link() const;
  void finish();
  void enter(const FoundBlock& block);
  void checkHeader(const FoundBlock& block);
  void checkList(const FoundBlock& block);
  void checkCount(const FoundBlock& block);
  void checkLengths(const FoundBlock& block);
  void checkLikeFirst();
  void keepRoom(const FoundBlock& block);
  void checkMissing();

  void checkData(FoundBlock& block, const BlockLink& link);
  void checkInvalidation();
  void checkEqualLength(const FoundBlock& block, std::uint64_t length);
  void checkOffset();
  void extend(FoundBlock& block);
  bool partOf(const FoundBlock& block, const BlockLink& link, bool isInvalidation,
              StoredPart& part);
  std::uint16_t kindWanted(bool isInvalidation) const;
  bool inList() const { return walk_.link().role == DataLink::Entry; }
  bool isLastList() const { return walk_.list().next == 0; }
  bool isLastBlock() const { return !inList() || walk_.isLastEntry(); }
  std::uint64_t unit() const { return walk_.list().columns ? recordBytes_ : 1; }
  std::string listField(const char* field) const;
  std::string lengthField() const;

  BlockCheck& blocks_;
  BlockReader& reader_;
  const DataRole role_;
  ByteSink& sink_;
  const std::uint64_t recordBytes_;
  const std::uint64_t invalBytes_;
  const BlockLink first_;
  ListWalk walk_;
  std::optional<DataList> firstList_;
  bool hasEqualLength_ = false;   // the list states the length of its blocks
  bool hasOffsets_ = false;       // or where each belongs
  std::uint64_t length_ = 0;      // bytes of all data blocks so far
  std::uint64_t partLength_ = 0;  // of the one visited last
  int zipType_ = -1;              // that a header states; told once when blocks differ
  bool complete_ = true;
  bool done_ = false;
};

}  // namespace tolvex
