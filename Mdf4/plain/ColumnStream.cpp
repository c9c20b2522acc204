#include "Mdf4/plain/ColumnStream.h"

#include <algorithm>
#include <cmath>
#include <utility>

namespace tolvex::plain {
namespace {

using Kind = StreamColumn::Kind;

const char* formatOf(MdfColumnType type) {
  switch (type) {
    case MdfColumnType::None:
      return "n";
    case MdfColumnType::Int8:
      return "c";
    case MdfColumnType::Int16:
      return "s";
    case MdfColumnType::Int32:
    case MdfColumnType::Dictionary:
      return "i";
    case MdfColumnType::Int64:
      return "l";
    case MdfColumnType::UInt8:
      return "C";
    case MdfColumnType::UInt16:
      return "S";
    case MdfColumnType::UInt32:
      return "I";
    case MdfColumnType::UInt64:
      return "L";
    case MdfColumnType::Float32:
      return "f";
    case MdfColumnType::Float64:
      return "g";
    case MdfColumnType::Text:
      return "U";
    case MdfColumnType::Bytes:
      return "Z";
  }
  return "n";
}

ArrowField fieldOf(const StreamColumn& column, bool startIsLocal) {
  ArrowField field;
  field.name = column.name;
  if (column.kind == Kind::Seconds) {
    field.format = "g";
    field.metadata = {{"unit", "s"}};
    return field;
  }
  if (column.kind == Kind::Nanoseconds) {
    field.format = startIsLocal ? "tsn:" : "tsn:UTC";
    return field;
  }
  const MdfColumnChannel& channel = *column.channel;
  field.format = formatOf(column.type);
  field.metadata = {{"unit", std::string(channel.unit)}, {"comment", std::string(channel.comment)}};
  if (column.kind == Kind::Nulls) {
    field.metadata.emplace_back("fault", channel.fault);
    return field;
  }
  if (column.type == MdfColumnType::Dictionary) {
    field.dictionary.emplace_back();
    field.dictionary.front().format = formatOf(MdfColumnType::Text);
  }
  // From the innermost dimension outwards.
  ArrowField::Metadata metadata = std::exchange(field.metadata, {});
  for (std::size_t dimension = channel.shape.size(); dimension-- > 0;) {
    ArrowField list;
    list.format = "+w:" + std::to_string(channel.shape[dimension]);
    list.name = std::exchange(field.name, "item");
    list.children.push_back(std::move(field));
    field = std::move(list);
  }
  field.metadata = std::move(metadata);
  return field;
}

// Lists of elements that stand one behind the other in `array`.
ArrowOwner<ArrowArray> listed(ArrowOwner<ArrowArray> array,
                              const std::vector<std::uint64_t>& shape) {
  for (std::size_t dimension = shape.size(); dimension-- > 0;) {
    ArrowParts list;
    list.length = array->length / static_cast<std::int64_t>(shape[dimension]);
    list.buffers = {nullptr};
    list.children.push_back(std::move(array));
    array = makeArray(std::move(list));
  }
  return array;
}

// Numbers that stand for themselves, but for those that `isNone` says are none.
template <class Number, class IsNone>
ArrowOwner<ArrowArray> numbersOf(std::shared_ptr<const Number[]> numbers, std::uint64_t count,
                                 IsNone isNone) {
  std::shared_ptr<std::uint8_t[]> valid;
  for (std::uint64_t i = 0; i < count; ++i) {
    if (!isNone(numbers[static_cast<std::ptrdiff_t>(i)])) continue;
    if (valid == nullptr) valid = allValid(count);
    clearBit(valid.get(), i);
  }
  ArrowParts parts;
  parts.length = static_cast<std::int64_t>(count);
  parts.nullCount = countNulls(valid.get(), count);
  parts.buffers = {valid.get(), numbers.get()};
  parts.kept = {valid, numbers};
  return makeArray(std::move(parts));
}

bool isNan(double number) {
  return std::isnan(number);
}

ArrowOwner<ArrowArray> numbersIn(const std::shared_ptr<MdfColumn>& column) {
  const auto size = static_cast<std::size_t>(column->size());
  std::shared_ptr<const double[]> numbers(column, column->numbers().data());
  if (column->numbers().empty()) {
    const std::shared_ptr<double[]> none(new double[std::max<std::size_t>(size, 1)]);
    std::fill_n(none.get(), size, std::nan(""));
    numbers = none;
  }
  return numbersOf<double>(std::move(numbers), size, isNan);
}

ArrowOwner<ArrowArray> nulls(std::uint64_t rows) {
  ArrowParts parts;
  parts.length = static_cast<std::int64_t>(rows);
  parts.nullCount = parts.length;
  return makeArray(std::move(parts));
}

// Room for `count` numbers, which are to be read into it.
template <class Number>
std::shared_ptr<Number[]> room(std::uint64_t count) {
  return std::shared_ptr<Number[]>(new Number[static_cast<std::size_t>(count)]);
}

}  // namespace

ColumnStream::ColumnStream(std::shared_ptr<OpenRecording> recording, StreamPlan plan)
    : recording_(std::move(recording)),
      plan_(std::move(plan)),
      dictionaries_(plan_.channels.size()),
      position_(plan_.first) {}

ArrowOwner<ArrowSchema> ColumnStream::schema() const {
  const MdfColumnGroup& group = recording_->groups()[static_cast<std::size_t>(plan_.group)];
  ArrowField root;
  root.format = "+s";
  root.flags = 0;
  root.metadata = {{"name", std::string(group.name)},
                   {"comment", std::string(group.comment)},
                   {"left_out", plan_.leftOut}};
  for (const StreamColumn& column : plan_.columns) {
    root.children.push_back(fieldOf(column, recording_->info().startIsLocal));
  }
  return makeSchema(root);
}

tolvex_status ColumnStream::next(ArrowOwner<ArrowArray>& batch, LastError& error) {
  const std::uint64_t count = std::min(plan_.batchRows, plan_.end - position_);
  if (count == 0) return TOLVEX_OK;
  Batch read;
  const tolvex_status status = this->read(count, read, error);
  if (status != TOLVEX_OK) return status;
  position_ += count;
  ArrowParts parts;
  parts.length = static_cast<std::int64_t>(read.rows);
  parts.buffers = {nullptr};
  for (const StreamColumn& column : plan_.columns) parts.children.push_back(arrayOf(column, read));
  batch = makeArray(std::move(parts));
  return TOLVEX_OK;
}

tolvex_status ColumnStream::read(std::uint64_t count, Batch& batch, LastError& error) {
  MdfReadOptions options = plan_.options;
  const Kind first = plan_.columns.empty() ? Kind::Nulls : plan_.columns.front().kind;
  if (first == Kind::Seconds) {
    batch.seconds = room<double>(count);
    options.seconds = batch.seconds.get();
  } else if (first == Kind::Nanoseconds) {
    batch.nanoseconds = room<std::int64_t>(count);
    options.nanoseconds = batch.nanoseconds.get();
  }
  std::vector<MdfColumn> columns;
  const tolvex_status status = readColumns(*recording_, error, plan_.group, plan_.channels,
                                           position_, count, options, columns);
  if (status != TOLVEX_OK) return status;
  batch.rows = count;
  for (MdfColumn& column : columns) {
    batch.rows = column.rows();
    batch.columns.push_back(std::make_shared<MdfColumn>(std::move(column)));
  }
  return TOLVEX_OK;
}

ArrowOwner<ArrowArray> ColumnStream::arrayOf(const StreamColumn& column, const Batch& batch) {
  switch (column.kind) {
    case Kind::Seconds:
      return numbersOf<double>(batch.seconds, batch.rows, isNan);
    case Kind::Nanoseconds:
      return numbersOf<std::int64_t>(batch.nanoseconds, batch.rows,
                                     [](std::int64_t time) { return time == kMdfNoTime; });
    case Kind::Values:
      return listed(valuesOf(column, batch.columns[column.source]), column.channel->shape);
    case Kind::Numbers:
      return listed(numbersIn(batch.columns[column.source]), column.channel->shape);
    case Kind::Nulls:
      break;
  }
  return nulls(batch.rows);
}

ArrowOwner<ArrowArray> ColumnStream::valuesOf(const StreamColumn& column,
                                              const std::shared_ptr<MdfColumn>& read) {
  ArrowParts parts;
  parts.length = static_cast<std::int64_t>(read->size());
  parts.kept = {read};
  const std::uint8_t* validity = read->validity();
  if (column.type == MdfColumnType::Dictionary) {
    if (!read->numbers().empty()) {  // then some values are valid without a text
      const auto valid = allValid(read->size());
      for (std::uint64_t i = 0; i < read->size(); ++i) {
        if (read->as<std::int32_t>()[i] < 0) clearBit(valid.get(), i);
      }
      validity = valid.get();
      parts.kept.push_back(valid);
    }
    StreamDictionary& dictionary = dictionaries_[column.source];
    dictionary.renumber(*read);
    parts.dictionary = dictionary.texts();
  }
  parts.nullCount = countNulls(validity, read->size());
  parts.buffers = {validity};
  if (read->offsets() != nullptr) parts.buffers.push_back(read->offsets());
  // Texts that are all empty have no memory of their own; readers may want some all the same.
  static constexpr std::uint64_t kNothing = 0;
  parts.buffers.push_back(read->data() != nullptr ? read->data() : &kNothing);
  return makeArray(std::move(parts));
}

}  // namespace tolvex::plain
