#include "Mdf4/plain/ArrowExport.h"

#include <algorithm>
#include <bit>
#include <cstring>

namespace tolvex::plain {
namespace {

// Deleted by the release of the struct that points to it, which releases what is left inside.
struct SchemaMemory {
  std::string format;
  std::string name;
  std::string metadata;
  std::vector<ArrowOwner<ArrowSchema>> children;
  std::vector<ArrowSchema*> pointers;
  ArrowOwner<ArrowSchema> dictionary;
};

struct ArrayMemory {
  ArrowParts parts;
  std::vector<ArrowArray*> pointers;
};

template <class Memory, class Struct>
void release(Struct* released) {
  delete static_cast<Memory*>(released->private_data);
  released->release = nullptr;
}

template <class Struct>
std::vector<Struct*> pointersTo(std::vector<ArrowOwner<Struct>>& children) {
  std::vector<Struct*> pointers;
  pointers.reserve(children.size());
  for (ArrowOwner<Struct>& child : children) pointers.push_back(&*child);
  return pointers;
}

// Lengths and counts as int32 of the machine's byte order, texts without a NUL.
std::string encoded(const ArrowField::Metadata& metadata) {
  std::string bytes;
  const auto addNumber = [&](std::size_t number) {
    const auto value = static_cast<std::int32_t>(number);
    bytes.append(reinterpret_cast<const char*>(&value), sizeof value);
  };
  const auto count = static_cast<std::size_t>(
      std::ranges::count_if(metadata, [](const auto& pair) { return !pair.second.empty(); }));
  if (count == 0) return bytes;
  addNumber(count);
  for (const auto& [key, value] : metadata) {
    if (value.empty()) continue;
    addNumber(key.size());
    bytes += key;
    addNumber(value.size());
    bytes += value;
  }
  return bytes;
}

}  // namespace

ArrowOwner<ArrowSchema> makeSchema(const ArrowField& field) {
  auto memory = std::make_unique<SchemaMemory>();
  memory->format = field.format;
  memory->name = field.name;
  memory->metadata = encoded(field.metadata);
  for (const ArrowField& child : field.children) memory->children.push_back(makeSchema(child));
  memory->pointers = pointersTo(memory->children);
  if (!field.dictionary.empty()) memory->dictionary = makeSchema(field.dictionary.front());

  ArrowOwner<ArrowSchema> schema;
  schema->format = memory->format.c_str();
  schema->name = memory->name.c_str();
  schema->metadata = memory->metadata.empty() ? nullptr : memory->metadata.data();
  schema->flags = field.flags;
  schema->n_children = static_cast<std::int64_t>(memory->pointers.size());
  schema->children = memory->pointers.empty() ? nullptr : memory->pointers.data();
  schema->dictionary = field.dictionary.empty() ? nullptr : &*memory->dictionary;
  schema->release = release<SchemaMemory, ArrowSchema>;
  schema->private_data = memory.release();
  return schema;
}

ArrowOwner<ArrowArray> makeArray(ArrowParts parts) {
  auto memory = std::make_unique<ArrayMemory>();
  memory->parts = std::move(parts);
  ArrowParts& kept = memory->parts;
  memory->pointers = pointersTo(kept.children);

  ArrowOwner<ArrowArray> array;
  array->length = kept.length;
  array->null_count = kept.nullCount;
  array->n_buffers = static_cast<std::int64_t>(kept.buffers.size());
  array->n_children = static_cast<std::int64_t>(memory->pointers.size());
  array->buffers = kept.buffers.empty() ? nullptr : kept.buffers.data();
  array->children = memory->pointers.empty() ? nullptr : memory->pointers.data();
  array->dictionary = kept.dictionary->release == nullptr ? nullptr : &*kept.dictionary;
  array->release = release<ArrayMemory, ArrowArray>;
  array->private_data = memory.release();
  return array;
}

std::int64_t countNulls(const std::uint8_t* bits, std::uint64_t count) {
  if (bits == nullptr) return 0;
  std::int64_t valid = 0;
  for (std::uint64_t i = 0; i < count / 8; ++i) valid += std::popcount(bits[i]);
  const unsigned rest = (1U << count % 8) - 1;
  if (rest != 0) valid += std::popcount(bits[count / 8] & rest);
  return static_cast<std::int64_t>(count) - valid;
}

std::shared_ptr<std::uint8_t[]> allValid(std::uint64_t count) {
  const auto bytes = static_cast<std::size_t>(count / 8 + 1);
  std::shared_ptr<std::uint8_t[]> bits(new std::uint8_t[bytes]);
  std::memset(bits.get(), 0xFF, bytes);
  return bits;
}

}  // namespace tolvex::plain
