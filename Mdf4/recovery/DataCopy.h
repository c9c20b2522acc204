// Records, values and sample reductions of a file that is recovered, group by group.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

#include "Mdf4/format/DirectFile.h"
#include "Mdf4/format/WorkSizes.h"
#include "Mdf4/recovery/BlockSurvey.h"
#include "Mdf4/recovery/Recovery.h"
#include "Mdf4/rewrite/DataWriter.h"
#include "Mdf4/rewrite/RecordValues.h"
#include "Mdf4/rewrite/TreeCopy.h"
#include "Mdf4/rewrite/UnsortedRecords.h"

namespace tolvex {

// Copies what the survey has found for the tree's groups, and enters the links to it into the
// tree's plan and what was lost into the groups' reports. Borrows everything that it is given.
class DataCopy {
 public:
  // `byOrder`: as of SplitGroup, in unsorted sequences.
  DataCopy(DirectFile& in, DirectFile& out, TreeCopy& tree, BlockSurvey& survey, bool byOrder,
           RecoveryResult& result, const MdfRecoverOptions& options, const WorkSizes& sizes)
      : in_(in),
        out_(out),
        tree_(tree),
        survey_(survey),
        byOrder_(byOrder),
        report_(result.report),
        checksums_(result.checksums),
        options_(options),
        sizes_(sizes) {}

  // False when a file fails.
  [[nodiscard]] bool copyAll();

 private:
  // One group of an unsorted sequence.
  struct Part {
    SourceGroup* group;
    std::unique_ptr<DataWriter> records;
    std::unique_ptr<RecordValues> values;
    std::unique_ptr<SplitGroup> split;
  };

  void keepChecksums(DataWriter& records, RecordValues& values) const;
  bool copySorted(SourceGroup& group, const FoundData& found);
  bool copyUnsorted(const SourceData& data);
  bool copyValues(SourceGroup& group, RecordValues& values, std::size_t channel);
  std::vector<Part> makeParts(const SourceData& data);
  static void addGroups(const SourceData& data, const std::vector<Part>& parts,
                        UnsortedRecords& sequence);
  std::uint8_t recordIdSize(const SourceData& data, const std::vector<Part>& parts);
  bool copyReductions(SourceGroup& group);
  bool finishGroup(SourceGroup& group, DataWriter& records, RecordValues& values,
                   const FoundData& found);
  void advance(std::uint64_t bytes);

  DirectFile& in_;
  DirectFile& out_;
  TreeCopy& tree_;
  BlockSurvey& survey_;
  const bool byOrder_;
  MdfRecoveryReport& report_;
  std::vector<GroupChecksum>& checksums_;
  const MdfRecoverOptions& options_;
  const WorkSizes sizes_;
  std::uint64_t done_ = 0;
  std::uint64_t reported_ = 0;
};

}  // namespace tolvex
