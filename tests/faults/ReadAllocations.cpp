// Readers while allocations fail: an operation gives what it gives else, or nothing, and once there
// is memory again the reader reads everything.
#include <gtest/gtest.h>

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "tests/faults/FailingMemory.h"
#include "tests/support/Diagnostics.h"
#include "tests/support/FileBuilder.h"
#include "tolvex/Mdf4.h"

namespace tolvex::test {
namespace {

using Answers = std::vector<std::string>;  // "" for an operation without a result

constexpr int kRecords = 6;

// Too long for a string object to hold it itself.
std::string longText(const std::string& what) {
  return what + " with a text that has to be allocated";
}

// Signals in compressed, listed and column-wise blocks with values outside of them, and a bus log
// of two groups, whose payloads lie in two compressed blocks.
std::string writeSample(const FileBuilder& empty) {
  FileBuilder file = empty;
  Bytes values;
  std::vector<Bytes> records;
  std::vector<Bytes> frames;
  std::vector<Bytes> errors;
  for (int i = 0; i < kRecords; ++i) {
    const auto number = static_cast<std::uint8_t>(i);
    records.push_back(packed(0.5 * i, std::uint64_t{values.size()}, number));
    frames.push_back(
        busRecord(loggerFrames(), 2e9 * i,
                  {{"ID", number + 1U}, {"DataBytes", number % 2U * 21 + number / 2U * 7}}));
    errors.push_back(busRecord(errorFrames(), 2 * i + 1, {{"ID", number}}, {number}));
    values = joined({values, packed(std::uint32_t{3}), {'a', 'b', number}});
  }
  const Bytes bytes = joined(records);
  const auto half = bytes.begin() + static_cast<std::ptrdiff_t>(bytes.size() / 2);
  const auto inValues = values.begin() + 21;
  const Link signalData =
      file.dl({file.dz({values.begin(), inValues}, "SD"), file.dz({inValues, values.end()}, "SD")});
  const Link states = file.cc({.type = 7,
                               .values = {0, 1},
                               .refs = {file.tx(longText("off")), file.tx(longText("on"))},
                               .name = file.tx(longText("states"))});
  const std::vector<Cn> channels = {
      {.name = longText("text"),
       .type = 1,
       .dataType = 7,
       .byteOffset = 8,
       .bitCount = 64,
       .data = signalData},
      {.name = longText("state"), .byteOffset = 16, .conversion = states, .unit = file.tx("1")}};
  Cg group = {.name = longText("group"), .records = kRecords, .dataBytes = 17};
  file.signalGroup(channels, group,
                   file.hl(file.dl({file.dz({bytes.begin(), half}, "DT", 1, 17),
                                    file.dz({half, bytes.end()}, "DT", 1, 17)})));
  group.invalBytes = 1;
  file.signalGroup(channels, group,
                   file.ld({file.dz({bytes.begin(), half}, "DV"), file.dv({half, bytes.end()})},
                           {file.dz({1, 0, 1}, "DI"), file.di({0, 1, 0})}));
  file.busLog(loggerFrames(), frames, signalData);
  file.busLog(errorFrames(), errors);
  return file.write();
}

class ReadAllocations : public testing::Test {
 protected:
  // What every operation answers, of which nothing but the operation meets failing memory.
  static Answers ask(const std::vector<std::function<std::string()>>& operations) {
    Answers answers;
    for (const auto& operation : operations) {
      std::string answer = operation();
      const SoundMemory sound;
      answers.push_back(std::move(answer));
    }
    return answers;
  }

  CapturedDiagnostics diagnostics_;
  FileBuilder file_;
  const std::string path_ = writeSample(file_);
};

std::string textOf(const Bytes& bytes) {
  const SoundMemory sound;
  return "bytes " + std::string(bytes.begin(), bytes.end());
}

// All that a signal reader says of a file.
std::vector<std::function<std::string()>> operationsOf(MdfSigReader& reader) {
  std::vector<std::function<std::string()>> operations = {
      [&] { return reader.open() ? "open" : ""; }};
  for (const int dg : {0, 1}) {
    operations.push_back([&reader, dg] { return reader.getCGName(dg, 0); });
    operations.push_back([&reader, dg] {
      const auto [first, last] = reader.readSignalTimeRange(dg, 0);
      return last == 0 ? "" : std::to_string(last);
    });
    operations.push_back([&reader, dg] {
      const int index = reader.findRecordIndexByTime(dg, 0, 1.4);
      return index < 0 ? "" : std::to_string(index);
    });
    operations.push_back([&reader, dg] {
      Bytes out;
      int size = 0;
      return reader.readSignalDataBlock(dg, 0, 1, 4, out, size) ? textOf(out) : "";
    });
    for (int cn = 0; cn < 3; ++cn) {
      operations.push_back([&reader, dg, cn] { return reader.getCNName(dg, 0, cn); });
      operations.push_back([&reader, dg, cn] { return reader.getSigAttr(dg, 0, cn).name; });
      operations.push_back([&reader, dg, cn] {
        MdfSigCCInfo info;
        if (!reader.getCCInfo(dg, 0, cn, info)) return std::string();
        const SoundMemory sound;
        return info.name + (info.texts.empty() ? "" : info.texts.back());
      });
    }
    for (int i = 0; i < kRecords; ++i) {
      operations.push_back([&reader, dg, i] {
        const auto record = reader.readSignalDataByIndex(dg, 0, i * 5 % kRecords);
        return record == nullptr ? "" : textOf(record->data);
      });
      const Bytes record = packed(0.0, std::uint64_t(i * 5 % kRecords * 7), std::uint8_t{1});
      operations.push_back([&reader, dg, record] {
        Bytes out;
        return reader.readValueBytes(dg, 0, 1, record.data(), record.size(), out) ? textOf(out)
                                                                                  : "";
      });
    }
  }
  return operations;
}

TEST_F(ReadAllocations, SignalsAreReadOrNot) {
  Answers want;
  {
    MdfSigReader reader(path_);
    want = ask(operationsOf(reader));
    for (const std::string& answer : want) EXPECT_NE(answer, "");
  }
  forEveryAllocation([&](AllocationFault& fault) {
    MdfSigReader reader(path_);
    const auto operations = operationsOf(reader);
    Answers answers;
    fault.strike([&] { answers = ask(operations); });
    for (std::size_t i = 0; i < want.size(); ++i) {
      EXPECT_TRUE(answers[i] == want[i] || (answers[i].empty() && fault.met())) << i;
    }
    EXPECT_EQ(ask(operations), want) << "with memory again";
  });
}

std::string lineOf(const MdfFrame& frame) {
  return std::visit(
      [](const auto& pointer) {
        const SoundMemory sound;
        if (pointer == nullptr) return std::string();
        const Bytes& payload = pointer->DataBytes();
        return std::to_string(pointer->Timestamp()) + ": " +
               std::string(payload.begin(), payload.end());
      },
      frame);
}

TEST_F(ReadAllocations, NoFrameIsLost) {
  const auto readAll = [](MdfReader& reader, Answers& lines) {
    for (int nulls = 0; nulls < 3;) {  // one may be an allocation that failed
      const MdfFrame frame = reader.getNext();
      const std::string line = lineOf(frame);
      const SoundMemory sound;
      if (line.empty()) {
        ++nulls;
      } else {
        lines.push_back(line);
      }
    }
  };
  Answers want;
  MdfReader sound(path_);
  ASSERT_TRUE(sound.open());
  readAll(sound, want);
  ASSERT_EQ(want.size(), 2U * kRecords);
  forEveryAllocation([&](AllocationFault& fault) {
    MdfReader reader(path_);
    Answers lines;
    bool isOpen = false;
    std::uint64_t stopTime = 0;
    fault.strike([&] {
      isOpen = reader.open();
      if (!isOpen) return;
      stopTime = reader.getStopTime();
      readAll(reader, lines);
    });
    if (!isOpen) {
      ASSERT_TRUE(reader.open());
    }
    EXPECT_TRUE(fault.met() || stopTime == 11'000'000'000U);
    readAll(reader, lines);
    EXPECT_EQ(lines, want);
    EXPECT_EQ(reader.getStopTime(), 11'000'000'000U);
    EXPECT_EQ(reader.getBusLogGroups().size(), 2U);
  });
}

}  // namespace
}  // namespace tolvex::test
