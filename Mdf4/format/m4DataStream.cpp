#include "Mdf4/format/m4DataStream.h"

#include <algorithm>
#include <array>
#include <cinttypes>
#include <cstring>
#include <utility>

#include "Mdf4/base/Diagnostics.h"

namespace tolvex {
namespace {

constexpr std::uint64_t kSmallestReadAhead = 4096;
// Read serves at least this much without its own buffer in between.
constexpr std::uint64_t kReadDirectly = 64 * 1024;
// Data blocks that follow each other this closely are read in one call.
constexpr std::uint64_t kLargestGap = 1024;
constexpr std::size_t kBlocksPerCall = 48;

// Plain blocks that are read in one call, which also brings the headers between them.
class NearBlocks {
 public:
  // What of block `first`, from `skip` on, and of those close behind it goes into `out`.
  void plan(SegmentTable& table, std::size_t first, std::uint64_t skip, WritableBytes out) {
    first_ = first;
    position_ = table[first].position + skip;
    blocks_ = 0;
    pieceCount_ = 0;
    std::uint64_t fileAt = position_;
    for (std::size_t i = first; blocks_ < kBlocksPerCall && !out.empty(); ++i, ++blocks_) {
      const DataSegment& segment = table[i];
      if (i > first) {
        const std::uint64_t block = segment.position - kBlockHeaderSize;
        if (segment.length == 0 || segment.damaged || segment.type == block_type::kDZ ||
            block < fileAt || block - fileAt > kLargestGap) {
          return;
        }
        pieces_[pieceCount_++] = std::span(gap_).first(inMemory(block - fileAt));
        pieces_[pieceCount_++] = writableBytesOf(headers_[blocks_]);
        fileAt = segment.position;
      }
      const std::uint64_t share =
          std::min<std::uint64_t>(segment.length - (i == first ? skip : 0), out.size());
      pieces_[pieceCount_++] = out.first(inMemory(share));
      out = out.subspan(inMemory(share));
      fileAt += share;
    }
  }

  // Reads them and settles those that were not yet. Returns the bytes of blocks up to the first one
  // that is compressed, damaged or not whole.
  [[nodiscard]] std::uint64_t read(DirectFile& file, SegmentTable& table) {
    std::uint64_t left = file.readPieces(position_, std::span(pieces_).first(pieceCount_));
    std::uint64_t got = 0;
    endsEarly_ = false;
    for (std::size_t piece = 0, block = 0; block < blocks_; ++block) {
      if (block > 0) {
        const std::uint64_t between = pieces_[piece].size() + kBlockHeaderSize;
        if (left < between) break;
        left -= between;
        piece += 2;
        if (!table.settle(file, first_ + block, headers_[block])) break;
        if (table[first_ + block].type == block_type::kDZ) break;
      }
      const std::uint64_t share = std::min<std::uint64_t>(left, pieces_[piece].size());
      got += share;
      left -= share;
      endsEarly_ = share < pieces_[piece++].size();
      if (endsEarly_) break;
    }
    return got;
  }
  // Whether the last block that was read is not whole.
  bool endsEarly() const { return endsEarly_; }

 private:
  std::size_t first_ = 0;
  std::uint64_t position_ = 0;  // in the file
  std::size_t blocks_ = 0;
  std::size_t pieceCount_ = 0;
  bool endsEarly_ = false;
  std::array<std::uint8_t, kLargestGap> gap_;
  std::array<BlockHeader, kBlocksPerCall> headers_;
  std::array<WritableBytes, 3 * kBlocksPerCall> pieces_;
};

}  // namespace

m4DataStream::m4DataStream(DirectFile& file, std::shared_ptr<SegmentTable> table)
    : file_(&file), table_(std::move(table)), inflater_(file) {
  Seek(0);
}

m4DataStream::m4DataStream(DirectFile& file, std::uint64_t dataLink, std::uint64_t expectedSize)
    : m4DataStream(file, std::make_shared<SegmentTable>(file, dataLink, expectedSize)) {}

m4DataStream::m4DataStream(const m4DataStream& other)
    : file_(other.file_),
      table_(other.table_),
      at_(other.at_),
      skew_(other.skew_),
      limit_(other.limit_),
      stale_(other.stale_),
      mostReadAhead_(other.mostReadAhead_),
      inflater_(*other.file_),
      dataBytes_(other.dataBytes_),
      invalBytes_(other.invalBytes_) {}

m4DataStream::~m4DataStream() {
  static_cast<void>(m4DataStream::close());
}

void m4DataStream::mergeInvalidation(std::uint32_t dataBytes, std::uint32_t invalBytes) {
  if (dataBytes == 0) return;
  dataBytes_ = dataBytes;
  invalBytes_ = invalBytes;
}

std::uint64_t m4DataStream::Seek(std::uint64_t offset) {
  const std::uint64_t target = std::min(offset, size());
  if (target < size()) {
    stale_ = 0;
    seekInside(target);
    skew_ = 0;
    return target;
  }
  // The first segment becomes current with the old offset in it.
  const std::uint64_t inSegment = offsetInSegment();
  if (size() != 0 && inSegment < (*table_)[0].length) {
    stale_ = 0;
    seekInside(inSegment);
  } else {
    stale_ = inSegment;
    at_ = size();
    limit_ = at_;
  }
  skew_ = at_;
  return 0;
}

void m4DataStream::seekInside(std::uint64_t offset) {
  at_ = offset;
  limit_ = table_->limitAfter(offset);
}

std::uint64_t m4DataStream::offsetInSegment() const {
  if (stale_ != 0) return stale_;
  if (at_ >= limit_) return 0;
  return at_ - (*table_)[table_->find(at_)].start;
}

std::size_t m4DataStream::segmentAt(std::uint64_t offset) {
  const auto holds = [&](std::size_t index) {
    return index < table_->count() && offset >= (*table_)[index].start &&
           offset - (*table_)[index].start < (*table_)[index].length;
  };
  if (holds(segment_)) return segment_;
  segment_ = holds(segment_ + 1) ? segment_ + 1 : table_->find(offset);
  return segment_;
}

void m4DataStream::setWindow(const std::uint8_t* bytes, std::uint64_t start, std::uint64_t length) {
  window_ = bytes;
  windowStart_ = start;
  windowEnd_ = start + length;
}

ByteSpan m4DataStream::nextSlowly(std::uint64_t length) {
  const std::uint64_t start = at_;
  const std::uint64_t failed = file_->reads().failures();
  const ByteSpan bytes = merges() ? nextMerged(length) : nextPlain(length);
  if (bytes.size() == length || file_->reads().failures() == failed) return bytes;
  at_ = start;  // another attempt may get them all
  return {};
}

ByteSpan m4DataStream::nextMerged(std::uint64_t length) {
  if (!scratch_.reserve(length)) return {};
  return {scratch_.data(), inMemory(Read(length, scratch_.data(), 1))};
}

ByteSpan m4DataStream::nextPlain(std::uint64_t length) {
  const std::uint64_t wanted = std::min(length, limit_ - at_);
  if (wanted == 0) {
    releaseBuffers();
    return {};
  }
  const std::size_t index = segmentAt(at_);
  if (!table_->settle(*file_, index)) return {};
  const DataSegment& segment = (*table_)[index];
  if (segment.type == block_type::kDZ) {
    if (!inflate(index)) return {};
    setWindow(inflated_->bytes.data(), segment.start, inflated_->size);
  } else {
    refill(wanted);
  }
  if (at_ < windowStart_ || at_ > windowEnd_ || wanted > windowEnd_ - at_) {
    // The bytes lie in blocks of different kinds, the file ends among them or a read failed.
    if (!scratch_.reserve(std::min(wanted, presentSize()))) return {};
    return {scratch_.data(), inMemory(assemble(std::min(wanted, presentSize()), scratch_.data()))};
  }
  const std::uint8_t* const bytes = window_ + (at_ - windowStart_);
  at_ += wanted;
  return {bytes, inMemory(wanted)};
}

ByteSpan m4DataStream::nextAtLeast(std::uint64_t least) {
  const ByteSpan bytes = next(least);
  const bool isInWindow = bytes.size() == least && at_ >= windowStart_ + least &&
                          at_ <= windowEnd_ &&
                          bytes.data() == window_ + (at_ - least - windowStart_);
  if (!isInWindow) return bytes;
  const std::uint64_t more = windowEnd_ - at_;
  at_ = windowEnd_;
  return {bytes.data(), inMemory(least + more)};
}

// Reads ahead from at_: more each time that the reading goes on where the last piece ended.
void m4DataStream::refill(std::uint64_t wanted) {
  const bool inOrder = at_ > windowStart_ && at_ <= windowEnd_;
  readAhead_ = inOrder ? std::min(readAhead_ * 4, mostReadAhead_) : kSmallestReadAhead;
  const std::uint64_t length = std::min(std::max(wanted, readAhead_), limit_ - at_);
  if (!buffer_.reserve(std::min(length, presentSize()))) {
    setWindow(nullptr, at_, 0);
    return;
  }
  const std::uint64_t got = readPlain(at_, std::min(length, presentSize()), buffer_.data());
  setWindow(buffer_.data(), at_, got);
}

std::uint64_t m4DataStream::Read(std::uint64_t length, std::uint8_t* buffer,
                                 std::uint32_t records) {
  if (merges() && records != 0) return readMerged(length, buffer, records);
  if (length < kReadDirectly) {
    if (at_ >= windowStart_ && at_ <= windowEnd_ && length <= windowEnd_ - at_) {
      std::copy_n(window_ + (at_ - windowStart_), length, buffer);
      at_ += length;
      return length;
    }
    if (!merges()) {
      const ByteSpan bytes = nextPlain(length);
      std::copy(bytes.begin(), bytes.end(), buffer);
      return bytes.size();
    }
  }
  const std::uint64_t done = assemble(length, buffer);
  if (at_ >= limit_) releaseBuffers();
  return done;
}

std::uint64_t m4DataStream::heldBytes() const {
  std::uint64_t bytes = 0;
  for (const auto* const block : {&inflated_, &inflatedInvalidation_}) {
    if (*block != nullptr) bytes += (*block)->bytes.size();
  }
  return bytes + buffer_.size() + scratch_.size() + inflater_.heldBytes();
}

void m4DataStream::releaseBuffers() {
  setWindow(nullptr, 0, 0);
  inflated_.reset();
  inflatedInvalidation_.reset();
  inflater_.releaseBuffers();
  buffer_.release();
  scratch_.release();
}

// Copies from block to block, whatever their kinds.
std::uint64_t m4DataStream::assemble(std::uint64_t length, std::uint8_t* buffer) {
  std::uint64_t done = 0;
  while (done < length && at_ < limit_) {
    const std::size_t index = segmentAt(at_);
    if (!table_->settle(*file_, index)) break;
    const DataSegment& segment = (*table_)[index];
    std::uint64_t got = 0;
    if (segment.type == block_type::kDZ) {
      const std::uint64_t offset = at_ - segment.start;
      if (!inflate(index) || offset >= inflated_->size) break;
      got = std::min(length - done, inflated_->size - offset);
      std::copy_n(inflated_->bytes.data() + offset, got, buffer + done);
    } else {
      const std::uint64_t wanted = std::min(length - done, limit_ - at_);
      got = wholeShares(at_, readPlain(at_, wanted, buffer + done), wanted);
    }
    if (got == 0) break;
    at_ += got;
    done += got;
  }
  return done;
}

// Of `got` bytes read where `wanted` were asked: those that make up whole shares of their blocks.
std::uint64_t m4DataStream::wholeShares(std::uint64_t offset, std::uint64_t got,
                                        std::uint64_t wanted) {
  if (got == wanted) return got;
  const DataSegment& last = (*table_)[table_->find(offset + got)];
  return last.start > offset ? last.start - offset : 0;
}

// Reads blocks that are not compressed straight into the buffer: those that lie close together in
// one call. The block at `offset` is settled. Returns the bytes read: fewer in front of a
// compressed or damaged block and at the end of the file.
std::uint64_t m4DataStream::readPlain(std::uint64_t offset, std::uint64_t length,
                                      std::uint8_t* buffer) {
  NearBlocks blocks;
  std::uint64_t done = 0;
  while (done < length) {
    const std::size_t first = segmentAt(offset + done);
    if (first >= table_->count() || !table_->settle(*file_, first)) return done;
    if ((*table_)[first].type == block_type::kDZ) return done;
    const std::uint64_t skip = offset + done - (*table_)[first].start;
    blocks.plan(*table_, first, skip, {buffer + done, inMemory(length - done)});
    const std::uint64_t got = blocks.read(*file_, *table_);
    done += got;
    if (got == 0 || blocks.endsEarly()) return done;
  }
  return done;
}

// Puts the bytes of the segment's block into inflated_.
bool m4DataStream::inflate(std::size_t index) {
  if (inflated_ != nullptr && inflatedSegment_ == index) return true;
  if (inflated_ != nullptr && window_ == inflated_->bytes.data()) setWindow(nullptr, 0, 0);
  inflatedSegment_ = index;
  return inflater_.inflate((*table_)[index], readsValues_, inflated_);
}

// Data bytes first, then the invalidation bytes, then both spread into records from the last one to
// the first.
std::uint64_t m4DataStream::readMerged(std::uint64_t length, std::uint8_t* buffer,
                                       std::uint32_t records) {
  const std::uint64_t invalidationLength = std::uint64_t{records} * invalBytes_;
  if (invalidationLength > length) return 0;
  std::vector<std::uint8_t> invalidation(inMemory(invalidationLength));
  const std::uint64_t wanted = length - invalidationLength;
  std::uint64_t done = 0;
  std::uint64_t invalidationDone = 0;
  while (done < wanted && at_ < limit_) {
    const std::size_t index = segmentAt(at_);
    const std::uint64_t offset = at_ - (*table_)[index].start;
    const std::uint64_t chunk = std::min(wanted - done, (*table_)[index].length - offset);
    if (assemble(chunk, buffer + done) != chunk) break;
    done += chunk;
    const std::uint64_t chunkInvalidation =
        std::min(chunk / dataBytes_ * invalBytes_, invalidationLength - invalidationDone);
    const std::uint64_t got =
        readInvalidation(index, offset / dataBytes_ * invalBytes_,
                         WritableBytes(invalidation)
                             .subspan(inMemory(invalidationDone), inMemory(chunkInvalidation)));
    invalidationDone += got;
    if (got != chunkInvalidation) break;
  }
  const std::uint64_t recordSize = std::uint64_t{dataBytes_} + invalBytes_;
  for (std::uint64_t i = std::min<std::uint64_t>(records, done / dataBytes_); i-- > 0;) {
    std::memmove(buffer + i * recordSize, buffer + i * dataBytes_, dataBytes_);
    std::copy_n(invalidation.data() + i * invalBytes_, invalBytes_,
                buffer + i * recordSize + dataBytes_);
  }
  return done + invalidationDone;
}

// Invalidation bytes from `offset` on in the block beside a data block; where there is none, all
// samples are valid and the bytes stay 0.
std::uint64_t m4DataStream::readInvalidation(std::size_t index, std::uint64_t offset,
                                             WritableBytes invalidation) {
  DataSegment& segment = table_->invalidation(index);
  if (segment.position == 0 || invalidation.empty()) return invalidation.size();
  if (segment.damaged || offset > segment.length || invalidation.size() > segment.length - offset) {
    return 0;
  }
  if (segment.type != block_type::kDZ) {
    return file_->ReadAt(segment.position + offset, invalidation.size(), invalidation.data())
               ? invalidation.size()
               : 0;
  }
  if (inflatedInvalidation_ == nullptr || invalidationSegment_ != index) {
    invalidationSegment_ = index;
    if (!inflater_.inflate(segment, readsValues_, inflatedInvalidation_)) return 0;
  }
  if (invalidation.size() >
      inflatedInvalidation_->size - std::min(offset, inflatedInvalidation_->size))
    return 0;
  std::copy_n(inflatedInvalidation_->bytes.data() + offset, invalidation.size(),
              invalidation.data());
  return invalidation.size();
}

bool m4DataStream::readValue(std::uint64_t offset, std::vector<std::uint8_t>& value,
                             std::uint64_t longest) {
  const auto fail = [&] {
    file_->report(formatText("signal data of %" PRIu64 " bytes: no whole value at offset %" PRIu64,
                             size(), offset));
    return false;
  };
  readsValues_ = true;
  if (offset > size() || size() - offset < kValuePrefix) return fail();
  if (at_ != offset || at_ == limit_) Seek(offset);
  const ByteSpan prefix = next(kValuePrefix);
  if (prefix.size() != kValuePrefix) return fail();
  const std::uint64_t stated = loadNumber<std::uint32_t>(prefix.data());
  if (stated > size() - offset - kValuePrefix) return fail();
  const std::uint64_t length = std::min(stated, longest);
  const ByteSpan bytes = next(length);
  if (bytes.size() != length) return fail();
  value.assign(bytes.begin(), bytes.end());
  return true;
}

}  // namespace tolvex
