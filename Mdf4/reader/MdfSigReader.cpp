#include <algorithm>
#include <optional>
#include <set>
#include <utility>

#include "Mdf4/base/BitField.h"
#include "Mdf4/model/Text.h"
#include "Mdf4/reader/SignalStreams.h"

namespace tolvex {
namespace {

// Records are read in pieces of about this many bytes, so that what a hostile count asks for is
// only allocated as far as the file really delivers it.
constexpr std::uint64_t kPiece = 256 * 1024;

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
  out.resize(inMemory(std::min<std::uint64_t>(out.size(), total)));
  if (mayBeThere) out.reserve(inMemory(std::min(total, fileSize)));
  for (std::uint64_t done = 0; done < total;) {
    const std::uint64_t piece = std::min(largest, total - done);
    const std::uint64_t at = mayBeThere ? done : 0;
    if (out.size() < at + piece) out.resize(inMemory(at + piece));
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

// The result of `work` with the records of (dg, cg); `none` without them or memory.
template <class Result, class Work>
Result withRecords(SignalStreams& streams, ReaderState& state, int dg, int cg, Result none,
                   Work work) {
  const MutexLock lock(streams.mutex);
  return state.orOutOfMemory(none, [&] {
    streams.mutex.assumeHeld();
    GroupRecords* const records = streams.find(dg, cg);
    return records == nullptr ? none : work(*records);
  });
}

int statedCount(const m4Block* group) {
  if (group == nullptr) return 0;
  const std::uint64_t count = static_cast<const M4CGBlock*>(group)->cg_cycle_count;
  return static_cast<int>(static_cast<std::uint32_t>(count));
}

using Record = std::shared_ptr<MdfSignalRawData>;

Record toRawData(ByteSpan record) {
  if (record.empty()) return nullptr;
  auto data = std::make_shared<MdfSignalRawData>();
  data->data.assign(record.begin(), record.end());
  return data;
}

}  // namespace

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

bool MdfSigReader::open() {
  if (!MdfBaseReader::open()) return false;
  const MutexLock lock(streams_->mutex);
  streams_->clear();
  const bool isOpen = state_->orOutOfMemory(false, [&] {
    streams_->mutex.assumeHeld();
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
  return statedCount(getCGBlock(dg, cg));
}

std::uint64_t MdfSigReader::getStoredRecordCount(int dg, int cg) {
  return withRecords(*streams_, *state_, dg, cg, std::uint64_t{0},
                     [](GroupRecords& records) { return records.cursor.count(); });
}

std::vector<int> MdfSigReader::getDataGroupSigsIndex() {
  const MutexLock lock(streams_->mutex);
  return state_->orOutOfMemory(std::vector<int>(), [&] {
    streams_->mutex.assumeHeld();
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
  return withRecords(*streams_, *state_, dg, cg, Record(), [&](GroupRecords& records) {
    const ByteSpan record = records.next();
    return state_->tree.findTime(dg, cg) == nullptr ? Record() : toRawData(record);
  });
}

std::shared_ptr<MdfSignalRawData> MdfSigReader::readSignalDataByIndex(int dg, int index) {
  return readSignalDataByIndex(dg, -1, index);
}

std::shared_ptr<MdfSignalRawData> MdfSigReader::readSignalDataByIndex(int dg, int cg, int index) {
  return withRecords(*streams_, *state_, dg, cg, Record(), [&](GroupRecords& records) {
    m4DataStream& data = records.cursor.data();
    if (data.merges()) {
      records.cursor.seek(index);
    } else {
      const std::uint32_t product = static_cast<std::uint32_t>(index) * records.cursor.recordSize();
      data.Seek(static_cast<std::uint64_t>(static_cast<std::int32_t>(product)));
    }
    return toRawData(records.next());
  });
}

bool MdfSigReader::readSignalDataBlock(int dg, int start, int count, std::vector<std::uint8_t>& out,
                                       int& recordSize) {
  return readSignalDataBlock(dg, -1, start, count, out, recordSize);
}

bool MdfSigReader::readSignalDataBlock(int dg, int cg, int start, int count,
                                       std::vector<std::uint8_t>& out, int& recordSize) {
  recordSize = 0;
  const bool isRead = withRecords(*streams_, *state_, dg, cg, false, [&](GroupRecords& records) {
    if (start < 0 || count < 1) return false;
    recordSize = static_cast<int>(records.cursor.recordSize());
    return readBlock(records.cursor, start, static_cast<std::uint64_t>(count), state_->file.end(),
                     out);
  });
  if (!isRead) out.clear();
  return isRead;
}

std::pair<double, double> MdfSigReader::readSignalTimeRange(int dg, int cg) {
  std::pair<double, double> range = {0, 0};
  return withRecords(*streams_, *state_, dg, cg, range, [&](GroupRecords& records) {
    MdfSigCCInfo time;
    if (!getTimeCCInfo(dg, cg, time)) return range;
    const int count = statedCount(state_->findGroup(records.dg, records.cg));
    if (readTime(records, 0, time, range.first) == TimeRead::NoRecord) return range;
    readTime(records, std::int64_t{count} - 1, time, range.second);
    return range;
  });
}

int MdfSigReader::findRecordIndexByTime(int dg, int cg, double time) {
  return withRecords(*streams_, *state_, dg, cg, -1, [&](GroupRecords& records) {
    MdfSigCCInfo timeInfo;
    if (!getTimeCCInfo(dg, cg, timeInfo)) return -1;
    const int count = statedCount(state_->findGroup(records.dg, records.cg));
    if (count < 1) return -1;

    double found = 0;
    const TimeRead first = readTime(records, 0, timeInfo, found);
    if (first == TimeRead::NoRecord) return -1;
    if (first == TimeRead::Time && found >= time) return 0;
    const TimeRead last = readTime(records, count - 1, timeInfo, found);
    if (last == TimeRead::NoRecord || (last == TimeRead::Time && time > found)) return -1;
    int low = 0;
    int high = count - 1;
    int result = -1;
    while (low <= high) {
      const int middle = low + (high - low) / 2;
      if (readTime(records, middle, timeInfo, found) != TimeRead::Time) return result;
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
  withRecords(*streams_, *state_, dg, cg, false, [](GroupRecords& records) {
    records.cursor.seek(0);
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
    const MutexLock lock(streams_->mutex);
    return streams_->valuesOf(*state_, *channel).readValue(offset, out);
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
