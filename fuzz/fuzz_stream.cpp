// Reads the data behind a link of the input in pieces of every kind and holds them against one
// reading from front to back.
#include <algorithm>
#include <random>
#include <vector>

#include "Mdf4/format/m4DataStream.h"
#include "fuzz/FuzzInput.h"

namespace tolvex::fuzz {
namespace {

constexpr std::uint64_t kMostReference = 1 << 20;
// Each seek may lead into another compressed block, which is inflated anew: as many steps as stay
// within this many inflated bytes.
constexpr std::uint64_t kMostInflated = 1 << 24;
constexpr std::uint64_t kMostSteps = 64;

// A file in memory whose last bytes may be missing when they are asked for.
class InputFile final : public SystemFile {
 public:
  InputFile(ByteSpan bytes, std::uint64_t missing) : bytes_(bytes), missing_(missing) {}

  bool size(std::uint64_t& bytes) override {
    bytes = bytes_.size() + missing_;
    return true;
  }
  ReadResult read(std::uint64_t position, std::span<const WritableBytes> pieces) override {
    std::uint64_t done = 0;
    for (const WritableBytes& piece : pieces) {
      if (position + done >= bytes_.size()) break;
      const std::uint64_t count =
          std::min<std::uint64_t>(piece.size(), bytes_.size() - position - done);
      std::copy_n(bytes_.data() + position + done, count, piece.data());
      done += count;
      if (count != piece.size()) break;
    }
    return {done};
  }
  bool write(std::uint64_t /*position*/, std::span<const ByteSpan> /*pieces*/) override {
    return false;
  }
  bool close() override { return true; }
  std::string error() const override { return "an input is not written"; }

 private:
  ByteSpan bytes_;
  std::uint64_t missing_;
};

using Bytes = std::vector<std::uint8_t>;

// One input's data: the bytes as they come in one reading, and the streams that must agree.
class Comparison {
 public:
  Comparison(DirectFile& file, std::uint64_t link, std::uint32_t seed)
      : file_(file),
        link_(link),
        table_(std::make_shared<SegmentTable>(file, link, 0)),
        random_(seed) {
    m4DataStream stream(file, link);
    require(stream.size() == table_->totalSize(), "a link leads to data of one size");
    reference_.resize(std::min(stream.presentSize(), kMostReference));
    reference_.resize(stream.Read(reference_.size(), reference_.data()));
    steps_ = std::clamp<std::uint64_t>(kMostInflated / (stream.presentSize() + 1), 2, kMostSteps);
  }

  void readInOrder() {
    m4DataStream stream(file_, table_);
    for (std::uint64_t i = 0, at = 0; i < kMostSteps && at < reference_.size(); ++i) {
      const std::uint64_t length = someLength();
      const std::uint64_t got = readOne(stream, at, length);
      if (got != length) break;
      at += got;
    }
  }

  // Several streams, which share what they hold of the file.
  void readAnywhere() {
    m4DataStream streams[] = {{file_, table_}, {file_, table_}, {file_, link_}};
    for (std::uint64_t i = 0; i < steps_; ++i) {
      m4DataStream& stream = streams[random_() % std::size(streams)];
      const std::uint64_t at = someOffset();
      require(stream.Seek(at) == (at < stream.size() ? at : 0), "a seek goes where it says");
      if (at >= stream.size()) continue;
      if (random_() % 8 == 0) {
        rewind(stream, at);
      } else if (random_() % 4 == 0) {
        m4DataStream copy(stream);
        readOne(copy, at, someLength());
      } else {
        readOne(stream, at, someLength());
      }
    }
  }

  void readValues() {
    m4DataStream stream(file_, table_);
    for (std::uint64_t i = 0; i < steps_; ++i) {
      const std::uint64_t at = someOffset();
      const std::uint64_t longest = random_() % 2 == 0 ? ~std::uint32_t{0} : random_() % 100;
      const Bytes before = {1, 2, 3};
      Bytes value = before;
      const bool found = stream.readValue(at, value, longest);
      require(found || value == before, "a value that is not found changes nothing");
      const std::uint64_t left = reference_.size() - std::min<std::uint64_t>(at, reference_.size());
      if (left < 4) continue;
      const std::uint64_t stated = loadNumber<std::uint32_t>(&reference_[at]);
      const std::uint64_t length = std::min(stated, longest);
      if (length > left - 4 || stated > stream.size() - at - 4) continue;
      require(found && std::equal(value.begin(), value.end(), reference_.begin() + offset(at + 4),
                                  reference_.begin() + offset(at + 4 + length)),
              "a value is what stands behind its length");
    }
  }

  // Records of `dataBytes`, each with its invalidation bytes behind it.
  void readMerged(std::uint32_t dataBytes, std::uint32_t invalBytes) {
    const std::uint64_t size = std::uint64_t{dataBytes} + invalBytes;
    if (dataBytes == 0 || size > reference_.size()) return;
    m4DataStream one(file_, table_);
    one.mergeInvalidation(dataBytes, invalBytes);
    std::vector<Bytes> records;
    while (records.size() < kMostSteps) {
      const ByteSpan record = one.next(size);
      if (record.size() != size) break;
      const std::uint64_t at = records.size() * dataBytes;
      if (at + dataBytes > reference_.size()) break;
      require(
          std::equal(record.begin(), record.begin() + dataBytes, reference_.begin() + offset(at)),
          "a merged record starts with its data");
      records.emplace_back(record.begin(), record.end());
    }
    if (!records.empty() && recordsAreWhole(dataBytes)) readMergedBlock(records, dataBytes, size);
  }

 private:
  static std::ptrdiff_t offset(std::uint64_t at) { return static_cast<std::ptrdiff_t>(at); }

  std::uint64_t someOffset() {
    const std::uint64_t known = reference_.size() + 2;
    return random_() % 16 == 0 ? std::uint64_t{random_()} << random_() % 32 : random_() % known;
  }
  std::uint64_t someLength() {
    const std::uint64_t most = random_() % 4 == 0 ? reference_.size() + 2 : 64;
    return 1 + random_() % most;
  }

  // Reads at `at`, where the stream stands. Returns the bytes that it gave.
  std::uint64_t readOne(m4DataStream& stream, std::uint64_t at, std::uint64_t length) {
    Bytes bytes;
    if (random_() % 2 == 0) {
      const ByteSpan view = stream.next(length);
      bytes.assign(view.begin(), view.end());
    } else {
      bytes.resize(length);
      bytes.resize(stream.Read(length, bytes.data()));
    }
    expect(bytes, at, length);
    require(stream.position() == at + bytes.size(), "a stream stands behind what it gave");
    return bytes.size();
  }

  void expect(const Bytes& bytes, std::uint64_t at, std::uint64_t length) {
    require(bytes.size() <= length, "no more is given than asked for");
    if (at > reference_.size()) return;
    const std::uint64_t known = reference_.size() - at;
    require(length > known || bytes.size() == length, "what was there once is there again");
    const std::uint64_t compared = std::min<std::uint64_t>(known, bytes.size());
    require(std::equal(bytes.begin(), bytes.begin() + offset(compared),
                       reference_.begin() + offset(at)),
            "the same bytes come however they are read");
  }

  // A seek to the end goes to the first block, with the offset that the stream had in its own.
  void rewind(m4DataStream& stream, std::uint64_t at) {
    const std::uint64_t inSegment = at - (*table_)[table_->find(at)].start;
    for (std::uint64_t times = 1 + random_() % 2; times > 0; --times) {
      require(stream.Seek(stream.size() + times - 1) == 0 && stream.position() == 0,
              "a seek to the end goes to the start");
    }
    Bytes bytes(someLength());
    const std::uint64_t length = bytes.size();
    bytes.resize(stream.Read(length, bytes.data()));
    if (inSegment < (*table_)[0].length) {
      expect(bytes, inSegment, length);
    } else {
      require(bytes.empty(), "behind the first block a rewound stream is at its end");
    }
  }

  bool recordsAreWhole(std::uint32_t dataBytes) {
    for (std::size_t i = 0; i < table_->count(); ++i) {
      if ((*table_)[i].length % dataBytes != 0) return false;
    }
    return true;
  }

  void readMergedBlock(const std::vector<Bytes>& records, std::uint32_t dataBytes,
                       std::uint64_t size) {
    m4DataStream stream(file_, table_);
    stream.mergeInvalidation(dataBytes, static_cast<std::uint32_t>(size - dataBytes));
    const std::size_t first = random_() % records.size();
    const std::size_t count = 1 + random_() % (records.size() - first);
    stream.Seek(first * dataBytes);
    Bytes block(count * size);
    const auto got = stream.Read(block.size(), block.data(), static_cast<std::uint32_t>(count));
    require(got == block.size(), "records that come one by one come together");
    for (std::size_t i = 0; i < count; ++i) {
      require(std::equal(records[first + i].begin(), records[first + i].end(),
                         block.begin() + offset(i * size)),
              "records are the same one by one and together");
    }
  }

  DirectFile& file_;
  std::uint64_t link_;
  std::shared_ptr<SegmentTable> table_;
  std::minstd_rand random_;
  Bytes reference_;
  std::uint64_t steps_ = 0;
};

}  // namespace
}  // namespace tolvex::fuzz

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace tolvex;
  using namespace tolvex::fuzz;
  const ByteSpan input(data, size);
  Numbers steering = steeringOf(input);
  const auto link = steering.next<std::uint64_t>();
  const auto seed = steering.next<std::uint32_t>();
  const auto dataBytes = steering.next<std::uint32_t>();
  const auto invalBytes = steering.next<std::uint16_t>();
  const auto missing = steering.next<std::uint8_t>();

  DirectFile file;
  if (!file.attach(std::make_unique<InputFile>(input, missing))) return 0;
  Comparison comparison(file, link, seed);
  comparison.readInOrder();
  comparison.readAnywhere();
  comparison.readValues();
  comparison.readMerged(dataBytes, invalBytes);
  return 0;
}
