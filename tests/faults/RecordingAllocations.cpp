// What is recorded while allocations fail is in the file or counted as lost, and nothing else is.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "Mdf4/MdfRecorder.h"
#include "Mdf4/format/BlockRecords.h"
#include "tests/faults/FailingMemory.h"
#include "tests/support/FileBuilder.h"
#include "tests/support/RecordedFile.h"
#include "tolvex/Mdf4.h"
#include "tolvex/MdfEngine.h"

namespace tolvex::test {
namespace {

constexpr std::uint64_t kStart = 1'700'000'000'000'000;  // microseconds

// Where records come from; each has a number, by which it is known again.
enum Source : std::size_t { kSignals, kRaw, kFrames1, kFrames2, kErrors, kFdErrors, kSources };
using Contents = std::array<std::vector<std::uint32_t>, kSources>;  // numbers

struct Freed {
  void operator()(void* handle) const { free(handle); }
  void (*free)(void*);
};
using Handle = std::unique_ptr<void, Freed>;

// Records as a host would that goes on whatever fails, and notes what it was told.
class Host {
 public:
  explicit Host(bool async) : recorder_(createRecorder(async), Freed{deleteRecorder}) {
    frames_[0].BusChannel(1);
    frames_[1].BusChannel(2);
    for (MdfCanMessage& frame : frames_) frame.DataBytes(Bytes(8));
    fdError_.BtrExtCfg(0);
  }

  void* recorder() const { return recorder_.get(); }

  void start(const std::string& path) {
    contents_ = {};
    handedOver_ = 0;
    started_ = startRecord(recorder(), path.c_str(), kStart) == 0;
    signals_ = addDataGroup(recorder(), "a group that is known by a name");
    if (signals_ >= 0 && !(addChannel(signals_, "time", 8, 4, 2) &&
                           addChannel(signals_, "a number of four bytes", 4, 0, 0))) {
      signals_ = -1;
    }
    raw_ = addDataGroup(recorder(), "");
    if (raw_ >= 0 && !addChannel(raw_, "n", 4, 0, 0)) raw_ = -1;
  }

  // Records with the numbers from `first` on, before `last`: one of each source.
  void record(std::uint32_t first, std::uint32_t last) {
    for (std::uint32_t number = first; number < last; ++number) {
      const std::uint64_t time = kStart + number;
      if (signals_ >= 0) note(kSignals, number, [&] { return insert(number); });
      recordRaw(number, number + 1);
      for (const Source source : {kFrames1, kFrames2}) {
        MdfCanMessage& frame = frames_[source - kFrames1];
        frame.MessageId(number);
        note(source, number, [&] { return saveCanMessage(recorder(), time, &frame); });
      }
      error_.MessageId(number);
      note(kErrors, number, [&] { return saveCanErrorFromCanError(recorder(), time, &error_); });
      fdError_.MessageId(number);
      note(kFdErrors, number,
           [&] { return saveCanErrorFromCanError(recorder(), time, &fdError_); });
    }
  }

  void recordRaw(std::uint32_t first, std::uint32_t last) {
    for (std::uint32_t number = first; raw_ >= 0 && number < last; ++number) {
      note(kRaw, number, [&] {
        return insertDataToDG(recorder(), static_cast<unsigned>(raw_), sizeof number, &number);
      });
    }
  }

  void stop() { stopRecord(recorder(), kStart); }

  const Contents& accepted() const { return contents_; }
  std::uint64_t handedOver() const { return handedOver_; }  // accepted or not
  bool started() const { return started_; }
  std::uint64_t lost() const { return getLostRecordCount(recorder()); }
  std::string error() const {
    std::array<char, 200> text = {};
    EXPECT_GE(getRecorderError(recorder(), text.data(), text.size()), 0);
    return text.data();
  }

 private:
  template <class HandOver>
  void note(Source source, std::uint32_t number, HandOver handOver) {
    if (started_) ++handedOver_;
    if (handOver() != 0) return;
    const SoundMemory sound;
    contents_[source].push_back(number);
  }

  bool addChannel(int group, const char* name, std::uint32_t bytes, std::uint8_t dataType,
                  std::uint8_t type) {
    const Handle channel(allocChannel(), Freed{freeChannel});
    const std::uint8_t syncType = type == 2 ? 1 : 0;
    const Handle formula(allocFormula(7), Freed{freeFormula});
    return setChannelParameter(channel.get(), MDF_CHANNEL_NAME, 0, name) == 0 &&
           setChannelParameter(channel.get(), MDF_CHANNEL_UNIT, 0, "a unit of that number") == 0 &&
           setChannelParameter(channel.get(), MDF_CHANNEL_BYTE_COUNT, 4, &bytes) == 0 &&
           setChannelParameter(channel.get(), MDF_CHANNEL_DATA_TYPE, 1, &dataType) == 0 &&
           setChannelParameter(channel.get(), MDF_CHANNEL_TYPE, 1, &type) == 0 &&
           setChannelParameter(channel.get(), MDF_CHANNEL_SYNC_TYPE, 1, &syncType) == 0 &&
           addFormulaParamN2T(formula.get(), 1, "the text of the number one") == 0 &&
           setFormulaParamDefault(formula.get(), 0, "the text of any other") == 0 &&
           setChannelFormula(channel.get(), formula.get()) == 0 &&
           addChannelToDG(recorder(), group, channel.get()) == 0;
  }

  int insert(std::uint32_t number) {
    const Handle record(allocRecord(recorder(), signals_), Freed{freeRecord});
    if (record == nullptr) {
      --handedOver_;  // there is nothing to hand over
      return -1;
    }
    EXPECT_EQ(fillRecordData(record.get(), "a number of four bytes", sizeof number, &number), 0);
    return insertRecordToDG(recorder(), signals_, record.get());
  }

  Handle recorder_;
  std::array<MdfCanMessage, 2> frames_;
  MdfCanError error_;
  MdfCanError fdError_;
  bool started_ = false;
  int signals_ = -1;  // the groups, when they could be defined
  int raw_ = -1;
  Contents contents_;
  std::uint64_t handedOver_ = 0;
};

// Appends what the file holds.
void readInto(const std::string& path, Contents& contents) {
  const MdfCheckReport report = checkFile(path);
  EXPECT_EQ(report.failure, "");
  for (const MdfFinding& finding : report.findings) {
    EXPECT_FALSE(finding.error) << finding.what << " at " << finding.position << ": expected "
                                << finding.expected << ", found " << finding.found;
  }
  for (const RecordedGroup& group : RecordedFile(path).groups) {
    EXPECT_EQ(group.cg.cg_cycle_count, group.records().size()) << group.comment;
    for (const Bytes& record : group.records()) {
      const auto number = [&](std::size_t at) {
        return loadNumber<std::uint32_t>(record.data() + at);
      };
      switch (record.size()) {
        case 4:
          contents[kRaw].push_back(number(0));
          break;
        case 12:
          contents[kSignals].push_back(number(8));
          break;
        case 16:  // the start or stop time
          break;
        case 23:
          contents[record[8] == 1 ? kFrames1 : kFrames2].push_back(number(11));
          break;
        case 26:
          contents[kErrors].push_back(number(9));
          break;
        case 113:
          contents[kFdErrors].push_back(number(9));
          break;
        default:
          ADD_FAILURE() << "a record of " << record.size() << " bytes in " << group.comment;
      }
    }
  }
}

std::uint64_t count(const Contents& contents) {
  std::uint64_t records = 0;
  for (const auto& numbers : contents) records += numbers.size();
  return records;
}

// Holds files against what the host was told.
void expectWhole(const Host& host, const std::vector<std::string>& paths, bool async) {
  Contents read;
  for (const std::string& path : paths) readInto(path, read);
  for (std::size_t source = 0; source < kSources; ++source) {
    SCOPED_TRACE(source);
    const auto& accepted = host.accepted()[source];
    // What was accepted by a queue may still meet a failure.
    if (async) {
      EXPECT_TRUE(std::ranges::includes(accepted, read[source]));
    } else {
      EXPECT_EQ(read[source], accepted);
    }
  }
  EXPECT_EQ(count(read) + host.lost(), host.handedOver());
  EXPECT_TRUE(host.lost() == 0 || !host.error().empty());
}

class RecordingAllocations : public testing::TestWithParam<bool> {
 protected:
  RecordingAllocations() { setDiagnosticHandler(nullptr, nullptr); }

  // Records by `work` while one allocation fails, and once more with sound memory.
  void recordAgain(const std::function<void(Host& host)>& work) {
    forEveryAllocation([&](AllocationFault& fault) {
      std::filesystem::remove(path_);  // faster than emptying it
      Host host(GetParam());
      fault.strike([&] {
        host.start(path_);
        work(host);
        host.stop();
      });
      if (host.started()) expectWhole(host, {path_}, GetParam());
      std::filesystem::remove(path_);
      host.start(path_);
      host.record(0, 2);
      host.stop();
      expectWhole(host, {path_}, GetParam());
      EXPECT_EQ(host.lost(), 0U);
      EXPECT_EQ(host.error(), "");
    });
  }

  TempDir dir_;
  std::string path_ = dir_.path("a log with a name of more than a few letters.mf4");
};
INSTANTIATE_TEST_SUITE_P(, RecordingAllocations, testing::Bool(), [](const auto& tested) {
  return std::string(tested.param ? "Async" : "Sync");
});

TEST_P(RecordingAllocations, EveryKindOfRecord) {
  recordAgain([](Host& host) { host.record(0, 3); });
}

// The second file may be missing, or groups in it; the first one is whole.
TEST_P(RecordingAllocations, ASplitInTheMiddle) {
  const std::string next = dir_.path("a log with a name of more than a few letters_1.mf4");
  forEveryAllocation([&](AllocationFault& fault) {
    std::filesystem::remove(path_);
    std::filesystem::remove(next);
    recorderSettings.splitSize = 0;
    Host host(GetParam());
    host.start(path_);
    host.record(0, 2);
    while (getPendingTaskCount(host.recorder()) != 0) std::this_thread::yield();
    fault.strike([&] {
      recorderSettings.splitSize = 1;
      host.recordRaw(2, 3);
      while (getPendingTaskCount(host.recorder()) != 0) std::this_thread::yield();
      recorderSettings.splitSize = 0;
      host.record(3, 5);
      host.stop();
    });
    if (std::filesystem::exists(next)) {
      expectWhole(host, {path_, next}, GetParam());
    } else {
      EXPECT_TRUE(fault.met());
      expectWhole(host, {path_}, GetParam());
    }
  });
}

TEST_P(RecordingAllocations, MoreBlocksThanAListNames) {
  recordAgain([](Host& host) { host.recordRaw(0, 2700); });
}

}  // namespace
}  // namespace tolvex::test
