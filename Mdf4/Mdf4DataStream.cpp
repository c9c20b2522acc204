#include "Mdf4/Mdf4DataStream.h"

#include <cinttypes>
#include <utility>

#include "Mdf4/Blocks.h"
#include "Mdf4/base/Diagnostics.h"

namespace tolvex {

Mdf4DataStream::Mdf4DataStream(Mdf4File& file, Blocks blocks, const BlockOwner& owner)
    : m4DataStream(file, std::move(blocks)), mdfFile_(file), owner_(owner) {
  mdfFile_.streams().push_back(this);
}

Mdf4DataStream::~Mdf4DataStream() {
  std::erase(mdfFile_.streams(), this);
}

std::unique_ptr<Mdf4DataStream> Mdf4DataStream::create(Mdf4File& file, CustomDGBlock& group,
                                                       const BlockOwner& owner) {
  Blocks blocks;
  blocks.data = std::make_unique<M4DTBlock>();
  if (!blocks.data->reallocate(owner.capacity)) {
    file.noteWriteError([&] {
      return formatText("no memory for a data block of %" PRIu64 " bytes", owner.capacity);
    });
    return nullptr;
  }
  blocks.dataList = std::make_unique<M4DLBlock>(kBlocksPerList, owner.capacity);
  bool mistakable = false;
  for (Mdf4DataStream* const other : file.streams()) {
    if (!owner.mayBeMistakenFor(other->owner_)) continue;
    if (!other->nameBlocksAtOnce()) return nullptr;
    mistakable = true;
  }
  makeRoom(file.streams());
  const std::uint64_t end = file.end();
  std::unique_ptr<Mdf4DataStream> stream(new Mdf4DataStream(file, std::move(blocks), owner));
  // Without an open block this cannot fail.
  if (mistakable) static_cast<void>(stream->nameBlocksAtOnce());
  if (stream->firstList() != 0 && writeLink(group, link::dg_data, stream->firstList())) {
    return stream;
  }
  file.giveBack(end);
  return nullptr;
}

std::uint64_t Mdf4DataStream::reservedSize(std::uint64_t capacity) {
  constexpr std::uint64_t kLinks = 1 + kBlocksPerList;
  constexpr std::uint64_t kList = kBlockHeaderSize + kLinks * kLinkSize + sizeof(m4DLRecord) +
                                  sizeof(std::uint64_t);  // the equal length
  return kList + kBlockHeaderSize + capacity;
}

}  // namespace tolvex
