#include "Mdf4/DataGroup.h"

#include <algorithm>
#include <bit>
#include <limits>
#include <new>
#include <utility>

#include "Mdf4/Blocks.h"
#include "Mdf4/base/Diagnostics.h"
#include "Mdf4/model/BusLogLayout.h"

namespace tolvex {
namespace {

constexpr std::uint32_t kMost = std::numeric_limits<std::uint32_t>::max();

std::shared_ptr<const Formula> dlcToLengthFormula() {
  auto formula = std::make_shared<Formula>();
  formula->kind = conversion_type::kN2N;
  for (std::size_t dlc = 0; dlc < kDlcLengths.size(); ++dlc) {
    formula->parameters.insert(formula->parameters.end(),
                               {static_cast<double>(dlc), static_cast<double>(kDlcLengths[dlc])});
  }
  return formula;
}

}  // namespace

std::shared_ptr<DataGroup> DataGroup::create(const std::shared_ptr<Mdf4File>& file,
                                             std::uint32_t recordsPerBlock, const Define& define) {
  if (file == nullptr) return nullptr;
  Appending appending(*file);
  std::shared_ptr<DataGroup> group(new DataGroup);
  group->file_ = file;
  group->recordsPerBlock_ = recordsPerBlock;
  group->block_ = file->addDataGroup();
  if (group->block_ == nullptr || !group->init() || (define && !define(*group))) return nullptr;
  appending.keep();  // a link that could not be written whole may lead to it
  return file->append(group->block_) ? std::move(group) : nullptr;
}

bool DataGroup::init() {
  std::shared_ptr<CustomCGBlock> channelGroup = block_->addChannelGroup();
  if (channelGroup == nullptr) return false;
  channelGroup_ = std::make_shared<ChannelGroup>(std::move(channelGroup));
  return true;
}

std::shared_ptr<DataGroup> DataGroup::createLike(const DataGroup& model,
                                                 const std::shared_ptr<Mdf4File>& file) {
  return create(file, model.recordsPerBlock_, [&model](DataGroup& group) {
    const ChannelGroup& texts = *model.channelGroup_;
    bool written =
        model.busLog_ == nullptr || group.initBusLog(*model.busLog_, model.maxDataLength_);
    if (model.busLog_ == nullptr && !texts.comment().empty()) {
      written &= group.channelGroup_->setComment(texts.comment());
    }
    if (!texts.acquisitionName().empty()) {
      written &= group.channelGroup_->setAcquisitionName(texts.acquisitionName());
    }
    for (std::size_t i = group.channels_.size(); i < model.channels_.size(); ++i) {
      written &= group.addChannel(model.channels_[i]);
    }
    group.source_ = model.source_;
    group.layoutIsFixed_ = model.layoutIsFixed_;
    return written;
  });
}

bool DataGroup::addChannel(const ChannelInfo& info) {
  if (info.channelType == channel_type::kVlsd) {
    printDiagnostic("[fatal] %s, %d: DataGroup::addChannel: VLSD write is not supported\n",
                    __FILE__, __LINE__);
    return false;
  }
  if (!accepts(info) || runningSize_ + info.byteCount > kMost) return false;
  ChannelInfo channel = info;
  channel.byteOffset = static_cast<std::uint32_t>(runningSize_);
  makeRoom(channels_);
  layout_.add(channel);
  struct Entry {
    RecordLayout* layout;
    ~Entry() {
      if (layout != nullptr) layout->removeLast();
    }
  } entry{&layout_};
  const bool added = channelGroup_->addChannel(channel);
  runningSize_ += channel.byteCount;
  if (!added) return false;
  entry.layout = nullptr;
  recordSize_ = channelGroup_->recordSize();
  sharedLayout_ = nullptr;
  channels_.push_back(std::move(channel));
  return true;
}

bool DataGroup::accepts(const ChannelInfo& info) const {
  const auto refuse = [&](const char* why) {
    printDiagnostic("[fatal] %s, %d: DataGroup::addChannel: \"%s\": %s\n", __FILE__, __LINE__,
                    info.name.c_str(), why);
    return false;
  };
  if (layoutIsFixed_) return refuse("the group has records already");
  if (layout_.find(info.name) != RecordLayout::kNone) {
    return refuse("the group has a channel of this name");
  }
  if (static_cast<std::uint64_t>(std::bit_width(info.bitMask)) >
      std::uint64_t{info.byteCount} * 8) {
    return refuse("its bit mask is wider than its bytes");
  }
  return true;
}

bool DataGroup::initCanBugLog(int maxDataLength) {
  if (initBusLog(kCanDataFrames, maxDataLength)) return true;
  printDiagnostic("[fatal] %s, %d: initCanBugLog failed\n", __FILE__, __LINE__);
  return false;
}

bool DataGroup::initCanErrorLog(int maxDataLength) {
  if (initBusLog(kCanErrorFrames, maxDataLength)) return true;
  printDiagnostic("[fatal] %s, %d: initCanErrorLog failed\n", __FILE__, __LINE__);
  return false;
}

bool DataGroup::initCanFdErrorLog(int maxDataLength) {
  if (initBusLog(kCanFdErrorFrames, maxDataLength)) return true;
  printDiagnostic("[fatal] %s, %d: initCanFdErrorLog failed\n", __FILE__, __LINE__);
  return false;
}

bool DataGroup::initBusLog(const BusLogLayout& layout, int maxDataLength) {
  busLog_ = &layout;
  maxDataLength_ = static_cast<int>(BusLogLayout::payloadSize(maxDataLength));
  return channelGroup_->setFlags(BusLogLayout::kGroupFlags) &&
         channelGroup_->setComment(std::string(layout.group)) && addBusLogChannels();
}

// The time, the parent that fills the rest of the record, and inside it the fields.
bool DataGroup::addBusLogChannels() {
  ChannelInfo parent;
  parent.name = busLog_->group;
  parent.dataType = bus_log::kByteArray;
  parent.byteCount = busLog_->parentSize(maxDataLength_);
  parent.extraFlags = BusLogLayout::kChannelFlags;
  if (!addChannel(timeChannel()) || !addChannel(parent)) return false;
  return std::ranges::all_of(busLog_->channels, [&](const BusLogChannel& channel) {
    ChannelInfo field;
    field.name = busLog_->channelName(channel);
    field.dataType = channel.dataType;
    field.byteOffset = channel.byteOffset;
    field.bitOffset = channel.bitOffset;
    field.bitCount = busLog_->bitCount(channel, maxDataLength_);
    field.extraFlags = BusLogLayout::kChannelFlags;
    if (channel.dlcToLength) field.formula = dlcToLengthFormula();
    return channelGroup_->addComponent(field);
  });
}

bool DataGroup::insertWithWrite(std::uint32_t size, const std::uint8_t* data) {
  if (data == nullptr || size == 0 || size != recordSize_) return false;
  try {
    if (append(size, data)) return true;
  } catch (const std::bad_alloc&) {
    file_->noteWriteError([] { return "no memory for a block of records"; });
  }
  ++lostRecords_;
  return false;
}

bool DataGroup::append(std::uint32_t size, const std::uint8_t* data) {
  if (stream_ == nullptr) {
    stream_ = Mdf4DataStream::create(*file_, *block_,
                                     {std::uint64_t{size} * recordsPerBlock_, busLog_, source_});
    if (stream_ == nullptr) return false;
    fixLayout();
  }
  if (!stream_->write(data, size, nullptr, 0)) return false;
  ++recordCount_;
  return true;
}

bool DataGroup::flush() {
  bool written = true;
  std::uint64_t saved = recordCount_;
  if (stream_ != nullptr) {
    written = stream_->flush();
    saved -= std::min(saved, (stream_->lostBytes() + recordSize_ - 1) / recordSize_);
  }
  lostRecords_ += recordCount_ - saved;
  written &= channelGroup_->setCycleCount(saved);
  if (block_->save(nullptr, m4Block::kSaveAll) != 0) return written;
  printDiagnostic("[fatal] %s, %d: DataGroup::flush Failed\n", __FILE__, __LINE__);
  return false;
}

}  // namespace tolvex
