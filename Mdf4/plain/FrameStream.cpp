#include "Mdf4/plain/FrameStream.h"

#include <cstdint>
#include <memory>
#include <string>
#include <utility>

namespace tolvex::plain {
namespace {

// The columns, in order.
ArrowField fieldOf(const char* name, const char* format, bool mayBeNull = false) {
  ArrowField field;
  field.format = format;
  field.name = name;
  field.flags = mayBeNull ? ARROW_FLAG_NULLABLE : 0;
  return field;
}

ArrowParts partsOf(const std::shared_ptr<MdfFrameBatch>& frames) {
  ArrowParts parts;
  parts.length = static_cast<std::int64_t>(frames->count);
  parts.kept = {frames};
  return parts;
}

template <class Number>
ArrowOwner<ArrowArray> numbers(const std::shared_ptr<MdfFrameBatch>& frames,
                               const std::vector<Number>& values) {
  ArrowParts parts = partsOf(frames);
  parts.buffers = {nullptr, values.data()};
  return makeArray(std::move(parts));
}

// Null where the file has lost them.
ArrowOwner<ArrowArray> payloads(const std::shared_ptr<MdfFrameBatch>& frames) {
  std::shared_ptr<std::uint8_t[]> valid;
  for (std::size_t i = 0; i < frames->count; ++i) {
    if ((frames->flags[i] & MdfFrameFlag::kPayloadMissing) == 0) continue;
    if (valid == nullptr) valid = allValid(frames->count);
    clearBit(valid.get(), i);
  }
  ArrowParts parts = partsOf(frames);
  parts.nullCount = countNulls(valid.get(), frames->count);
  if (frames->bytes.empty()) frames->bytes.resize(1);  // some memory, where all are empty
  parts.buffers = {valid.get(), frames->offsets.data(), frames->bytes.data()};
  parts.kept.push_back(valid);
  return makeArray(std::move(parts));
}

}  // namespace

ArrowOwner<ArrowSchema> FrameStream::schema() const {
  ArrowField root;
  root.format = "+s";
  root.flags = 0;
  root.children = {fieldOf("time", reader_.startIsLocal() ? "tsn:" : "tsn:UTC"),
                   fieldOf("id", "I"),
                   fieldOf("bus", "S"),
                   fieldOf("direction", "C"),
                   fieldOf("kind", "C"),
                   fieldOf("dlc", "C"),
                   fieldOf("flags", "S"),
                   fieldOf("data", "Z", true)};
  return makeSchema(root);
}

tolvex_status FrameStream::next(ArrowOwner<ArrowArray>& batch, LastError& error) {
  const auto frames = std::make_shared<MdfFrameBatch>();
  if (!reader_.next(*frames, batchRows_)) {
    return reader_.error().empty() ? tolvex_status{TOLVEX_OK}
                                   : failed(error, reader_.error(), TOLVEX_ERROR_FILE);
  }
  ArrowParts parts;
  parts.length = static_cast<std::int64_t>(frames->count);
  parts.buffers = {nullptr};
  parts.children.push_back(numbers(frames, frames->timeNs));
  parts.children.push_back(numbers(frames, frames->id));
  parts.children.push_back(numbers(frames, frames->bus));
  parts.children.push_back(numbers(frames, frames->direction));
  parts.children.push_back(numbers(frames, frames->kind));
  parts.children.push_back(numbers(frames, frames->dlc));
  parts.children.push_back(numbers(frames, frames->flags));
  parts.children.push_back(payloads(frames));
  batch = makeArray(std::move(parts));
  return TOLVEX_OK;
}

}  // namespace tolvex::plain
