// From the blocks that are really there to a file as the format asks for it.
#include "Mdf4/recovery/Recovery.h"

#include <algorithm>
#include <cinttypes>
#include <deque>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "Mdf4/base/Diagnostics.h"
#include "Mdf4/format/DirectFile.h"
#include "Mdf4/format/OwnedRanges.h"
#include "Mdf4/format/WorkSizes.h"
#include "Mdf4/recovery/BlockSurvey.h"
#include "Mdf4/recovery/DataCopy.h"
#include "Mdf4/recovery/LooseBlocks.h"
#include "Mdf4/rewrite/Notes.h"
#include "Mdf4/rewrite/TreeCopy.h"
#include "tolvex/Mdf4.h"
#include "tolvex/MdfVersion.h"

namespace tolvex {
namespace {

constexpr char kHistory[] =
    "<FHcomment><TX>Recovered: finalized and sorted.</TX><tool_id>tolvex</tool_id>"
    "<tool_vendor>tolvex</tool_vendor><tool_version>" TOLVEX_VERSION "</tool_version></FHcomment>";

class Recovery {
 public:
  Recovery(const MdfRecoverOptions& options, const WorkSizes& sizes, RecoveryResult& result)
      : options_(options), sizes_(sizes), result_(result), report_(result.report) {}

  // Reads `input` and writes all of the result into `output`. Fills the report; its `failure`
  // when there is no result.
  void run(std::unique_ptr<SystemFile> input, std::unique_ptr<SystemFile> output);

 private:
  // Whether the logger says that it had no time for this step.
  bool lacks(Unfinished step) const { return unfinished_ && has(id_.id_unfin_flags, step); }
  bool readIdentification();
  void survey();
  void extendLast();
  void adoptLost();
  bool writeEnd();
  void noteUnreadable();

  const MdfRecoverOptions& options_;
  const WorkSizes sizes_;
  RecoveryResult& result_;
  MdfRecoveryReport& report_;
  DirectFile in_;
  DirectFile out_;
  IdBlock id_ = {};
  bool unfinished_ = false;
  OwnedRanges owned_;
  std::unique_ptr<TreeCopy> tree_;
  std::unique_ptr<BlockSurvey> survey_;
};

// Whatever the identification says: a header block behind it makes it a measurement file.
bool Recovery::readIdentification() {
  BlockHeader header;
  const bool hasHeader =
      readSoundHeader(in_, kHeaderBlockPosition, header) && header.type == block_type::kHD;
  std::string_view fileId;
  if (in_.holds(0, sizeof id_) && in_.ReadAt(0, sizeof id_, &id_)) {
    fileId = {id_.id_file, sizeof id_.id_file};
  }
  unfinished_ = fileId == kUnfinalizedFileId;
  constexpr std::uint16_t kUsual = 410;
  const bool isKnown = fileId == kFileId || unfinished_;
  const bool isVersion = id_.id_ver >= kOldestVersion && id_.id_ver <= kNewestVersion;
  // What cannot be read may have been sound.
  const bool isUnknown =
      !in_.reads().nextUnreadable(0, kHeaderBlockPosition + kBlockHeaderSize).empty();
  if (!hasHeader && !(isKnown && isVersion) && !isUnknown) {
    report_.failure =
        "identification at 0: no measurement file in this format, and no header block at 64";
    return false;
  }
  if (!isKnown) {
    noteRepair(report_, "identification at 0: expected \"MDF     \" or \"UnFinMF \"");
  }
  if (!isVersion) {
    noteRepair(report_, formatText("version number at 28: expected 400 to 499, found %u",
                                   unsigned{id_.id_ver}));
    id_.id_ver = kUsual;
  }
  if (id_.id_custom_unfin_flags != 0) {
    noteRepair(report_, formatText("identification: steps of finalization that only the logger's "
                                   "maker knows (flags 0x%04X at 62) were not done",
                                   unsigned{id_.id_custom_unfin_flags}));
  }
  return true;
}

// Walks the data of all groups that are known by now.
void Recovery::survey() {
  for (SourceData& data : tree_->data()) {
    if (data.found == nullptr) data.found = &survey_->find(data.dataLink);
    for (const SourceGroup* const group : data.groups) {
      for (const ValueChannel& values : group->values) {
        if (data.valuesAt(values.data) == nullptr) survey_->find(values.data);
      }
      for (const SampleReduction& reduction : group->reductions) survey_->find(reduction.data);
    }
  }
  survey_->walk();
}

// Gives the last blocks of an unfinished file the length that their logger had no time to write.
void Recovery::extendLast() {
  if (lacks(Unfinished::LastDataLength)) {
    for (const SourceData& data : tree_->data()) survey_->extendLast(*data.found);
  }
  if (!lacks(Unfinished::LastReductionLength)) return;
  for (const SourceGroup& group : tree_->groups()) {
    for (const SampleReduction& reduction : group.reductions) {
      survey_->extendLast(survey_->find(reduction.data));
    }
  }
}

// Takes in what stands where chains broke off.
void Recovery::adoptLost() {
  LooseBlocks loose(in_, owned_, *tree_, *survey_, unfinished_);
  const auto isTree = [](std::uint16_t type) {
    return type == block_type::kDG || type == block_type::kCG || type == block_type::kCN;
  };
  bool adopted = false;
  for (std::uint64_t at = loose.find(0, isTree); at != 0; at = loose.findBehind(at, isTree)) {
    adopted |= tree_->adopt(at);
  }
  if (adopted) survey();
  const auto isList = [](std::uint16_t type) {
    return type == block_type::kDL || type == block_type::kLD;
  };
  for (std::uint64_t at = loose.find(0, isList); at != 0; at = loose.findBehind(at, isList)) {
    if (const SourceData* const owner = loose.ownerOfList(at)) {
      survey_->addChain(*owner->found, at);
      survey_->walk();
    }
  }
  loose.assign(lacks(Unfinished::LastDataLength), report_);
}

bool Recovery::writeEnd() {
  tree_->addHistory(kHistory);
  if (!tree_->plan().write()) return false;
  const std::string version = formatText("%u.%02u    ", id_.id_ver / 100U, id_.id_ver % 100U);
  IdBlock id = {};
  std::copy(kFileId.begin(), kFileId.end(), id.id_file);
  std::copy_n(version.begin(), sizeof id.id_vers, id.id_vers);
  std::copy_n(id_.id_prog, sizeof id.id_prog, id.id_prog);
  id.id_ver = id_.id_ver;
  return out_.WriteAt(0, sizeof id, &id) && out_.Close();
}

void Recovery::run(std::unique_ptr<SystemFile> input, std::unique_ptr<SystemFile> output) {
  if (!in_.attach(std::move(input)) || !out_.attach(std::move(output))) {
    report_.failure = "a file's size is unknown";
    return;
  }
  in_.reads().bySectors();
  if (!readIdentification()) return;
  out_.Allocate(kIdBlockSize, false);
  tree_ = std::make_unique<TreeCopy>(in_, out_, owned_, report_, !lacks(Unfinished::CycleCounts));
  survey_ = std::make_unique<BlockSurvey>(in_, owned_);
  tree_->readHeader();
  survey();
  extendLast();
  adoptLost();
  const std::deque<SourceGroup>& groups = tree_->groups();
  if (std::ranges::all_of(groups, [](const SourceGroup& group) { return group.holdsValues(); })) {
    report_.failure = "nothing usable: no channel group was found";
    if (!in_.reads().error().empty()) report_.failure += "; " + in_.reads().error();
    return;
  }
  DataCopy data(in_, out_, *tree_, *survey_, lacks(Unfinished::ValueOffsets), result_, options_,
                sizes_);
  if (!data.copyAll() || !writeEnd()) {
    report_.failure = out_.writeError().empty() ? "the input cannot be read" : out_.writeError();
    return;
  }
  noteUnreadable();
  for (const SourceGroup& group : groups) {
    if (!group.holdsValues()) report_.groups.push_back(group.report);
  }
  if (options_.progress) options_.progress(in_.end(), in_.end());
}

// Whatever cannot be read may have been a loss; it comes before what was seen to be missing.
void Recovery::noteUnreadable() {
  constexpr std::size_t kMost = 100;
  std::vector<std::string> texts;
  ByteRange bad;
  while (texts.size() < kMost && !(bad = in_.reads().nextUnreadable(bad.end, in_.end())).empty()) {
    texts.push_back(formatText("reading %" PRIu64 " bytes at %" PRIu64 " failed: %s",
                               bad.end - bad.start, bad.start,
                               in_.reads().unreadableReason().c_str()));
  }
  if (texts.empty() && !in_.reads().error().empty()) texts.push_back(in_.reads().error());
  if (!out_.reads().error().empty()) texts.push_back("the result: " + out_.reads().error());
  report_.losses.insert(report_.losses.begin(), texts.begin(), texts.end());
  report_.losses.resize(std::min(report_.losses.size(), kMost));
}

}  // namespace

RecoveryResult recoverBetween(std::unique_ptr<SystemFile> input, std::unique_ptr<SystemFile> output,
                              const MdfRecoverOptions& options, const WorkSizes& sizes) {
  RecoveryResult result;
  Recovery recovery(options, sizes, result);
  recovery.run(std::move(input), std::move(output));
  return result;
}

}  // namespace tolvex
