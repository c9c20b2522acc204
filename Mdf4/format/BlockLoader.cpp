#include "Mdf4/format/BlockLoader.h"

#include <cinttypes>

#include "Mdf4/base/Diagnostics.h"
#include "Mdf4/format/DataBlocks.h"

namespace tolvex {
namespace {

// Channel groups of a file are loaded with the links that the file gives them.
constexpr std::uint16_t kLoadedGroupVersion = 410;

std::unique_ptr<m4Block> makeBlock(std::uint16_t type) {
  switch (type) {
    case block_type::kDG:
      return std::make_unique<M4DGBlock>();
    case block_type::kCG:
      return std::make_unique<M4CGBlock>(kLoadedGroupVersion);
    case block_type::kCN:
      return std::make_unique<M4CNBlock>();
    case block_type::kCC:
      return std::make_unique<M4CCBlock>();
    case block_type::kCA:
      return std::make_unique<M4CABlock>();
    case block_type::kCH:
      return std::make_unique<M4CHBlock>();
    case block_type::kSI:
      return std::make_unique<M4SIBlock>();
    case block_type::kSR:
      return std::make_unique<M4SRBlock>();
    case block_type::kAT:
      return std::make_unique<M4ATBlock>();
    case block_type::kEV:
      return std::make_unique<M4EVBlock>();
    case block_type::kFH:
      return std::make_unique<M4FHBlock>();
    case block_type::kTX:
      return std::make_unique<M4TXBlock>();
    case block_type::kMD:
      return std::make_unique<M4MDBlock>();
    case block_type::kDL:
      return std::make_unique<M4DLBlock>();
    case block_type::kLD:
      return std::make_unique<M4LDBlock>();
    case block_type::kHL:
      return std::make_unique<M4HLBlock>();
    case block_type::kDZ:
      return std::make_unique<M4DZBlock>();
    case block_type::kDT:
      return std::make_unique<M4DTBlock>();
    case block_type::kSD:
      return std::make_unique<M4SDBlock>();
    case block_type::kRD:
      return std::make_unique<M4RDBlock>();
    case block_type::kDV:
      return std::make_unique<M4DVBlock>();
    case block_type::kDI:
      return std::make_unique<M4DIBlock>();
    case block_type::kRV:
      return std::make_unique<M4RVBlock>();
    case block_type::kRI:
      return std::make_unique<M4RIBlock>();
    default:
      return nullptr;
  }
}

// Two bytes as they would look in a text.
std::string letters(std::uint16_t code) {
  std::string text;
  for (const unsigned shift : {0U, 8U}) {
    const unsigned byte = code >> shift & 0xFFU;
    if (byte >= 0x20 && byte < 0x7F) {
      text += static_cast<char>(byte);
    } else {
      text += formatText("\\x%02X", byte);
    }
  }
  return text;
}

void reportNoBlock(DirectFile& file, std::uint64_t position, const BlockHeader& header) {
  file.report(formatText("a link leads to %" PRIu64 ": expected a block, found \"%s%s\"", position,
                         letters(header.marker).c_str(), letters(header.type).c_str()));
}

// False for position 0, and, noted, where no block begins.
bool readHeader(DirectFile& file, std::uint64_t position, BlockHeader& header) {
  if (position == 0) return false;
  if (!file.ReadAt(position, kBlockHeaderSize, &header)) {
    if (file.isOpen()) {
      file.report(formatText("a link leads to %" PRIu64 ", the file ends at %" PRIu64, position,
                             file.end()));
    }
    return false;
  }
  if (header.marker != kBlockMarker) reportNoBlock(file, position, header);
  return header.marker == kBlockMarker;
}

}  // namespace

std::uint16_t blockTypeAt(DirectFile& file, std::uint64_t position) {
  BlockHeader header;
  return readHeader(file, position, header) ? header.type : std::uint16_t{0};
}

std::unique_ptr<m4Block> loadBlock(DirectFile& file, std::uint64_t position) {
  BlockHeader header;
  if (!readHeader(file, position, header)) return nullptr;
  std::unique_ptr<m4Block> block = makeBlock(header.type);
  if (block == nullptr) {
    reportNoBlock(file, position, header);
    return nullptr;
  }
  if (!block->load(file, position, header)) return nullptr;
  return block;
}

std::string loadText(DirectFile& file, std::uint64_t position) {
  const std::unique_ptr<m4Block> block = loadBlock(file, position);
  if (block == nullptr ||
      (block->typeCode() != block_type::kTX && block->typeCode() != block_type::kMD)) {
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
