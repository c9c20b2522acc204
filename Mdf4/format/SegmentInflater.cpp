#include "Mdf4/format/SegmentInflater.h"

#include <algorithm>
#include <cinttypes>
#include <string>
#include <utility>

#include "Mdf4/base/Diagnostics.h"
#include "Mdf4/format/CompressedData.h"

namespace tolvex {
namespace {

constexpr std::uint64_t kPiece = 256 * 1024;  // bytes that are read at a time

}  // namespace

bool SegmentInflater::inflate(DataSegment& segment, bool forValues, bool asStored,
                              std::shared_ptr<InflatedBlock>& block) {
  const std::shared_ptr<InflatedBlock> before = std::move(block);
  block = file_.inflatedBlocks().fetch(
      segment.position, segment.length, forValues ? file_.end() : 0, asStored,
      [&](InflatedBlock& made, bool again) {
        const std::uint64_t cost = std::max(segment.length, InflatedBlock::kLeastCost);
        if (again && forValues && !file_.budget().takeAgain(cost)) return false;
        if (before.use_count() == 1) made.bytes = std::move(before->bytes);
        return inflateNew(segment, again, asStored, made);
      });
  return block != nullptr;
}

// A block that cannot be inflated counts as damaged, unless memory or the system's reads failed.
bool SegmentInflater::inflateNew(DataSegment& segment, bool again, bool asStored,
                                 InflatedBlock& out) {
  const std::uint64_t block = segment.position - kBlockHeaderSize;
  const std::uint64_t failed = file_.reads().failures();
  const auto report = [&](const std::string& text) {
    file_.report(formatText("compressed data block at %" PRIu64 ": ", block) + text);
  };
  const auto fail = [&](const CompressedData::Fault& fault) {
    segment.damaged = file_.reads().failures() == failed;
    report(formatText("%s: expected %" PRIu64 ", found %" PRIu64, fault.what, fault.expected,
                      fault.found));
    return false;
  };
  BlockHeader header;
  CompressedData data;
  if (!file_.ReadAt(block, kBlockHeaderSize, &header) || !data.read(file_, block, header)) {
    return fail({"bytes in its record", sizeof data.record, 0});
  }
  if (const auto fault = data.faultFor(segment.length, file_)) return fail(*fault);
  const std::uint64_t compressed = data.record.dz_data_length;
  if (!again && !file_.budget().takeLoad(compressed)) {
    segment.damaged = true;
    return false;
  }
  if (!inflater_) inflater_.emplace(file_, kPiece);
  const Inflation result = asStored ? inflater_->inflateStored(data, segment.length, out.bytes)
                                    : inflater_->inflateRows(data, segment.length, out.bytes);
  out.rowBytes = asStored && data.isTransposed() ? data.record.dz_zip_parameter : 0;
  switch (result.end) {
    case Inflation::Whole:
      break;
    case Inflation::Unreadable:
      return fail({"compressed bytes", compressed, 0});
    case Inflation::NoMemory:
      report(formatText("no memory for its %" PRIu64 " bytes", segment.length));
      return false;
    case Inflation::TooLong:
    case Inflation::Damaged:
      segment.damaged = true;
      report(formatText("its %" PRIu64 " bytes are no deflate stream of %" PRIu64 " bytes",
                        compressed, segment.length));
      return false;
  }
  // A whole stream that gives fewer bytes than stated is read as far as it goes.
  out.size = result.bytes;
  if (out.size < segment.length) {
    report(formatText("expected %" PRIu64 " inflated bytes, found %" PRIu64, segment.length,
                      out.size));
  }
  return true;
}

}  // namespace tolvex
