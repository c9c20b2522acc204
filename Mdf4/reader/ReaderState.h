// What the readers share behind their interface: the opened file and its tree.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <new>
#include <optional>
#include <string>
#include <unordered_map>

#include "Mdf4/format/MDF4File.h"
#include "Mdf4/format/SegmentTable.h"
#include "Mdf4/format/m4DataStream.h"
#include "Mdf4/model/FileTree.h"
#include "Mdf4/model/RecordCursor.h"
#include "Mdf4/reader/MissedLookUps.h"
#include "tolvex/Mdf4.h"

namespace tolvex {

struct ReaderState {
  ReaderState() = default;
  ~ReaderState();
  // What a copy of a reader begins with: the same, or, before its first opening, its own.
  static std::shared_ptr<ReaderState> forCopy(const std::shared_ptr<ReaderState>& state);

  MDF4File file;
  FileTexts texts{file};
  MdfFileInfo info;
  bool wasOpened = false;
  std::size_t longestText = std::string::npos;  // MdfBaseReader::setLongestText
  std::uint64_t startTime = 0;                  // ns, in UTC
  bool loggerRules = false;                     // MdfReader::setLoggerRules
  FileTree tree;
  MissedLookUps missed;
  std::unordered_map<std::uint64_t, std::shared_ptr<SegmentTable>> tables;  // by data link

  // The data group's, channel group's or channel's block, or null.
  M4DGBlock* findGroup(int dg) const;
  M4CGBlock* findGroup(int dg, int cg) const;
  M4CNBlock* findChannel(int dg, int cg, int cn) const;

  // The block of a look-up, which is one of those that are missed when there is none.
  template <class... Index>
  m4Block* lookUp(m4Block* found, Index... index) {
    return orOutOfMemory(found, [&] {
      if (found == nullptr) missed.add(index...);
      return found;
    });
  }

  [[nodiscard]] bool describe(int dg, int cg, MdfGroupInfo& group) const;
  // The text of a TX or MD block while the file is open, up to the longest that is handed out.
  std::string textAt(std::uint64_t position);

  // A stream over the data behind the link, of about `expectedSize` bytes where that is known; all
  // streams over one link share its table.
  m4DataStream openStream(std::uint64_t dataLink, std::uint64_t expectedSize = 0);
  // The records of a channel group of data group `dg`; nothing when it has no data or they are
  // damaged.
  [[nodiscard]] std::optional<RecordCursor> openRecords(int dg, int cg);

  // The result of an operation, or `failure` when it runs out of memory.
  template <class Result, class Work>
  Result orOutOfMemory(Result failure, Work work) {
    try {
      return work();
    } catch (const std::bad_alloc&) {
      ranOutOfMemory = true;
      return failure;
    }
  }
  std::atomic<bool> ranOutOfMemory = false;
};

}  // namespace tolvex
