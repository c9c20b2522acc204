#include <algorithm>
#include <list>
#include <map>
#include <mutex>
#include <optional>
#include <set>
#include <unordered_map>
#include <utility>

#include "Mdf4/base/BitField.h"
#include "Mdf4/reader/ChannelDescription.h"
#include "Mdf4/reader/ReaderState.h"
#include "Mdf4/reader/Text.h"

namespace tolvex {
namespace {

// Records are read in pieces of about this many bytes, so that what a hostile count asks for is
// only allocated as far as the file really delivers it.
constexpr std::uint64_t kPiece = 256 * 1024;

// Groups that were read lately keep what they read ahead and inflated, together so many bytes.
// Not fewer: groups read in turn would inflate a block of some MiB for every record.
constexpr std::uint64_t kMostHeld = 64 << 20;
constexpr std::size_t kMostRecent = 256;

struct GroupRecords {
  int dg;
  int cg;
  RecordCursor cursor;

  // The next record, or nothing when the data end before it does.
  ByteSpan next() {
    const ByteSpan record = cursor.next();
    return record.size() == cursor.recordSize() ? record : ByteSpan();
  }
};

// `count` records from number `start` on, in `out`. False unless all are there; those that are have
// then been read all the same.
bool readBlock(RecordCursor& records, int start, std::uint64_t count, std::uint64_t fileSize,
               std::vector<std::uint8_t>& out) {
  m4DataStream& stream = records.data();
  const std::uint64_t size = records.recordSize();
  const std::uint64_t stored = records.storedSize();
  if (stored == 0) return false;
  const bool mayBeThere = count <= stream.presentSize() / stored;
  const std::uint64_t total = count * size;
  // Merged records come whole, and are small; others may be cut anywhere.
  const std::uint64_t largest = stream.merges() ? std::max(kPiece / size * size, size) : kPiece;
  records.seek(start);
  out.resize(std::min<std::uint64_t>(out.size(), total));
  if (mayBeThere) out.reserve(std::min(total, fileSize));
  for (std::uint64_t done = 0; done < total;) {
    const std::uint64_t piece = std::min(largest, total - done);
    const std::uint64_t at = mayBeThere ? done : 0;
    if (out.size() < at + piece) out.resize(at + piece);
    const auto whole = static_cast<std::uint32_t>(piece / size);
    if (stream.Read(piece, out.data() + at, whole) != piece) return false;
    done += piece;
  }
  return mayBeThere;
}

enum class TimeRead : std::uint8_t { Time, NoTime, NoRecord };

// The time of record `index` in seconds, when it can be read and converted.
TimeRead readTime(GroupRecords& records, std::int64_t index, const MdfSigCCInfo& info,
                  double& time) {
  records.cursor.seek(index);
  const ByteSpan record = records.next();
  if (record.empty()) return TimeRead::NoRecord;
  double converted = 0;
  std::string text;
  if (!info.convertToPhysical(record.data(), record.size(), converted, text)) {
    return TimeRead::NoTime;
  }
  time = converted;
  return TimeRead::Time;
}

bool hasValues(const TreeGroup& group) {
  return std::ranges::find(group.channels, ChannelUse::Value, &TreeChannel::use) !=
         group.channels.end();
}

using Record = std::shared_ptr<MdfSignalRawData>;

Record toRawData(ByteSpan record) {
  if (record.empty()) return nullptr;
  auto data = std::make_shared<MdfSignalRawData>();
  data->data.assign(record.begin(), record.end());
  return data;
}

}  // namespace

// What a signal reader and its copies share.
struct SignalStreams {
  bool readAllGroups = false;
  std::mutex mutex;  // guards all below, and the file while records are read
  std::map<std::pair<int, int>, GroupRecords> records;     // by (dg, cg)
  std::unordered_map<const m4Block*, ChannelTexts> texts;  // by channel
  std::map<const m4Block*, m4DataStream> values;           // of variable-length channels
  std::list<m4DataStream*> recent;                         // last read first

  // What a copy of a reader begins with, as ReaderState::forCopy.
  static std::shared_ptr<SignalStreams> forCopy(const std::shared_ptr<SignalStreams>& streams,
                                                const ReaderState& state);
  void open(ReaderState& state);
  void open(ReaderState& state, int dg, int cg);
  void clear();
  GroupRecords* find(int dg, int cg);
  void keepInMind(m4DataStream& stream);
  // False when the channel is null or was not there when the file was opened.
  bool describe(ReaderState& state, const m4Block* channel, Tables tables,
                MdfSigCCInfo& out) const {
    const auto found = texts.find(channel);
    if (found == texts.end()) return false;
    return state.orOutOfMemory(false, [&] {
      out = describeChannel(static_cast<const M4CNBlock&>(*channel), found->second, tables,
                            state.longestText);
      return true;
    });
  }
};

MdfSigReader::MdfSigReader(const std::string& path)
    : MdfBaseReader(path), streams_(std::make_shared<SignalStreams>()) {}

MdfSigReader::~MdfSigReader() = default;
MdfSigReader::MdfSigReader(const MdfSigReader& other)
    : MdfBaseReader(other), streams_(SignalStreams::forCopy(other.streams_, *other.state_)) {}
MdfSigReader& MdfSigReader::operator=(const MdfSigReader& other) {
  if (this == &other) return *this;
  auto streams = SignalStreams::forCopy(other.streams_, *other.state_);
  // Streams borrow the file that the base part keeps: they go first.
  const std::shared_ptr<ReaderState> before = state_;
  MdfBaseReader::operator=(other);
  streams_ = std::move(streams);
  return *this;
}

void MdfSigReader::setReadAllGroups(bool on) {
  streams_->readAllGroups = on;
}

// Before a stream is read: what the others that were read lately hold in memory is kept up to a
// limit.
void SignalStreams::keepInMind(m4DataStream& stream) {
  if (!recent.empty() && recent.front() == &stream) return;
  recent.remove(&stream);
  recent.push_front(&stream);
  std::uint64_t held = 0;
  for (m4DataStream* const other : recent) {
    if (held > kMostHeld) other->releaseBuffers();
    held += other->heldBytes();
  }
  if (recent.size() > kMostRecent) {
    recent.back()->releaseBuffers();
    recent.pop_back();
  }
}

// The records of (dg, cg), of the first group of dg when cg is negative; null when there are none
// or the file is closed.
GroupRecords* SignalStreams::find(int dg, int cg) {
  const auto found = records.lower_bound({dg, std::max(cg, 0)});
  if (found == records.end() || found->first.first != dg) return nullptr;
  if (cg >= 0 && found->first.second != cg) return nullptr;
  GroupRecords& wanted = found->second;
  if (!wanted.cursor.data().file().isOpen()) return nullptr;
  keepInMind(wanted.cursor.data());
  return &wanted;
}

// Opens the group's records, unless there are none.
void SignalStreams::open(ReaderState& state, int dg, int cg) {
  const std::optional<RecordCursor> cursor = state.openRecords(dg, cg);
  if (cursor) records.emplace(std::pair(dg, cg), GroupRecords{dg, cg, *cursor});
}

std::shared_ptr<SignalStreams> SignalStreams::forCopy(const std::shared_ptr<SignalStreams>& streams,
                                                      const ReaderState& state) {
  if (state.wasOpened) return streams;
  auto own = std::make_shared<SignalStreams>();
  own->readAllGroups = streams->readAllGroups;
  return own;
}

void SignalStreams::clear() {
  recent.clear();
  records.clear();
  values.clear();
  texts.clear();
}

// Opens the records of all groups that are read, and learns what describes the channels.
void SignalStreams::open(ReaderState& state) {
  for (int dg = 0; const TreeDataGroup& data : state.tree.dataGroups()) {
    for (int cg = 0; const TreeGroup& group : data.groups) {
      if (readAllGroups || hasValues(group)) open(state, dg, cg);
      for (const TreeChannel& channel : group.channels) {
        texts.emplace(channel.block.get(), state.texts.load(*channel.block));
      }
      ++cg;
    }
    ++dg;
  }
}

bool MdfSigReader::open() {
  if (!MdfBaseReader::open()) return false;
  const std::lock_guard lock(streams_->mutex);
  streams_->clear();
  const bool isOpen = state_->orOutOfMemory(false, [&] {
    streams_->open(*state_);
    return true;
  });
  if (isOpen) return true;
  streams_->clear();
  state_->file.Close();
  if (errorCallback_) errorCallback_("Failed to open MDF4 file: " + filePath_);
  return false;
}

std::uint64_t MdfSigReader::getStartTime() {
  return state_->startTime;
}
std::uint64_t MdfSigReader::getStopTime() {
  return 0;
}

bool MdfSigReader::isValidSig(int dg, int cg, int cn) {
  return getCNBlock(dg, cg, cn) != nullptr;
}

bool MdfSigReader::isDataType(int dg, int cg, int cn) {
  const auto* const channel = static_cast<const M4CNBlock*>(getCNBlock(dg, cg, cn));
  return channel != nullptr && channel->cn_type == channel_type::kFixedLength;
}

MdfSigAttr MdfSigReader::getSigAttr(int dg, int cg, int cn) {
  const auto* const channel = static_cast<const M4CNBlock*>(getCNBlock(dg, cg, cn));
  if (channel == nullptr) return {};
  MdfSigAttr attributes;
  attributes.name = getCNName(dg, cg, cn);
  attributes.dgIndex = dg;
  attributes.cgIndex = cg;
  attributes.cnIndex = cn;
  attributes.byteOffset = channel->cn_byte_offset;
  attributes.bitCount = channel->cn_bit_count;
  attributes.bitOffset = channel->cn_bit_offset;
  return attributes;
}

bool MdfSigReader::getCCInfo(int dg, int cg, int cn, MdfSigCCInfo& out) {
  return streams_->describe(*state_, getCNBlock(dg, cg, cn), Tables::With, out);
}

bool MdfSigReader::getChannelInfo(int dg, int cg, int cn, MdfSigCCInfo& out) {
  return streams_->describe(*state_, getCNBlock(dg, cg, cn), Tables::Without, out);
}

bool MdfSigReader::getTimeCCInfo(int dg, int cg, MdfSigCCInfo& out) {
  const TreeChannel* const channel = state_->tree.findTime(dg, cg);
  return channel != nullptr && streams_->describe(*state_, channel->block.get(), Tables::With, out);
}

int MdfSigReader::getRecordCount(int dg, int cg) {
  const auto* const group = static_cast<const M4CGBlock*>(getCGBlock(dg, cg));
  return group == nullptr ? 0 : static_cast<int>(static_cast<std::uint32_t>(group->cg_cycle_count));
}

std::uint64_t MdfSigReader::getStoredRecordCount(int dg, int cg) {
  const std::lock_guard lock(streams_->mutex);
  return state_->orOutOfMemory(std::uint64_t{0}, [&] {
    GroupRecords* const records = streams_->find(dg, cg);
    if (records == nullptr) return std::uint64_t{0};
    return records->cursor.count();
  });
}

std::vector<int> MdfSigReader::getDataGroupSigsIndex() {
  const std::lock_guard lock(streams_->mutex);
  return state_->orOutOfMemory(std::vector<int>(), [&] {
    std::set<int> groups;
    for (const auto& entry : streams_->records) groups.insert(entry.first.first);
    return std::vector<int>(groups.begin(), groups.end());
  });
}

std::vector<MdfSigAttr> MdfSigReader::getDataGroupSigs(int /*dg*/) {
  return {};
}

std::vector<std::shared_ptr<MdfSignalRawData>> MdfSigReader::readSignalDatas(int /*dg*/,
                                                                             unsigned /*count*/) {
  return {};
}

std::shared_ptr<MdfSignalRawData> MdfSigReader::readSignalData(int dg) {
  return readSignalData(dg, -1);
}

std::shared_ptr<MdfSignalRawData> MdfSigReader::readSignalData(int dg, int cg) {
  const std::lock_guard lock(streams_->mutex);
  return state_->orOutOfMemory(Record(), [&] {
    GroupRecords* const records = streams_->find(dg, cg);
    if (records == nullptr) return Record();
    const ByteSpan record = records->next();
    if (state_->tree.findTime(dg, cg) == nullptr) return Record();
    return toRawData(record);
  });
}

std::shared_ptr<MdfSignalRawData> MdfSigReader::readSignalDataByIndex(int dg, int index) {
  return readSignalDataByIndex(dg, -1, index);
}

std::shared_ptr<MdfSignalRawData> MdfSigReader::readSignalDataByIndex(int dg, int cg, int index) {
  const std::lock_guard lock(streams_->mutex);
  return state_->orOutOfMemory(Record(), [&] {
    GroupRecords* const records = streams_->find(dg, cg);
    if (records == nullptr) return Record();
    m4DataStream& data = records->cursor.data();
    if (data.merges()) {
      records->cursor.seek(index);
    } else {
      const std::uint32_t product =
          static_cast<std::uint32_t>(index) * records->cursor.recordSize();
      data.Seek(static_cast<std::uint64_t>(static_cast<std::int32_t>(product)));
    }
    return toRawData(records->next());
  });
}

bool MdfSigReader::readSignalDataBlock(int dg, int start, int count, std::vector<std::uint8_t>& out,
                                       int& recordSize) {
  return readSignalDataBlock(dg, -1, start, count, out, recordSize);
}

bool MdfSigReader::readSignalDataBlock(int dg, int cg, int start, int count,
                                       std::vector<std::uint8_t>& out, int& recordSize) {
  const std::lock_guard lock(streams_->mutex);
  recordSize = 0;
  const bool isRead = state_->orOutOfMemory(false, [&] {
    GroupRecords* const records = streams_->find(dg, cg);
    if (records == nullptr || start < 0 || count < 1) return false;
    recordSize = static_cast<int>(records->cursor.recordSize());
    return readBlock(records->cursor, start, static_cast<std::uint64_t>(count), state_->file.end(),
                     out);
  });
  if (!isRead) out.clear();
  return isRead;
}

std::pair<double, double> MdfSigReader::readSignalTimeRange(int dg, int cg) {
  const std::lock_guard lock(streams_->mutex);
  std::pair<double, double> range = {0, 0};
  return state_->orOutOfMemory(range, [&] {
    GroupRecords* const records = streams_->find(dg, cg);
    MdfSigCCInfo time;
    if (records == nullptr || !getTimeCCInfo(dg, cg, time)) return range;
    const M4CGBlock* const group = state_->findGroup(records->dg, records->cg);
    const int count = static_cast<int>(static_cast<std::uint32_t>(group->cg_cycle_count));
    if (readTime(*records, 0, time, range.first) == TimeRead::NoRecord) return range;
    readTime(*records, std::int64_t{count} - 1, time, range.second);
    return range;
  });
}

int MdfSigReader::findRecordIndexByTime(int dg, int cg, double time) {
  const std::lock_guard lock(streams_->mutex);
  return state_->orOutOfMemory(-1, [&] {
    GroupRecords* const records = streams_->find(dg, cg);
    MdfSigCCInfo timeInfo;
    if (records == nullptr || !getTimeCCInfo(dg, cg, timeInfo)) return -1;
    const M4CGBlock* const group = state_->findGroup(records->dg, records->cg);
    const int count = static_cast<int>(static_cast<std::uint32_t>(group->cg_cycle_count));
    if (count < 1) return -1;

    double found = 0;
    switch (readTime(*records, 0, timeInfo, found)) {
      case TimeRead::Time:
        if (found >= time) return 0;
        break;
      case TimeRead::NoTime:
        break;
      case TimeRead::NoRecord:
        return -1;
    }
    switch (readTime(*records, count - 1, timeInfo, found)) {
      case TimeRead::Time:
        if (time > found) return -1;
        break;
      case TimeRead::NoTime:
        break;
      case TimeRead::NoRecord:
        return -1;
    }
    int low = 0;
    int high = count - 1;
    int result = -1;
    while (low <= high) {
      const int middle = low + (high - low) / 2;
      if (readTime(*records, middle, timeInfo, found) != TimeRead::Time) return result;
      if (found >= time) {
        result = middle;
        high = middle - 1;
      } else {
        low = middle + 1;
      }
    }
    return result;
  });
}

void MdfSigReader::resetDataStream(int dg) {
  resetDataStream(dg, -1);
}

void MdfSigReader::resetDataStream(int dg, int cg) {
  const std::lock_guard lock(streams_->mutex);
  state_->orOutOfMemory(false, [&] {
    GroupRecords* const records = streams_->find(dg, cg);
    if (records != nullptr) records->cursor.seek(0);
    return true;
  });
}

bool MdfSigReader::readValueBytes(int dg, int cg, int cn, const std::uint8_t* record,
                                  std::size_t size, std::vector<std::uint8_t>& out) {
  return state_->orOutOfMemory(false, [&] {
    const M4CNBlock* const channel = state_->findChannel(dg, cg, cn);
    if (channel == nullptr) return false;
    const std::uint64_t start = channel->cn_byte_offset;
    const std::uint64_t length = (std::uint64_t{channel->cn_bit_count} + 7) / 8;
    if (start > size || length > size - start) return false;
    if (channel->cn_type != channel_type::kVlsd) {
      out.assign(record + start, record + start + length);
      return true;
    }
    if (length > sizeof(std::uint64_t)) return false;
    const BitField place(channel->cn_byte_offset, 0, static_cast<std::uint32_t>(8 * length));
    const std::uint64_t offset = place.read({record, size});
    const std::lock_guard lock(streams_->mutex);
    auto values = streams_->values.find(channel);
    if (values == streams_->values.end()) {
      values =
          streams_->values.emplace(channel, state_->openStream(channel->link(link::cn_data))).first;
    }
    streams_->keepInMind(values->second);
    return values->second.readValue(offset, out);
  });
}

bool MdfSigReader::readText(int dg, int cg, int cn, const std::uint8_t* record, std::size_t size,
                            std::string& text) {
  return state_->orOutOfMemory(false, [&] {
    const M4CNBlock* const channel = state_->findChannel(dg, cg, cn);
    std::vector<std::uint8_t> bytes;
    return channel != nullptr && isTextType(channel->cn_data_type) &&
           readValueBytes(dg, cg, cn, record, size, bytes) &&
           decodeText(channel->cn_data_type, bytes, text);
  });
}

bool MdfSigReader::isInvalidSample(int dg, int cg, int cn, const std::uint8_t* record,
                                   std::size_t size) {
  const M4CNBlock* const channel = state_->findChannel(dg, cg, cn);
  const M4CGBlock* const group = state_->findGroup(dg, cg);
  if (channel == nullptr || group == nullptr) return false;
  if ((channel->cn_flags & kCnFlagAllInvalid) != 0) return true;
  if ((channel->cn_flags & kCnFlagInvalidBit) == 0) return false;
  return BitField(group->cg_data_bytes, channel->cn_inval_bit_pos, 1).read({record, size}) != 0;
}

}  // namespace tolvex
