// Reads the records of the input by every operation of the signal reader, holds them against each
// other, and decodes every channel in them.
#include <algorithm>
#include <random>
#include <vector>

#include "fuzz/FuzzInput.h"
#include "tolvex/Mdf4.h"

namespace tolvex::fuzz {
namespace {

using Bytes = std::vector<std::uint8_t>;

// Each channel is decoded in each record, and a record may have a value of any length outside. That
// multiplies, and compression multiplies the records: what is asked for is bounded here.
constexpr std::uint64_t kMostBytes = 1 << 22;   // of all records together
constexpr std::uint64_t kMostValues = 1 << 14;  // of all channels together
constexpr std::uint64_t kMostOutside = 1 << 24;
constexpr std::uint64_t kMostRecords = 2000;  // of a group
constexpr int kMostSeeks = 8;                 // each may inflate a block anew

class Reading {
 public:
  Reading(MdfSigReader& reader, Numbers steering)
      : reader_(reader),
        start_(steering.next<std::int32_t>()),
        count_(steering.next<std::int32_t>()),
        time_(steering.next<double>()),
        shortBy_(steering.next<std::uint8_t>()),
        random_(steering.next<std::uint32_t>()) {}

  void readAll() {
    for (const int dg : reader_.getDataGroupSigsIndex()) {
      for (int cg = 0, cgs = reader_.getCGCount(dg); cg < cgs; ++cg) readGroup(dg, cg);
      reader_.readSignalData(dg);
      reader_.readSignalDataByIndex(dg, start_);
      reader_.resetDataStream(dg);
    }
  }

 private:
  void readGroup(int dg, int cg) {
    MdfGroupInfo group;
    reader_.getGroupInfo(dg, cg, group);
    reader_.resetDataStream(dg, cg);
    const std::vector<Bytes> records = readInOrder(dg, cg);
    readByPosition(dg, cg, records);
    readBlocks(dg, cg, records);
    readByTime(dg, cg);
    for (const Bytes& record : records) {
      require(record.size() == group.recordSize, "a record has its group's size");
    }
    decode(dg, cg, records);
  }

  std::vector<Bytes> readInOrder(int dg, int cg) {
    const std::uint64_t stored = reader_.getStoredRecordCount(dg, cg);
    std::vector<Bytes> records;
    while (records.size() < kMostRecords && bytes_ < kMostBytes) {
      const auto record = reader_.readSignalData(dg, cg);
      if (record == nullptr) break;
      bytes_ += record->data.size();
      records.push_back(record->data);
    }
    require(records.size() <= stored, "no more records come than the blocks hold");
    return records;
  }

  void readByPosition(int dg, int cg, const std::vector<Bytes>& records) {
    for (int i = 0; i < kMostSeeks && !records.empty(); ++i) {
      const std::size_t index = random_() % records.size();
      if (index * records[index].size() > INT32_MAX) continue;
      const auto record = reader_.readSignalDataByIndex(dg, cg, static_cast<int>(index));
      require(record != nullptr && record->data == records[index],
              "a record is the same by its number");
    }
    reader_.readSignalDataByIndex(dg, cg, start_);
  }

  void readBlocks(int dg, int cg, const std::vector<Bytes>& records) {
    Bytes block;
    int recordSize = 0;
    const int count = static_cast<int>(records.size());
    if (count > 0) {
      const int first = static_cast<int>(random_() % records.size());
      require(reader_.readSignalDataBlock(dg, cg, first, count - first, block, recordSize),
              "records that come one by one come in a block");
      auto at = block.begin();
      for (int i = first; i < count; ++i) {
        const Bytes& record = records[static_cast<std::size_t>(i)];
        require(std::equal(record.begin(), record.end(), at), "records are the same in a block");
        at += static_cast<std::ptrdiff_t>(record.size());
      }
      require(at == block.end(), "a block is its records back to back");
    }
    const bool read = reader_.readSignalDataBlock(dg, cg, start_, count_, block, recordSize);
    require(read || block.empty(), "a block that is not read is empty");
    require(!read || block.size() == static_cast<std::uint64_t>(recordSize) *
                                         static_cast<std::uint64_t>(count_),
            "a block holds all its records");
    reader_.readSignalDataBlock(dg, cg, 0, reader_.getRecordCount(dg, cg), block, recordSize);
  }

  void readByTime(int dg, int cg) {
    const auto [first, last] = reader_.readSignalTimeRange(dg, cg);
    const int records = reader_.getRecordCount(dg, cg);
    for (const double time : {time_, first, last}) {
      const int index = reader_.findRecordIndexByTime(dg, cg, time);
      require(index >= -1 && (index < 0 || index < records), "a found record is one of the group");
    }
  }

  void decode(int dg, int cg, const std::vector<Bytes>& records) {
    for (int cn = 0, cns = reader_.getCNCount(dg, cg); cn < cns; ++cn) {
      MdfSigCCInfo info;
      reader_.getCCInfo(dg, cg, cn, info);
      for (const Bytes& record : records) {
        if (++values_ > kMostValues || outside_ > kMostOutside) return;
        decodeValue(dg, cg, cn, info, record);
      }
      if (!records.empty()) {
        Bytes part = records.front();
        part.resize(part.size() - std::min<std::size_t>(part.size(), shortBy_));
        part.shrink_to_fit();
        decodeValue(dg, cg, cn, info, part);
      }
    }
  }

  void decodeValue(int dg, int cg, int cn, const MdfSigCCInfo& info, const Bytes& record) {
    double value = 0;
    std::string text;
    Bytes bytes;
    info.convertToPhysical(record, value, text);
    info.checkValueRange(value, true);
    reader_.readValueBytes(dg, cg, cn, record.data(), record.size(), bytes);
    reader_.readText(dg, cg, cn, record.data(), record.size(), text);
    reader_.isInvalidSample(dg, cg, cn, record.data(), record.size());
    outside_ += bytes.size();
  }

  MdfSigReader& reader_;
  int start_;
  int count_;
  double time_;
  std::size_t shortBy_;
  std::minstd_rand random_;
  std::uint64_t bytes_ = 0;
  std::uint64_t values_ = 0;
  std::uint64_t outside_ = 0;
};

}  // namespace
}  // namespace tolvex::fuzz

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace tolvex;
  using namespace tolvex::fuzz;
  const ByteSpan input(data, size);
  Numbers steering = steeringOf(input);
  const bool closed = steering.flag();
  const auto switches = steering.next<std::uint8_t>();
  const bool twice = (switches & 1) != 0;
  const MemoryFile file(input);

  MdfSigReader reader(file.path());
  reader.setReadAllGroups((switches & 2) != 0);
  static_cast<void>(reader.open());
  if (twice) static_cast<void>(reader.open());
  Reading(reader, steering).readAll();
  if (closed) {
    MdfSigReader copy(reader);
    reader.close();
    for (const int dg : copy.getDataGroupSigsIndex()) {
      require(copy.readSignalData(dg) == nullptr, "a closed file gives no records");
    }
    Reading(copy, steering).readAll();
  }
  return 0;
}
