// A channel group of a file under construction: its block and the list of its channels.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "Mdf4/Channel.h"
#include "Mdf4/Mdf4File.h"

namespace tolvex {

// Every change is written to the file at once; a result of false says that a write failed. Borrows
// the file.
class ChannelGroup {
 public:
  explicit ChannelGroup(std::shared_ptr<CustomCGBlock> block) : block_(std::move(block)) {}

  // Appends the channel, whose byteOffset is set; the record grows by its byteCount. Channels of
  // type 1 are refused, and those that make the record too large for the format.
  [[nodiscard]] bool addChannel(const ChannelInfo& info);
  // Appends a channel inside the last one added: one that describes a part of its bytes.
  [[nodiscard]] bool addComponent(const ChannelInfo& info);

  // A text is written once: the first one stays in this file, the last one is remembered.
  [[nodiscard]] bool setComment(const std::string& text);
  [[nodiscard]] bool setAcquisitionName(const std::string& text);
  const std::string& comment() const { return comment_; }
  const std::string& acquisitionName() const { return acquisitionName_; }

  [[nodiscard]] bool setFlags(std::uint16_t flags);  // cg_flags
  [[nodiscard]] bool setCycleCount(std::uint64_t records);
  // Bytes. Invalidation bytes are none of a group of variable-length values.
  std::uint64_t recordSize() const {
    const bool variableLength = (block_->cg_flags & kCgFlagVlsd) != 0;
    return std::uint64_t{block_->cg_data_bytes} + (variableLength ? 0 : block_->cg_inval_bytes);
  }

 private:
  [[nodiscard]] std::unique_ptr<Channel> write(const ChannelInfo& info);
  [[nodiscard]] bool writeText(std::size_t index, const std::string& text);

  std::shared_ptr<CustomCGBlock> block_;
  std::unique_ptr<Channel> lastChannel_;
  std::unique_ptr<Channel> lastComponent_;  // of the last channel
  std::string comment_;
  std::string acquisitionName_;
};

}  // namespace tolvex
