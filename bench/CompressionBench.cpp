// Compressed records as a stream of bytes, against inflating the same blocks from memory.
#include <fmt/format.h>
#include <zlib.h>

#include <vector>

#include "Mdf4/format/DirectFile.h"
#include "Mdf4/format/m4DataStream.h"
#include "bench/Bench.h"
#include "bench/Inputs.h"

namespace tolvex::bench {
namespace {

constexpr std::uint64_t kBlocks = 6;
constexpr std::uint64_t kPieceBytes = 64 * 1024;

// The bytes of the whole stream, copied piece by piece into `piece`.
template <class Look>
std::uint64_t readStream(DirectFile& file, const CompressedFile& input,
                         std::vector<std::uint8_t>& piece, Look look) {
  m4DataStream stream(file, input.dataLink);
  std::uint64_t bytes = 0;
  while (const std::uint64_t got = stream.Read(piece.size(), piece.data())) {
    look(piece.data(), got);
    bytes += got;
  }
  return bytes;
}

// The inflated bytes, each block's in the same place.
std::uint64_t inflateBlocks(const CompressedFile& input, std::vector<std::uint8_t>& inflated) {
  z_stream stream = {};
  inflateInit(&stream);
  std::uint64_t bytes = 0;
  for (const test::Bytes& block : input.blocks) {
    inflateReset(&stream);
    stream.next_in = const_cast<Bytef*>(block.data());
    stream.avail_in = static_cast<uInt>(block.size());
    stream.next_out = inflated.data();
    stream.avail_out = static_cast<uInt>(inflated.size());
    if (inflate(&stream, Z_FINISH) != Z_STREAM_END) break;
    bytes += stream.total_out;
  }
  inflateEnd(&stream);
  return bytes;
}

void measure(benchmark::State& state, std::uint32_t recordSize, bool transposed) {
  const CompressedFile& input = inputs().compressed(kBlocks, recordSize, transposed);
  DirectFile file;
  if (!file.open(input.path, OpenMode::Read)) return fail(state, "the file cannot be opened");
  std::vector<std::uint8_t> all(input.bytes());
  readStream(file, input, all, [](const std::uint8_t*, std::uint64_t) {});
  if (checksum(all.data(), all.size()) != input.checksum) return fail(state, "wrong bytes");

  std::vector<std::uint8_t> piece(kPieceBytes);
  std::vector<std::uint8_t> inflated(input.blockBytes);
  const auto bytes = static_cast<double>(input.bytes());
  const Workload workload = {bytes / recordSize, bytes, transposed ? 1.2 : 1.1};
  const auto look = [](std::uint8_t* from, std::uint64_t) { benchmark::DoNotOptimize(*from); };
  compare(
      state, workload, [&] { return timed([&] { return readStream(file, input, piece, look); }); },
      [&] { return timed([&] { return inflateBlocks(input, inflated); }); });
}

}  // namespace

void addCompressionBenches() {
  for (const bool transposed : {false, true}) {
    for (const std::uint32_t recordSize : {23U, 64U, 512U}) {
      add(fmt::format("{} records of {} bytes / inflate", transposed ? "transposed" : "deflated",
                      recordSize),
          [=](benchmark::State& state) { measure(state, recordSize, transposed); });
    }
  }
}

}  // namespace tolvex::bench
