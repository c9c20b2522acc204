// A data group of a file under construction: its blocks, its record layout and its records.
#pragma once

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <functional>
#include <memory>
#include <vector>

#include "Mdf4/ChannelGroup.h"
#include "Mdf4/Mdf4DataStream.h"
#include "Mdf4/Mdf4File.h"
#include "Mdf4/Record.h"

namespace tolvex {

struct BusLogLayout;

// One data group with one channel group, without record ids and invalidation bytes. Channels lie
// back to back in the record, in the order in which they are added.
//
// What fails because a write failed may be tried again. Keeps the file alive. Not synchronised.
class DataGroup {
 public:
  static constexpr std::uint32_t kRecordsPerBlock = 512;

  using Define = std::function<bool(DataGroup& group)>;

  // A data group at the end of the file's list, with an empty channel group and what `define` adds
  // to it before it is listed. Null when a write fails or `define` gives false; then, and when
  // something throws, the file has no such group.
  [[nodiscard]] static std::shared_ptr<DataGroup> create(
      const std::shared_ptr<Mdf4File>& file, std::uint32_t recordsPerBlock = kRecordsPerBlock,
      const Define& define = nullptr);

  // Refused are channels of type 1, names that the group has, masks wider than the channel's bytes,
  // and all channels once the first record has come. After a failed write, a gap of the channel's
  // size stays in front of the channels that follow.
  [[nodiscard]] bool addChannel(const ChannelInfo& info);
  // Records are queued: from now on channels are refused.
  void fixLayout() { layoutIsFixed_ = true; }
  // The channels of a bus-log group of CAN frames; payload sizes are brought into 8 to 64.
  [[nodiscard]] bool initCanBugLog(int maxDataLength);
  [[nodiscard]] bool initCanErrorLog(int maxDataLength);
  [[nodiscard]] bool initCanFdErrorLog(int maxDataLength);
  // Of a bus-log group: the one source that its records, as they state themselves, come from.
  void setSource(int source) { source_ = source; }

  // Appends one record. False when `data` is null, when `size` is not the record's, and when a
  // write fails; nothing is appended then.
  [[nodiscard]] bool insert(std::uint32_t size, const std::uint8_t* data) {
    std::uint8_t* const place = data != nullptr ? placeFor(size) : nullptr;
    if (place == nullptr) return insertWithWrite(size, data);
    copyRecord(place, data, size);
    insertInPlace();
    return true;
  }
  // Where to build the next record, of `size` bytes, when it needs no write; else null. It is
  // appended by insertInPlace, which cannot fail.
  std::uint8_t* placeFor(std::uint32_t size) {
    return stream_ != nullptr && size == recordSize_ ? stream_->placeFor(size) : nullptr;
  }
  void insertInPlace() {
    stream_->appendInPlace(recordSize_);
    ++recordCount_;
  }
  // Appends those of the `count` records at `data`, from the first on, that need no write: how
  // many.
  std::uint64_t insertInPlace(std::uint32_t size, const std::uint8_t* data, std::uint64_t count) {
    if (stream_ == nullptr || size != recordSize_) return 0;
    const std::uint64_t taken = std::min(count, stream_->roomInPlace() / size);
    const std::uint64_t bytes = taken * size;
    if (taken == 0) return 0;
    std::memcpy(stream_->placeFor(bytes), data, inMemory(bytes));
    stream_->appendInPlace(bytes);
    recordCount_ += taken;
    return taken;
  }
  // Writes what is left of the records, their number and the data group. False, with a message when
  // it is the data group, when something could not be written.
  [[nodiscard]] bool flush();

  ChannelGroup& channelGroup() { return *channelGroup_; }
  // The present layout, a snapshot: channels that are added later do not change it.
  std::shared_ptr<const RecordLayout> layout() const {
    if (sharedLayout_ == nullptr) sharedLayout_ = std::make_shared<const RecordLayout>(layout_);
    return sharedLayout_;
  }
  // Bytes of the list and the block that are written with the first record.
  std::uint64_t reservedSize() const {
    return Mdf4DataStream::reservedSize(recordSize_ * recordsPerBlock_);
  }
  int maxDataLength() const { return maxDataLength_; }        // of a bus-log group, bytes
  std::uint64_t recordSize() const { return recordSize_; }    // bytes
  std::uint64_t recordCount() const { return recordCount_; }  // appended
  // Records that were refused because a write failed and, after flush, those that were appended and
  // did not reach the file.
  std::uint64_t lostRecords() const { return lostRecords_; }

  // A group like `model`, without records, at the end of another file.
  [[nodiscard]] static std::shared_ptr<DataGroup> createLike(const DataGroup& model,
                                                             const std::shared_ptr<Mdf4File>& file);

 private:
  DataGroup() = default;

  // Makes the channel group, without records. False when a write fails.
  [[nodiscard]] bool init();
  [[nodiscard]] bool insertWithWrite(std::uint32_t size, const std::uint8_t* data);
  [[nodiscard]] bool append(std::uint32_t size, const std::uint8_t* data);
  [[nodiscard]] bool accepts(const ChannelInfo& info) const;
  [[nodiscard]] bool initBusLog(const BusLogLayout& layout, int maxDataLength);
  [[nodiscard]] bool addBusLogChannels();

  std::shared_ptr<Mdf4File> file_;
  std::shared_ptr<CustomDGBlock> block_;
  std::uint32_t recordsPerBlock_ = 0;
  std::uint64_t recordSize_ = 0;  // of the channel group, bytes
  std::uint64_t recordCount_ = 0;
  std::uint64_t lostRecords_ = 0;
  std::shared_ptr<ChannelGroup> channelGroup_;
  std::unique_ptr<Mdf4DataStream> stream_;  // made by the first record
  std::vector<ChannelInfo> channels_;       // as added
  RecordLayout layout_;
  mutable std::shared_ptr<const RecordLayout> sharedLayout_;  // null: not asked for yet
  std::uint64_t runningSize_ = 0;         // bytes; where the next channel begins
  const BusLogLayout* busLog_ = nullptr;  // null: an application's group
  int maxDataLength_ = 0;                 // payload bytes of a bus-log group
  int source_ = BlockOwner::kAnySource;
  bool layoutIsFixed_ = false;
};

}  // namespace tolvex
