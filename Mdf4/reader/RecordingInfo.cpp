#include "Mdf4/reader/RecordingInfo.h"

#include <algorithm>
#include <array>
#include <cinttypes>
#include <optional>
#include <string_view>
#include <unordered_map>
#include <utility>

#include "Mdf4/base/Diagnostics.h"
#include "Mdf4/format/BlockLoader.h"
#include "Mdf4/reader/PropertyXml.h"

namespace tolvex {
namespace {

constexpr std::uint8_t kLocalTime = 0x01;    // a time flag
constexpr std::uint16_t kEmbedded = 0x01;    // flags of an attachment
constexpr std::uint16_t kCompressed = 0x02;  //
constexpr std::size_t kLongestToolText = 256;

std::string_view viewOf(const SharedText& text) {
  return text == nullptr ? std::string_view("") : std::string_view(*text);
}

// Goes along the chains that begin at the header block.
class Surroundings {
 public:
  Surroundings(MDF4File& file, FileTexts& texts, MdfRecordingInfo& info)
      : file_(file), texts_(texts), info_(info), visited_(file) {}

  void describe() {
    const M4HDBlock& header = *file_.header();
    info_.properties = commonProperties(viewOf(texts_.whole(header.link(link::hd_md_comment))));
    for (std::uint64_t at = header.link(link::hd_fh_first); at != 0;) at = addHistory(at);
    for (std::uint64_t at = header.link(link::hd_at_first); at != 0;) at = addAttachment(at);
    for (std::uint64_t at = header.link(link::hd_ev_first); at != 0;) at = addEvent(at);
  }

 private:
  // Whether a block of that kind begins there, to which nothing has led so far.
  std::optional<BlockScan> enter(std::uint64_t position, std::uint16_t type) {
    std::optional<BlockScan> scan = scanBlockAt(file_, position);
    if (!scan) return std::nullopt;
    if (scan->header.type != type) {
      file_.report(
          formatText("block at %" PRIu64 ": a link of another kind leads to it", position));
      return std::nullopt;
    }
    return visited_.enter(position) ? scan : std::nullopt;
  }

  // Each adds what the block at the position says, and returns the link to the next one.
  std::uint64_t addHistory(std::uint64_t position) {
    if (!enter(position, block_type::kFH)) return 0;
    const auto block = loadBlockAs<M4FHBlock>(file_, position);
    if (block == nullptr) return 0;
    const std::uint64_t comment = block->link(link::fh_md_comment);
    MdfHistoryEntry& entry = info_.history.emplace_back(toolOf(comment));
    entry.timeNs = static_cast<std::int64_t>(block->fh_time_ns);
    entry.isLocal = (block->fh_time_flags & kLocalTime) != 0;
    entry.comment = viewOf(texts_.content(comment));
    return block->link(link::fh_fh_next);
  }

  // An entry with what its comment says of the tool. Many may share one comment.
  const MdfHistoryEntry& toolOf(std::uint64_t comment) {
    const auto [known, isNew] = tools_.try_emplace(comment);
    if (isNew) {
      const std::string_view xml = viewOf(texts_.whole(comment));
      known->second.tool = textOfElement(xml, "tool_id", kLongestToolText);
      known->second.toolVersion = textOfElement(xml, "tool_version", kLongestToolText);
      known->second.vendor = textOfElement(xml, "tool_vendor", kLongestToolText);
      known->second.user = textOfElement(xml, "user_name", kLongestToolText);
    }
    return known->second;
  }

  // Reads links and record alone: what is embedded may be large.
  std::uint64_t addAttachment(std::uint64_t position) {
    const std::optional<BlockScan> scan = enter(position, block_type::kAT);
    if (!scan) return 0;
    constexpr std::uint64_t kLinkSize = sizeof(std::uint64_t);
    std::array<std::uint64_t, link::at_md_comment + 1> links = {};
    const std::uint64_t linkCount = scan->header.linkCount;
    const std::uint64_t length = scan->header.length;
    m4ATRecord record = {};
    const std::uint64_t fixed = kBlockHeaderSize + links.size() * kLinkSize + sizeof record;
    const bool fits = linkCount >= links.size() && length >= fixed &&
                      linkCount - links.size() <= (length - fixed) / kLinkSize &&
                      file_.holds(position, length);
    if (!fits) {
      file_.report(formatText("AT block at %" PRIu64 ": it has no room for its record, or none in "
                              "the file",
                              position));
      return 0;
    }
    const std::uint64_t recordAt = position + kBlockHeaderSize + linkCount * kLinkSize;
    if (!file_.budget().takeLoad(fixed) ||
        !file_.ReadAt(position + kBlockHeaderSize, sizeof links, links.data()) ||
        !file_.ReadAt(recordAt, sizeof record, &record)) {
      return 0;
    }
    MdfAttachment& attachment = info_.attachments.emplace_back();
    attachment.name = viewOf(texts_.content(links[link::at_tx_filename]));
    attachment.mimeType = viewOf(texts_.content(links[link::at_tx_mimetype]));
    attachment.comment = viewOf(texts_.content(links[link::at_md_comment]));
    attachment.isEmbedded = (record.at_flags & kEmbedded) != 0;
    attachment.isCompressed = attachment.isEmbedded && (record.at_flags & kCompressed) != 0;
    attachment.size = record.at_original_size;
    attachment.storedSize = attachment.isEmbedded ? record.at_embedded_size : 0;
    return links[link::at_at_next];
  }

  std::uint64_t addEvent(std::uint64_t position) {
    if (!enter(position, block_type::kEV)) return 0;
    const auto block = loadBlockAs<M4EVBlock>(file_, position);
    if (block == nullptr) return 0;
    MdfEvent& event = info_.events.emplace_back();
    event.name = viewOf(texts_.content(block->link(link::ev_tx_name)));
    event.comment = viewOf(texts_.content(block->link(link::ev_md_comment)));
    event.type = block->ev_type;
    event.syncType = block->ev_sync_type;
    event.rangeType = block->ev_range_type;
    event.cause = block->ev_cause;
    event.position = static_cast<double>(block->ev_sync_base_value) * block->ev_sync_factor;
    return block->link(link::ev_ev_next);
  }

  MDF4File& file_;
  FileTexts& texts_;
  MdfRecordingInfo& info_;
  VisitedBlocks visited_;
  std::unordered_map<std::uint64_t, MdfHistoryEntry> tools_;  // by comment
};

}  // namespace

void describeSurroundings(MDF4File& file, FileTexts& texts, MdfRecordingInfo& info) {
  Surroundings(file, texts, info).describe();
}

}  // namespace tolvex
