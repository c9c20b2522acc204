#include "Mdf4/reader/ColumnRead.h"

#include <algorithm>
#include <atomic>
#include <exception>
#include <memory>
#include <string>
#include <system_error>
#include <thread>
#include <utility>

namespace tolvex {
namespace {

constexpr std::uint64_t kLeastShare = std::uint64_t{1} << 16;  // records of one column
constexpr unsigned kMostThreads = 256;

// What one thread does at a time: records of a part.
struct Share {
  std::size_t part = 0;
  std::uint64_t first = 0;
  std::uint64_t count = 0;
  std::uint64_t row = 0;  // of the columns
  std::vector<MdfColumn> columns = {};
};

void fill(RecordBatches* records, const Share& share,
          std::span<const std::unique_ptr<ColumnBuilder>> builders) {
  std::uint64_t done = 0;
  if (records != nullptr && share.count != 0) {
    records->seek(share.first);
    while (done < share.count) {
      const RecordBatch batch = records->next(share.count - done);
      if (batch.count() == 0) break;
      for (const auto& builder : builders) {
        builder->append(batch.rows, share.first + done);
        builder->appendLost(batch.lost);
      }
      done += batch.count();
    }
  }
  for (const auto& builder : builders) builder->appendLost(share.count - done);
}

std::vector<RecordBytes> bytesThatMatter(std::span<const ColumnPlan> plans) {
  std::vector<RecordBytes> ranges;
  for (const ColumnPlan& plan : plans) addBytes(plan, ranges);
  std::ranges::sort(ranges, {}, &RecordBytes::first);
  std::vector<RecordBytes> joined;
  for (const RecordBytes& range : ranges) {
    if (joined.empty() || joined.back().first + joined.back().count < range.first) {
      joined.push_back(range);
    } else {
      RecordBytes& last = joined.back();
      last.count = std::max(last.count, range.first + range.count - last.first);
    }
  }
  return joined;
}

class ColumnRead {
 public:
  ColumnRead(std::span<const ColumnPart> parts, std::span<const WantedColumn> wanted,
             unsigned threads)
      : parts_(parts), wanted_(wanted) {
    for (std::size_t i = 0; i < parts.size(); ++i)
      planPart(i, std::clamp(threads, 1U, kMostThreads));
    for (std::size_t i = 0; i < wanted.size(); ++i) {
      assemblies_.emplace_back(wanted[i].form, plans_[0][i], rows_, wanted[i].memory);
    }
  }

  std::vector<MdfColumn> run(unsigned threads) {
    std::vector<Helper> helpers;
    while (helpers.size() + 1 < std::min<std::size_t>(threads, shares_.size())) {
      Helper helper;
      for (const ColumnPart& part : parts_) helper.files.push_back(part.file->again());
      const auto isMissing = [](const auto& file) { return file == nullptr; };
      if (std::ranges::any_of(helper.files, isMissing)) break;
      helpers.push_back(std::move(helper));
    }
    try {
      for (Helper& helper : helpers) {
        helper.thread = std::thread([&] {
          work(
              helper.failure, [&](std::size_t part) -> auto& { return helper.files[part]->data; });
        });
      }
    } catch (const std::system_error&) {
      // There are no more threads: those that there are do it.
    }
    std::exception_ptr failure;
    work(
        failure, [&](std::size_t part) -> auto& { return parts_[part].file->data(); });
    for (Helper& helper : helpers) {
      if (helper.thread.joinable()) helper.thread.join();
      if (helper.failure != nullptr) failure = helper.failure;
    }
    if (failure != nullptr) std::rethrow_exception(failure);
    for (const Helper& helper : helpers) tellProblems(helper);
    return join();
  }

 private:
  // A thread beside the caller's, and the files of the parts as it has them open.
  struct Helper {
    std::thread thread;
    std::vector<std::unique_ptr<ColumnFile::Again>> files;
    std::exception_ptr failure;
  };

  void planPart(std::size_t index, unsigned threads) {
    const ColumnPart& part = parts_[index];
    std::vector<ColumnPlan>& plans = plans_.emplace_back();
    for (const WantedColumn& column : wanted_) {
      plans.push_back(part.file->plan(
          *part.group, part.group->channels[static_cast<std::size_t>(column.channel)]));
    }
    if (part.file->isOneOfMany()) part.file->data().rest();
    // A sequence of records of several groups is gone through in one piece.
    const auto dataGroup = static_cast<std::size_t>(part.group->dataGroup);
    const bool isSorted = part.file->tree().dataGroups[dataGroup].recordIdSize == 0;
    const std::uint64_t most = isSorted ? part.count / kLeastShare * wanted_.size() : 1;
    const std::uint64_t pieces = std::clamp<std::uint64_t>(most, 1, threads);
    for (std::uint64_t piece = 0, done = 0; piece < pieces; ++piece) {
      const std::uint64_t count = (part.count - done) / (pieces - piece);
      shares_.push_back({index, part.first + done, count, rows_ + done, {}});
      done += count;
    }
    rows_ += part.count;
  }

  // Takes shares until there are none left.
  template <class DataOf>
  void work(std::exception_ptr& failure, DataOf dataOf) {
    try {
      for (std::size_t next = 0; (next = next_.fetch_add(1)) < shares_.size();) {
        read(shares_[next], dataOf(shares_[next].part));
      }
    } catch (...) {
      failure = std::current_exception();
      next_ = shares_.size();
    }
  }

  void read(Share& share, RecordingData& data) {
    const ModelGroup& group = *parts_[share.part].group;
    std::vector<std::unique_ptr<ValueSource>> sources;
    const auto workspace = std::make_unique<ColumnWorkspace>();
    std::vector<std::unique_ptr<ColumnBuilder>> builders;
    for (std::size_t i = 0; i < wanted_.size(); ++i) {
      const ColumnPlan& plan = plans_[share.part][i];
      const bool isOutside = plan.kind == ColumnPlan::Kind::Value;
      const auto& channel = group.channels[static_cast<std::size_t>(wanted_[i].channel)];
      sources.push_back(isOutside ? data.values(group, channel) : nullptr);
      builders.push_back(std::make_unique<ColumnBuilder>(plan, wanted_[i].form, share.count,
                                                         sources.back().get(), *workspace,
                                                         assemblies_[i].placeOf(share.row)));
    }
    const std::shared_ptr<RecordBatches> records = data.batches(group);
    if (records != nullptr) records->want(bytesThatMatter(plans_[share.part]));
    fill(records.get(), share, builders);
    for (const auto& builder : builders) share.columns.push_back(builder->finish());
    if (parts_[share.part].file->isOneOfMany()) data.rest();
  }

  void tellProblems(const Helper& helper) {
    for (std::size_t part = 0; part < parts_.size(); ++part) {
      for (const std::string& problem : helper.files[part]->file.problems().texts()) {
        parts_[part].file->problems().add(problem);
      }
    }
  }

  std::vector<MdfColumn> join() {
    std::vector<MdfColumn> columns;
    for (std::size_t i = 0; i < wanted_.size(); ++i) {
      for (Share& share : shares_) assemblies_[i].add(std::move(share.columns[i]));
      columns.push_back(assemblies_[i].finish());
    }
    return columns;
  }

  const std::span<const ColumnPart> parts_;
  const std::span<const WantedColumn> wanted_;
  std::vector<std::vector<ColumnPlan>> plans_;  // of each part: by wanted column
  std::vector<ColumnAssembly> assemblies_;      // by wanted column
  std::vector<Share> shares_;
  std::uint64_t rows_ = 0;
  std::atomic<std::size_t> next_ = 0;  // of the shares
};

}  // namespace

std::vector<MdfColumn> readColumns(std::span<const ColumnPart> parts,
                                   std::span<const WantedColumn> wanted, unsigned threads) {
  if (parts.empty() || wanted.empty()) return {};
  return ColumnRead(parts, wanted, threads).run(threads);
}

}  // namespace tolvex
