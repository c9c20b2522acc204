// Takes the input's groups over into a new file, as MdfSigWriter describes them there, fills some
// records, and reads the result: what was taken over is as it was, and a sound input's copy is
// sound.
#include <algorithm>
#include <climits>
#include <memory>
#include <string>
#include <vector>

#include "fuzz/FuzzInput.h"
#include "tolvex/Mdf4.h"

namespace tolvex::fuzz {
namespace {

constexpr int kTimeGroups = 2;  // of start and stop, in front of the others
constexpr int kMostGroups = 8;
constexpr int kMostChannels = 200;
constexpr int kMostRecords = 4;  // of a group
constexpr std::uint64_t kStart = 1'700'000'000'000'000;

// A group in the new file.
struct Group {
  std::vector<MdfSigCCInfo> channels;  // as the input describes them
  std::size_t refused = 0;             // of them
  int records = 0;
};

class Copy {
 public:
  Copy(std::shared_ptr<MdfSigReader> source, const std::string& path, Numbers steering)
      : source_(std::move(source)), writer_(path), steering_(steering) {
    writer_.setErrorCallback([this](const std::string& text) {
      refused_ += text.rfind("Failed to add signal channel: ", 0) == 0 ? 1U : 0U;
    });
  }

  void run() {
    require(writer_.createDataGroupFromReader(source_, 0, 0, "") == -1, "nothing is recorded yet");
    require(writer_.open() && writer_.startRecord(kStart) == 0, "a file in memory can be created");
    for (int dg = 0, dgs = std::min(source_->getDGCount(), kMostGroups); dg < dgs; ++dg) {
      for (int cg = 0, cgs = std::min(source_->getCGCount(dg), kMostGroups); cg < cgs; ++cg) {
        takeOver(dg, cg);
      }
    }
    for (const int dg : {-1, INT_MAX, INT_MIN}) {
      require(writer_.createDataGroupFromReader(source_, dg, 0, "none") == -1,
              "what does not exist is not taken over");
      groups_.emplace_back();  // with its time alone
    }
    writer_.close();
  }

  const std::vector<Group>& groups() const { return groups_; }

 private:
  void takeOver(int dg, int cg) {
    const int channels = source_->getCNCount(dg, cg);
    if (channels > kMostChannels) return;
    refused_ = 0;
    const int index = writer_.createDataGroupFromReader(source_, dg, cg, "group");
    require((index >= 0) == (channels > 0), "a group with channels is taken over");
    Group& group = groups_.emplace_back();
    if (index < 0) return;
    require(index == static_cast<int>(groups_.size()) - 1, "groups are numbered in their order");
    for (int cn = 0; cn < channels; ++cn) {
      MdfSigCCInfo info;
      if (source_->isDataType(dg, cg, cn) && source_->getCCInfo(dg, cg, cn, info)) {
        group.channels.push_back(info);
      }
    }
    group.refused = refused_;
    fill(index, group);
  }

  void fill(int index, Group& group) {
    for (int i = 0; i < kMostRecords && !group.channels.empty(); ++i) {
      const MdfSigCCInfo& channel =
          group.channels[steering_.next<std::uint8_t>() % group.channels.size()];
      const std::vector<std::uint8_t> bytes((channel.bitCount + 7U) / 8,
                                            steering_.next<std::uint8_t>());
      const int result = writer_.writeSignalData(index, i, channel.name, bytes.data(),
                                                 static_cast<unsigned>(bytes.size()));
      group.records += result == 0 ? 1 : 0;
    }
  }

  std::shared_ptr<MdfSigReader> source_;
  MdfSigWriter writer_;
  Numbers steering_;
  std::size_t refused_ = 0;
  std::vector<Group> groups_;
};

void requireSame(const MdfSigCCInfo& a, const MdfSigCCInfo& b) {
  require(a.name == b.name && a.unit == b.unit && a.comment == b.comment,
          "a channel has its texts in the copy");
  require(a.dataType == b.dataType, "a channel has its type in the copy");
  const unsigned bits = (a.bitCount + 7U) / 8 * 8;  // whole bytes, of which 8 bits are told
  require(b.bitCount == (bits & 0xFF), "a channel has its bytes in the copy");
}

void readBack(const std::vector<Group>& groups, const std::string& path) {
  MdfSigReader reader(path);
  reader.setReadAllGroups(true);
  require(reader.open() && reader.getProblems().empty(), "a copy has no fault");
  require(reader.getDGCount() == kTimeGroups + static_cast<int>(groups.size()),
          "a copy has the groups that were taken over");
  for (std::size_t i = 0; i < groups.size(); ++i) {
    const int dg = kTimeGroups + static_cast<int>(i);
    const Group& group = groups[i];
    require(reader.getRecordCount(dg, 0) == group.records, "a copy has its records");
    const auto expected = group.channels.size() - group.refused;
    require(static_cast<std::size_t>(reader.getCNCount(dg, 0)) == 1 + expected,
            "a group has time and the channels that were taken over");
    for (std::size_t cn = 0; group.refused == 0 && cn < expected; ++cn) {
      MdfSigCCInfo info;
      require(reader.getCCInfo(dg, 0, static_cast<int>(cn) + 1, info), "a channel is described");
      requireSame(group.channels[cn], info);
    }
  }
}

void requireSound(const std::string& path) {
  const MdfCheckReport check = checkFile(path);
  for (const MdfFinding& finding : check.findings) {
    if (finding.error) tell(finding);
  }
  require(check.failure.empty() && check.errors == 0, "a copy is sound");
}

}  // namespace
}  // namespace tolvex::fuzz

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace tolvex;
  using namespace tolvex::fuzz;
  const ByteSpan input(data, size);
  const MemoryFile file(input);
  const MemoryFile result({});
  const auto reader = std::make_shared<MdfSigReader>(file.path());
  static_cast<void>(reader->open());
  Copy copy(reader, result.path(), steeringOf(input));
  copy.run();
  readBack(copy.groups(), result.path());
  // What the input claims is claimed in the copy.
  if (checkFile(file.path()).errors == 0) requireSound(result.path());
  return 0;
}
