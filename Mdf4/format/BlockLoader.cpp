#include "Mdf4/format/BlockLoader.h"

#include <cinttypes>
#include <optional>

#include "Mdf4/base/Diagnostics.h"
#include "Mdf4/format/BlockScan.h"
#include "Mdf4/format/BlockTraits.h"
#include "Mdf4/format/DataBlocks.h"

namespace tolvex {
namespace {

template <class... Blocks>
std::unique_ptr<m4Block> makeOneOf(std::uint16_t type) {
  std::unique_ptr<m4Block> block;
  const auto make = [&]<class Block>(Block* /*kind*/) { block = std::make_unique<Block>(); };
  ((type == Blocks::kType ? make(static_cast<Blocks*>(nullptr)) : void()), ...);
  return block;
}

// A new block of the kind; null for one that is not loaded.
std::unique_ptr<m4Block> makeBlock(std::uint16_t type) {
  return makeOneOf<M4DGBlock, M4CGBlock, M4CNBlock, M4CCBlock, M4CABlock, M4CHBlock, M4SIBlock,
                   M4SRBlock, M4ATBlock, M4EVBlock, M4FHBlock, M4TXBlock, M4MDBlock, M4DLBlock,
                   M4LDBlock, M4HLBlock, M4DZBlock, M4DTBlock, M4SDBlock, M4RDBlock, M4DVBlock,
                   M4DIBlock, M4RVBlock, M4RIBlock>(type);
}

}  // namespace

std::optional<BlockScan> scanBlockAt(DirectFile& file, std::uint64_t position) {
  if (position == 0) return std::nullopt;
  BlockHeader header;
  if (!file.ReadAt(position, kBlockHeaderSize, &header)) {
    if (file.isOpen()) {
      file.report(formatText("a link leads to %" PRIu64 ", the file ends at %" PRIu64, position,
                             file.end()));
    }
    return std::nullopt;
  }
  const BlockScan scan = scanHeader(header, position, file.end());
  if (scan.isBlock() && header.type != block_type::kHD) return scan;
  file.report(formatText("a link leads to %" PRIu64 ": expected a block, found %s", position,
                         describe(scan, HeaderFault::NoBlock, file.end()).found.c_str()));
  return std::nullopt;
}

std::uint16_t blockTypeAt(DirectFile& file, std::uint64_t position) {
  const std::optional<BlockScan> scan = scanBlockAt(file, position);
  return scan ? scan->header.type : std::uint16_t{0};
}

std::unique_ptr<m4Block> loadBlock(DirectFile& file, std::uint64_t position) {
  const std::optional<BlockScan> scan = scanBlockAt(file, position);
  if (!scan) return nullptr;
  std::unique_ptr<m4Block> block = makeBlock(scan->header.type);
  if (!block->load(file, position, scan->header)) return nullptr;
  return block;
}

std::string loadText(DirectFile& file, std::uint64_t position) {
  const std::unique_ptr<m4Block> block = loadBlock(file, position);
  if (block == nullptr || !isText(block->typeCode())) {
    return {};
  }
  return std::string(static_cast<const M4TXBlock&>(*block).text());
}

bool readBlockHeader(DirectFile& file, std::uint64_t position, BlockHeader& header) {
  return position != 0 && file.ReadAt(position, kBlockHeaderSize, &header) &&
         isBlockHeader(header, position);
}

bool isBlockHeader(const BlockHeader& header, std::uint64_t position) {
  if (header.marker == kBlockMarker) return true;
  printDiagnostic("LoadBlkHdr @0x%" PRIX64 ": h.hdr_hdr!=M4ID_ID\n", position);
  return false;
}

bool VisitedBlocks::enter(std::uint64_t position) {
  if (positions_.insert(position).second) return true;
  file_.report(
      formatText("a chain leads to the block at %" PRIu64 " for the second time", position));
  return false;
}

}  // namespace tolvex
