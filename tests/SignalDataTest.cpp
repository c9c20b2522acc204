// Values in compressed signal data, whose offsets lead to and fro between its blocks.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <filesystem>
#include <numeric>
#include <random>
#include <string>
#include <vector>

#include "tests/support/Diagnostics.h"
#include "tests/support/FileBuilder.h"
#include "tolvex/Mdf4.h"

namespace tolvex::test {
namespace {

enum class Order { Rising, InTurn, Shuffled };

struct Form {
  const char* name;
  std::size_t blocks;
  bool listed;
  std::size_t values;
  std::size_t gap;  // bytes between values
  Order order;
};

// Which value the records name, one after the other.
std::vector<std::size_t> namedBy(const Form& form) {
  std::vector<std::size_t> order(form.values);
  std::iota(order.begin(), order.end(), std::size_t{0});
  if (form.order == Order::Shuffled) std::shuffle(order.begin(), order.end(), std::mt19937(4));
  if (form.order == Order::InTurn) {
    for (std::size_t i = 0; i < order.size(); ++i) order[i] = i / 2 + i % 2 * (form.values / 2);
  }
  return order;
}

Bytes valueOf(std::size_t number) {
  return packed(std::uint64_t{0x0101'0101'0101'0101} * (number % 255 + 1) + number);
}

class SignalData : public testing::Test {
 protected:
  SignalData() { payloads_.fields = {{"ID", 8, 3, 29}, {"DataBytes", 14, 0, 64, 10}}; }

  // A bus log whose payloads are such values, or a group of one channel with them.
  std::string write(const Form& form, bool asBusLog) {
    FileBuilder file;
    const std::size_t size = 4 + 8 + form.gap;
    Bytes data(form.values * size);
    for (std::size_t i = 0; i < form.values; ++i) {
      const Bytes value = joined({packed(std::uint32_t{8}), valueOf(i)});
      std::copy(value.begin(), value.end(), data.begin() + static_cast<std::ptrdiff_t>(i * size));
    }
    std::vector<Link> blocks;
    const std::size_t share = (data.size() + form.blocks - 1) / form.blocks;
    for (std::size_t at = 0; at < data.size(); at += share) {
      const auto begin = data.begin() + static_cast<std::ptrdiff_t>(at);
      const auto end = begin + static_cast<std::ptrdiff_t>(std::min(share, data.size() - at));
      blocks.push_back(file.dz({begin, end}, "SD"));
    }
    const Link signalData = form.listed ? file.hl(file.dl(blocks)) : blocks[0];
    std::vector<Bytes> records;
    for (const std::size_t value : namedBy(form)) {
      const double time = static_cast<double>(records.size());
      records.push_back(
          asBusLog ? busRecord(payloads_, 1e6 * time, {{"ID", 5}, {"DataBytes", value * size}})
                   : packed(time, std::uint64_t{value * size}));
    }
    if (asBusLog) {
      file.busLog(payloads_, records, signalData);
    } else {
      file.signalGroup({{.name = "value",
                         .type = 1,
                         .dataType = 10,
                         .byteOffset = 8,
                         .bitCount = 64,
                         .data = signalData}},
                       records);
    }
    std::filesystem::copy_file(file.write(), dir_.path(asBusLog ? "bus.mf4" : "signals.mf4"),
                               std::filesystem::copy_options::overwrite_existing);
    return dir_.path(asBusLog ? "bus.mf4" : "signals.mf4");
  }

  // How many of the frames have the payload that belongs to them.
  static std::size_t soundFrames(const std::string& path, const Form& form) {
    MdfReader reader(path);
    static_cast<void>(reader.open());
    std::size_t sound = 0;
    for (const std::size_t value : namedBy(form)) {
      const auto frame = reader.getCanMessage();
      sound += frame != nullptr && frame->DataBytes() == valueOf(value);
    }
    EXPECT_EQ(reader.getCanMessage(), nullptr);
    EXPECT_TRUE(reader.getProblems().empty()) << reader.getProblems()[0];
    return sound;
  }

  // The same of the values in the group's records.
  static std::size_t soundValues(const std::string& path, const Form& form) {
    MdfSigReader reader(path);
    static_cast<void>(reader.open());
    std::size_t sound = 0;
    Bytes bytes;
    for (const std::size_t value : namedBy(form)) {
      const auto record = reader.readSignalData(0);
      if (record == nullptr) break;
      sound += reader.readValueBytes(0, 0, 1, record->data.data(), record->data.size(), bytes) &&
               bytes == valueOf(value);
    }
    EXPECT_TRUE(reader.getProblems().empty()) << reader.getProblems()[0];
    return sound;
  }

  CapturedDiagnostics diagnostics_;
  BusLayout payloads_ = loggerFrames();
  TempDir dir_;
};

TEST_F(SignalData, IsReadWholeInWhateverOrder) {
  const Form forms[] = {
      {"one block", 1, false, 4000, 0, Order::Shuffled},
      {"one listed block", 1, true, 4000, 0, Order::Shuffled},
      {"two blocks", 2, true, 4000, 20, Order::Rising},
      {"two blocks in turn", 2, true, 4000, 20, Order::InTurn},
      {"values across many small blocks", 900, true, 4000, 20, Order::Shuffled},
      {"more than is held at first", 24, true, 1000, 24 << 10, Order::Shuffled},
  };
  for (const Form& form : forms) {
    SCOPED_TRACE(form.name);
    const std::string busLog = write(form, true);
    const std::string signals = write(form, false);
    EXPECT_EQ(soundFrames(busLog, form), form.values);
    EXPECT_EQ(soundValues(signals, form), form.values);
    for (const std::string& path : {busLog, signals}) {
      EXPECT_EQ(checkFile(path).errors, 0U);
      const std::string recovered = dir_.path("recovered.mf4");
      EXPECT_TRUE(recoverFile(path, recovered).lossless());
      EXPECT_EQ(path == busLog ? soundFrames(recovered, form) : soundValues(recovered, form),
                form.values);
      EXPECT_EQ(checkFile(recovered).errors, 0U);
    }
  }
}

}  // namespace
}  // namespace tolvex::test
