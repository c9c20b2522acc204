// The signal writer while allocations fail: it throws nothing, and its file holds what it accepted.
#include <gtest/gtest.h>

#include <filesystem>
#include <map>
#include <memory>
#include <string>

#include "tests/faults/FailingMemory.h"
#include "tests/support/FileBuilder.h"
#include "tolvex/Mdf4.h"
#include "tolvex/MdfEngine.h"

namespace tolvex::test {
namespace {

constexpr int kFirst = 2;  // behind the recorder's own two groups
constexpr char kName[] = "a channel with a name of its own";

TEST(SignalWriterAllocations, WhatIsAcceptedIsInTheFile) {
  setDiagnosticHandler(nullptr, nullptr);
  FileBuilder file;
  file.signalGroup({{.name = "first of two value channels", .byteOffset = 8},
                    {.name = "second of two value channels", .byteOffset = 9}},
                   {packed(0.5, std::uint16_t{7})});
  const auto source = std::make_shared<MdfSigReader>(file.write());
  ASSERT_TRUE(source->open());
  MdfSigCCInfo info;
  info.name = kName;
  info.bitCount = 8;
  info.conversionType = 7;
  info.valueCount = info.textCount = 1;
  info.values = {7};
  info.texts = {"a text for the value of seven"};
  info.initDataTypeInfo();
  const Bytes value = {7};
  const std::map<std::string, Bytes> fields = {{kName, value}};
  const std::string name = "a group with a name of its own";
  const std::string copyName = "a copy of another file's group";
  const TempDir dir;
  const std::string path = dir.path("signals.mf4");

  forEveryAllocation([&](AllocationFault& fault) {
    std::filesystem::remove(path);
    MdfSigWriter writer(path);
    std::size_t told = 0;
    writer.setErrorCallback([&told](const std::string& text) { told += text.empty() ? 0 : 1; });
    bool started = false;
    int group = -1;
    int copy = -1;
    int accepted = 0;
    fault.strike([&] {
      EXPECT_TRUE(writer.open());
      started = writer.startRecord(1) == 0;
      group = writer.addDataGroup(name);
      if (group < 0) group = writer.addDataGroup(name);
      if (writer.addSignalChannel(group, info) != 0 && writer.addSignalChannel(group, info) != 0) {
        group = -1;
      }
      for (int i = 0; i < 3; ++i) {
        const bool one = writer.writeSignalData(group, i, kName, value.data(), 1) == 0;
        const bool batch = writer.writeSignalDataBatch(group, i + 0.5, fields) == 0;
        accepted += (one ? 1 : 0) + (batch ? 1 : 0);
      }
      copy = writer.createDataGroupFromReader(source, 0, 0, copyName);
      writer.close();
    });
    EXPECT_TRUE(fault.met() || (started && group == 0 && copy == 1 && accepted == 6 && told == 0));
    EXPECT_TRUE(fault.lasting() || !started || group == 0) << "a second try succeeds";
    if (!started) return;
    const MdfCheckReport report = checkFile(path);
    EXPECT_EQ(report.failure, "");
    EXPECT_EQ(report.errors, 0U) << report.findings.at(0).what << report.findings.at(0).position;
    MdfSigReader reader(path);
    ASSERT_TRUE(reader.open());
    int records = 0;
    for (int dg = 0; dg < reader.getDGCount(); ++dg) {
      if (reader.getCGName(dg, 0) != name) continue;
      records += reader.getRecordCount(dg, 0);
      EXPECT_EQ(reader.getCNCount(dg, 0), group >= 0 ? 2 : reader.getCNCount(dg, 0));
    }
    EXPECT_EQ(records, accepted);
    EXPECT_TRUE(fault.met() || reader.getCNCount(kFirst + copy, 0) == 3);
  });
}

}  // namespace
}  // namespace tolvex::test
