#include <algorithm>
#include <set>
#include <utility>

#include "Mdf4/can/BusLogGroups.h"
#include "Mdf4/can/FrameMerge.h"
#include "Mdf4/reader/ReaderState.h"

namespace tolvex {
namespace {

bool isEmpty(const MdfFrame& frame) {
  return std::visit([](const auto& pointer) { return pointer == nullptr; }, frame);
}

// The next frame when it is of kind `Wanted`. One of the other kind is put into `stash`.
template <class Wanted, class Other>
std::shared_ptr<Wanted> nextOf(FrameMerge& merge, std::shared_ptr<Other>& stash) {
  MdfFrame frame = merge.next();
  if (isEmpty(frame)) return nullptr;
  if (auto* const wanted = std::get_if<std::shared_ptr<Wanted>>(&frame)) return std::move(*wanted);
  stash = std::get<std::shared_ptr<Other>>(std::move(frame));
  return nullptr;
}

}  // namespace

MdfReader::MdfReader(const std::string& path)
    : MdfBaseReader(path), merge_(std::make_unique<FrameMerge>()) {}

MdfReader::~MdfReader() = default;

MdfReader::MdfReader(const MdfReader& other)
    : MdfBaseReader(other), merge_(std::make_unique<FrameMerge>(*other.merge_)) {}

MdfReader& MdfReader::operator=(const MdfReader& other) {
  if (this == &other) return *this;
  // Streams borrow the file that the base part keeps: they go first.
  merge_ = std::make_unique<FrameMerge>(*other.merge_);
  MdfBaseReader::operator=(other);
  return *this;
}

std::uint64_t MdfReader::getStartTime() {
  return state_->startTime;
}

std::uint64_t MdfReader::getStopTime() {
  return state_->orOutOfMemory(std::uint64_t{0}, [&] {
    std::uint64_t latest = 0;
    std::pair<int, int> last = {-1, -1};
    for (const MdfCNInfo& channel : busLogChannels(*state_, merge_->requireFields)) {
      // The channels of a group come one after the other, and share its records and its time.
      if (std::exchange(last, {channel.dgIndex, channel.cgIndex}) == last) continue;
      const M4CGBlock* const group = state_->findGroup(channel.dgIndex, channel.cgIndex);
      auto records = state_->openRecords(channel.dgIndex, channel.cgIndex);
      if (!records || !isFrameRecordSize(channel.recordSize)) continue;
      records->seek(static_cast<std::int64_t>(group->cg_cycle_count - 1));
      const ByteSpan record = records->next();
      if (record.empty()) continue;
      latest = std::max(latest, frameTimeOf(*state_, channel).cutOff(record).value_or(0));
    }
    return latest;
  });
}

std::vector<MdfGroupInfo> MdfReader::getBusLogGroups() {
  return state_->orOutOfMemory(std::vector<MdfGroupInfo>(), [&] {
    std::set<std::pair<int, int>> groups;
    for (const MdfCNInfo& channel : busLogChannels(*state_, merge_->requireFields)) {
      groups.emplace(channel.dgIndex, channel.cgIndex);
    }
    std::vector<MdfGroupInfo> infos;
    for (const auto& [dg, cg] : groups) {
      MdfGroupInfo info;
      if (getGroupInfo(dg, cg, info)) infos.push_back(std::move(info));
    }
    return infos;
  });
}

std::uint32_t MdfReader::getCanCount() {
  return state_->orOutOfMemory(std::uint32_t{0}, [&] {
    std::uint32_t count = 0;
    for (const MdfCNInfo& channel : busLogChannels(*state_, merge_->requireFields)) {
      const M4CGBlock* const group = state_->findGroup(channel.dgIndex, channel.cgIndex);
      if (group != nullptr) count += static_cast<std::uint32_t>(group->cg_cycle_count);
    }
    return count;
  });
}

MdfFrame MdfReader::getNext() {
  return state_->orOutOfMemory(MdfFrame(), [&] {
    merge_->initCanStream(*state_);
    return merge_->next();
  });
}

std::shared_ptr<MdfCanMessage> MdfReader::getCanMessage() {
  return state_->orOutOfMemory(std::shared_ptr<MdfCanMessage>(), [&] {
    merge_->initCanStream(*state_);
    if (merge_->stashedMessage != nullptr) return std::exchange(merge_->stashedMessage, nullptr);
    return nextOf<MdfCanMessage>(*merge_, merge_->stashedError);
  });
}

std::shared_ptr<MdfCanError> MdfReader::getCanError() {
  return state_->orOutOfMemory(std::shared_ptr<MdfCanError>(), [&] {
    merge_->initCanStream(*state_);
    if (merge_->stashedError != nullptr) return std::exchange(merge_->stashedError, nullptr);
    return nextOf<MdfCanError>(*merge_, merge_->stashedMessage);
  });
}

std::vector<std::shared_ptr<MdfCanMessage>> MdfReader::getCanMessages(unsigned n) {
  std::vector<std::shared_ptr<MdfCanMessage>> messages;
  while (messages.size() < n) {
    auto message = getCanMessage();
    if (message == nullptr) break;
    const bool isKept = state_->orOutOfMemory(false, [&] {
      messages.push_back(message);
      return true;
    });
    if (isKept) continue;
    merge_->stashedMessage = std::move(message);  // for the next call
    break;
  }
  return messages;
}

std::int64_t MdfReader::getSignedTimestampNsFromVariant(const MdfFrame& frame) {
  return std::visit(
      [](const auto& pointer) {
        return pointer == nullptr ? 0 : static_cast<std::int64_t>(pointer->Timestamp());
      },
      frame);
}

void MdfReader::setPayloadByDlc(bool on) {
  merge_->payloadByDlc = on;
}
void MdfReader::setRequireFields(bool on) {
  merge_->requireFields = on;
}
void MdfReader::setLoggerRules(bool on) {
  state_->loggerRules = on;
}

}  // namespace tolvex
