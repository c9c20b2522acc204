#include "Mdf4/ChannelGroup.h"

#include <limits>
#include <utility>

#include "Mdf4/Blocks.h"
#include "Mdf4/base/Diagnostics.h"

namespace tolvex {
namespace {

constexpr std::uint32_t kMost = std::numeric_limits<std::uint32_t>::max();

}  // namespace

std::unique_ptr<Channel> ChannelGroup::write(const ChannelInfo& info) {
  auto channel = std::make_unique<Channel>(info);
  return channel->write(*block_->file()) ? std::move(channel) : nullptr;
}

bool ChannelGroup::addChannel(const ChannelInfo& info) {
  if (info.channelType == channel_type::kVlsd) {
    printDiagnostic("[fatal] %s, %d: ChannelGroup::addChannel: VLSD write is not supported\n",
                    __FILE__, __LINE__);
    return false;
  }
  const std::uint64_t grown = recordSize() + info.byteCount;
  if (grown > kMost || info.byteCount > kMost / 8) return false;
  Appending appending(*block_->file());
  std::unique_ptr<Channel> channel = write(info);
  if (channel == nullptr) return false;
  appending.keep();  // a link that could not be written whole may lead to it
  // The record grows first: whichever write fails, no channel that the file names lies outside it.
  const std::uint32_t before =
      std::exchange(block_->cg_data_bytes, static_cast<std::uint32_t>(grown));
  block_->cg_inval_bytes = 0;
  if (lastChannel_ == nullptr) block_->setLink(link::cg_cn_first, channel->position());
  if (block_->save(nullptr, m4Block::kSaveAll) != 0 &&
      (lastChannel_ == nullptr || lastChannel_->linkNext(*channel))) {
    lastChannel_ = std::move(channel);
    lastComponent_.reset();
    return true;
  }
  block_->cg_data_bytes = before;
  if (lastChannel_ == nullptr) block_->setLink(link::cg_cn_first, 0);
  static_cast<void>(block_->save(nullptr, m4Block::kSaveAll));  // as far as the disk takes it
  return false;
}

bool ChannelGroup::addComponent(const ChannelInfo& info) {
  std::unique_ptr<Channel> channel = write(info);
  if (channel == nullptr) return false;
  const bool linked = lastComponent_ != nullptr ? lastComponent_->linkNext(*channel)
                                                : lastChannel_->linkComposition(*channel);
  if (linked) lastComponent_ = std::move(channel);
  return linked;
}

bool ChannelGroup::writeText(std::size_t index, const std::string& text) {
  if (block_->link(index) != 0) return true;
  const std::uint64_t position = tolvex::writeText(*block_->file(), text);
  return position != 0 && writeLink(*block_, index, position);
}

bool ChannelGroup::setComment(const std::string& text) {
  comment_ = text;
  return writeText(link::cg_md_comment, text);
}

bool ChannelGroup::setAcquisitionName(const std::string& text) {
  acquisitionName_ = text;
  return writeText(link::cg_tx_acq_name, text);
}

bool ChannelGroup::setFlags(std::uint16_t flags) {
  block_->cg_flags = flags;
  return block_->save(nullptr, m4Block::kSaveAll) != 0;
}

bool ChannelGroup::setCycleCount(std::uint64_t records) {
  block_->cg_cycle_count = records;
  return block_->save(nullptr, m4Block::kSaveAll) != 0;
}

}  // namespace tolvex
