// Reads columns of the input in every form, whole and in parts, and holds them against each other.
#include <algorithm>
#include <cmath>
#include <cstring>
#include <string>
#include <vector>

#include "Mdf4/can/FileSummary.h"
#include "fuzz/FuzzInput.h"
#include "tolvex/MdfColumnReader.h"

namespace tolvex::fuzz {
namespace {

// Compression multiplies the records and arrays the values: what is asked for is bounded here.
constexpr std::uint64_t kMostRecords = 2000;    // of a group
constexpr std::uint64_t kMostValues = 1 << 14;  // of all channels together

std::size_t widthOf(MdfColumnType type) {
  switch (type) {
    case MdfColumnType::Int8:
    case MdfColumnType::UInt8:
      return 1;
    case MdfColumnType::Int16:
    case MdfColumnType::UInt16:
      return 2;
    case MdfColumnType::Int32:
    case MdfColumnType::UInt32:
    case MdfColumnType::Float32:
      return 4;
    case MdfColumnType::Int64:
    case MdfColumnType::UInt64:
    case MdfColumnType::Float64:
      return 8;
    default:
      return 0;
  }
}

// A value as bytes: the same for the same value, however its column was read.
std::string valueOf(const MdfColumn& column, std::uint64_t i) {
  if (!column.isValid(i)) return "-";
  const std::size_t width = widthOf(column.type());
  if (width != 0) return "n" + std::string(column.as<char>() + i * width, width);
  std::string value = "t" + std::string(column.text(i));
  if (column.type() != MdfColumnType::Dictionary) return value;
  const std::int32_t code = column.as<std::int32_t>()[i];
  require(code >= -1 && code < static_cast<std::int32_t>(column.texts().size()),
          "a code is that of a text");
  if (column.numbers().empty() || std::isnan(column.numbers()[i])) return value;
  return value + "n" + std::to_string(column.numbers()[i]);
}

class Reading {
 public:
  Reading(MdfColumnReader& reader, Numbers steering)
      : reader_(reader),
        from_(steering.next<std::uint16_t>()),
        count_(steering.next<std::uint16_t>()) {}

  void readAll() {
    for (std::size_t g = 0; g < reader_.groups().size(); ++g) {
      const MdfColumnGroup& group = reader_.groups()[g];
      readTimes(static_cast<std::int32_t>(g), group);
      for (std::size_t c = 0; c < group.channels.size(); ++c) {
        if (values_ > kMostValues) return;
        readChannel(static_cast<std::int32_t>(g), static_cast<std::int32_t>(c));
      }
    }
  }

 private:
  void readChannel(std::int32_t group, std::int32_t index) {
    const auto& described = reader_.groups()[static_cast<std::size_t>(group)];
    const auto& channel = described.channels[static_cast<std::size_t>(index)];
    require((channel.type == MdfColumnType::None) == !channel.fault.empty(),
            "a channel has values or a fault");
    std::uint64_t elements = 1;
    for (const std::uint64_t size : channel.shape) elements *= size;
    if (elements > kMostValues) return;
    const std::uint64_t records =
        std::min({described.records, kMostRecords, kMostValues / elements});
    values_ += 1 + records * elements;
    std::vector<MdfColumn> all;
    require(reader_.read(group, {index}, 0, records, all), "a channel that is there can be read");
    require(all[0].type() == channel.type, "a column is of its channel's type");
    require(all[0].rows() == records, "as many records are read as there are");
    if (channel.type == MdfColumnType::None) return;
    readPart(group, index, all[0], elements);
    readDoubles(group, index, all[0]);
    std::vector<MdfColumn> raw;
    require(reader_.read(group, {index}, 0, records, raw, {.raw = true}), "so can its raw values");
    require(raw[0].type() == channel.rawType, "raw values are of the raw type");
    for (std::uint64_t i = 0; i < raw[0].size(); ++i) valueOf(raw[0], i);
  }

  // Twice, so that the second time finds what the first one left behind.
  void readPart(std::int32_t group, std::int32_t index, const MdfColumn& all,
                std::uint64_t elements) {
    const std::uint64_t first = all.rows() == 0 ? 0 : from_ % all.rows();
    const std::uint64_t count = std::min<std::uint64_t>(count_, all.rows() - first);
    for (int turn = 0; turn < 2; ++turn) {
      std::vector<MdfColumn> part;
      require(reader_.read(group, {index}, first, count, part), "so can a part of it");
      require(part[0].rows() == count, "as many records are in the part as there are");
      for (std::uint64_t i = 0; i < part[0].size(); ++i) {
        require(valueOf(part[0], i) == valueOf(all, first * elements + i),
                "a value is the same in a part of its column");
      }
    }
  }

  void readDoubles(std::int32_t group, std::int32_t index, const MdfColumn& all) {
    std::vector<double> doubles(all.size() + 1);
    std::vector<std::uint8_t> validity(all.size() / 8 + 1);
    const std::int64_t rows =
        reader_.read(group, {{index, doubles.data(), validity.data(), true}}, 0, all.rows());
    const bool isText = all.type() == MdfColumnType::Text || all.type() == MdfColumnType::Bytes;
    require((rows < 0) == isText, "numbers and what may be numbers are read as doubles");
    if (rows < 0) return;
    require(static_cast<std::uint64_t>(rows) == all.rows(), "as many as there are");
    for (std::uint64_t i = 0; i < all.size(); ++i) {
      const bool isValid = (validity[i / 8] >> i % 8 & 1) != 0;
      require(isValid || std::isnan(doubles[i]), "what is not valid is no number");
      if (all.type() != MdfColumnType::Float64) continue;
      require(isValid == all.isValid(i), "values are valid in every form or in none");
      const double value = all.as<double>()[i];
      require(!isValid || std::memcmp(&value, &doubles[i], sizeof value) == 0,
              "doubles are the same in memory of the caller's");
    }
  }

  void readTimes(std::int32_t group, const MdfColumnGroup& described) {
    const std::uint64_t records = std::min(described.records, kMostRecords);
    std::vector<double> seconds(records + 1);
    std::vector<std::int64_t> ns(records + 1);
    const std::int64_t rows = reader_.readSeconds(group, 0, records, seconds.data());
    require(rows == reader_.readNanoseconds(group, 0, records, ns.data()),
            "seconds and nanoseconds are there for the same records");
    for (std::int64_t i = 0; i < rows; ++i) {
      const auto at = static_cast<std::size_t>(i);
      require(!std::isnan(seconds[at]) || ns[at] == kMdfNoTime, "a time is none in both forms");
    }
  }

  MdfColumnReader& reader_;
  const std::uint64_t from_;
  const std::uint64_t count_;
  std::uint64_t values_ = 0;
};

}  // namespace
}  // namespace tolvex::fuzz

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace tolvex;
  using namespace tolvex::fuzz;
  const ByteSpan input(data, size);
  Numbers steering = steeringOf(input);
  const bool twice = steering.flag();
  const MemoryFile file(input);
  MdfColumnReader reader(twice ? std::vector<std::string>{file.path(), file.path()}
                               : std::vector<std::string>{file.path()});
  FileSummary summary;
  std::string error;
  const bool isSummarized = summarizeFile(file.path(), summary, error);
  const bool isOpen = reader.open();
  require(isOpen == isSummarized && isOpen == error.empty(), "what opens has a summary");
  require(summary.frames <= summary.records, "frames are records");
  if (isOpen) Reading(reader, steering).readAll();
  reader.close();
  require(reader.groups().empty(), "a closed reader has no groups");
  return 0;
}
