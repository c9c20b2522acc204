#include "Mdf4/Mdf4DataStream.h"

#include <cinttypes>
#include <utility>

#include "Mdf4/Blocks.h"
#include "Mdf4/format/Diagnostics.h"

namespace tolvex {

std::unique_ptr<Mdf4DataStream> Mdf4DataStream::create(DirectFile& file, CustomDGBlock& group,
                                                       std::uint64_t capacity) {
  Blocks blocks;
  blocks.data = std::make_unique<M4DTBlock>();
  if (!blocks.data->reallocate(capacity)) {
    file.noteWriteError(formatText("no memory for a data block of %" PRIu64 " bytes", capacity));
    return nullptr;
  }
  blocks.dataList = std::make_unique<M4DLBlock>(kBlocksPerList, capacity);
  const std::uint64_t end = file.end();
  std::unique_ptr<Mdf4DataStream> stream(new Mdf4DataStream(file, std::move(blocks)));
  if (stream->firstList() != 0 && writeLink(group, link::dg_data, stream->firstList())) {
    return stream;
  }
  file.giveBack(end);
  return nullptr;
}

}  // namespace tolvex
