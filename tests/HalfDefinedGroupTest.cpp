// Recordings whose groups met a fault of the disk while they were made: the file that is left.
#include <gtest/gtest.h>

#include <cstdint>
#include <memory>
#include <string>

#include "Mdf4/MdfRecorder.h"
#include "tests/support/Diagnostics.h"
#include "tests/support/FailingFile.h"
#include "tests/support/FileBuilder.h"
#include "tests/support/RecoveredContent.h"
#include "tolvex/Mdf4.h"

namespace tolvex::test {
namespace {

constexpr std::uint64_t kStart = 1'700'000'000'000'000;  // microseconds
constexpr unsigned kRecords = 20;

// Two groups of signals and frames on two channels, as a host records that goes on whatever fails.
// The disk is sound again before the records.
void record(MdfRecorder& recorder, FailingDisk& disk, const std::string& path) {
  if (recorder.startRecord(path, kStart) != 0) return;
  for (const char* name : {"one", "other"}) {
    const int group = recorder.addDataGroup(name);
    if (group < 0 || recorder.addChannel(group, timeChannel()) != 0) continue;
    ChannelInfo value = float64Channel("value");
    value.unit = std::string("V");
    recorder.addChannel(group, value);
  }
  MdfCanMessage frame;
  for (unsigned i = 0; i <= kRecords; ++i) {
    for (const std::uint8_t channel : Bytes{1, 2}) {
      frame.BusChannel(channel);
      recorder.saveCanMessage(kStart + i, frame);
    }
    disk.recover();
    for (const int group : {0, 1}) {
      const std::unique_ptr<RecordData> data = recorder.createRecordData(group);
      if (data == nullptr) continue;
      data->setTime(1e-3 * i);
      recorder.insertRecord(*data, group);
    }
  }
  recorder.stopRecord(0);
}

TEST(HalfDefinedGroup, LeavesASoundFileThatComesBackSound) {
  constexpr std::uint64_t kStride = 61;  // bytes from one fault to the next
  const TempDir dir;
  const std::string path = dir.path("log.mf4");
  const std::string recovered = dir.path("recovered.mf4");
  for (const auto fault : {&FailingDisk::failOnceAfter, &FailingDisk::fillAfter}) {
    for (std::uint64_t bytes = 0, refusals = 1; refusals != 0; bytes += kStride) {
      SCOPED_TRACE(testing::Message() << "fails after " << bytes << " bytes");
      const CapturedDiagnostics diagnostics;
      FailingDisk disk;
      (disk.*fault)(bytes);
      {
        MdfRecorder recorder(disk.opener());
        record(recorder, disk, path);
      }
      refusals = disk.refusals();
      const MdfRecoveryReport report = recoverFile(path, recovered);
      if (!report.failure.empty()) continue;  // the recording was never started
      EXPECT_EQ(firstError(path), "");
      EXPECT_EQ(firstError(recovered), "");
    }
  }
}

}  // namespace
}  // namespace tolvex::test
