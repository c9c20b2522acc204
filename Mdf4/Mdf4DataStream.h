// The records of one data group on their way into the file.
#pragma once

#include <cstdint>
#include <memory>

#include "Mdf4/Mdf4File.h"
#include "Mdf4/format/m4DataStream.h"

namespace tolvex {

struct BusLogLayout;

// What shows which group a full data block belongs to when no list names it.
struct BlockOwner {
  static constexpr int kAnySource = -1;

  std::uint64_t capacity = 0;            // bytes
  const BusLogLayout* layout = nullptr;  // of its records; null: an application's
  int source = kAnySource;               // that each of them states, of a bus log

  bool mayBeMistakenFor(const BlockOwner& other) const {
    const bool toldApart = layout != nullptr && layout == other.layout && source != other.source &&
                           source != kAnySource && other.source != kAnySource;
    return capacity == other.capacity && !toldApart;
  }
};

// Appends records to data blocks of equal length, in lists of five. Every full block is handed to
// the system at once; its list may follow later, unless another stream of the file has blocks that
// it may be mistaken for. Borrows the file.
class Mdf4DataStream : public m4DataStream {
 public:
  static constexpr std::uint32_t kBlocksPerList = 5;

  // Writes the first list at the end of the file and links it from the data group. Null, with the
  // group as it was, when a write fails or there is no memory for a block; throws, likewise, when
  // there is none for the stream itself.
  [[nodiscard]] static std::unique_ptr<Mdf4DataStream> create(Mdf4File& file, CustomDGBlock& group,
                                                              const BlockOwner& owner);
  ~Mdf4DataStream() override;

  // Bytes of the first list and of the first block, which holds `capacity` bytes.
  static std::uint64_t reservedSize(std::uint64_t capacity);

  // Writes what is left. False when something is lost; lostBytes returns how much.
  [[nodiscard]] bool flush() { return finish(false); }

 private:
  Mdf4DataStream(Mdf4File& file, Blocks blocks, const BlockOwner& owner);

  Mdf4File& mdfFile_;
  const BlockOwner owner_;
};

}  // namespace tolvex
