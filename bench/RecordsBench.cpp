// Whole records in blocks, against fread of the same bytes.
#include <fmt/format.h>

#include <algorithm>
#include <cstdio>
#include <memory>
#include <vector>

#include "Mdf4/base/Bytes.h"
#include "bench/Bench.h"
#include "bench/Inputs.h"
#include "tolvex/Mdf4.h"

namespace tolvex::bench {
namespace {

constexpr std::uint64_t kPieceBytes = 1024 * 1024;

struct CloseFile {
  void operator()(std::FILE* file) const { std::fclose(file); }
};
using File = std::unique_ptr<std::FILE, CloseFile>;

// All records in one call, into a new vector, as the reference does it.
Outcome readWhole(MdfSigReader& reader, const RecordFile& input) {
  std::vector<std::uint8_t> records;
  int recordSize = 0;
  const Outcome outcome = timed([&] {
    return std::uint64_t{
        reader.readSignalDataBlock(0, 0, static_cast<int>(input.records), records, recordSize)};
  });
  return {outcome.seconds, checksum(records.data(), records.size())};
}

Outcome freadWhole(const RecordFile& input) {
  const File file(std::fopen(input.plainPath.c_str(), "rb"));
  if (file == nullptr) return {};
  std::vector<std::uint8_t> bytes;
  const Outcome outcome = timed([&] {
    bytes.resize(input.bytes());
    return std::uint64_t{std::fread(bytes.data(), 1, input.bytes(), file.get())};
  });
  return {outcome.seconds, checksum(bytes.data(), outcome.result)};
}

// In pieces, into one buffer; of each piece the first bytes are looked at.
Outcome readPieces(MdfSigReader& reader, const RecordFile& input) {
  const auto perPiece = static_cast<int>(kPieceBytes / input.recordSize);
  const auto count = static_cast<int>(input.records);
  std::vector<std::uint8_t> records(kPieceBytes);
  int recordSize = 0;
  return timed([&] {
    std::uint64_t sum = 0;
    for (int start = 0; start < count; start += perPiece) {
      const int piece = std::min(perPiece, count - start);
      if (!reader.readSignalDataBlock(0, start, piece, records, recordSize)) return sum;
      sum += loadNumber<std::uint64_t>(records.data());
    }
    return sum;
  });
}

Outcome freadPieces(const RecordFile& input) {
  const File file(std::fopen(input.plainPath.c_str(), "rb"));
  if (file == nullptr) return {};
  const std::size_t pieceBytes = kPieceBytes / input.recordSize * input.recordSize;
  std::vector<std::uint8_t> records(pieceBytes);
  return timed([&] {
    std::uint64_t sum = 0;
    while (std::fread(records.data(), 1, pieceBytes, file.get()) != 0) {
      sum += loadNumber<std::uint64_t>(records.data());
    }
    return sum;
  });
}

void addRows(std::uint64_t count, std::uint32_t recordSize) {
  const auto measure = [=](benchmark::State& state, auto read, auto fread) {
    const RecordFile& input = inputs().signals(scaled(count), recordSize);
    MdfSigReader reader(input.path);
    if (!reader.open()) return fail(state, "the file cannot be opened");
    const Workload workload = {static_cast<double>(input.records),
                               static_cast<double>(input.bytes()), 1.2};
    compare(
        state, workload, [&] { return read(reader, input); }, [&] { return fread(input); });
  };
  add(fmt::format("records of {} bytes in one call / fread", recordSize),
      [=](benchmark::State& state) { measure(state, readWhole, freadWhole); });
  add(fmt::format("records of {} bytes, 1 MiB a call / fread", recordSize),
      [=](benchmark::State& state) { measure(state, readPieces, freadPieces); });
}

}  // namespace

void addRecordBenches() {
  addRows(5'000'000, 23);
  addRows(2'000'000, 64);
}

}  // namespace tolvex::bench
