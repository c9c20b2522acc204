#include "tests/kill/MixedRecording.h"

#include <algorithm>
#include <chrono>
#include <fstream>
#include <random>
#include <set>
#include <thread>
#include <utility>

#include "Mdf4/MdfAsyncRecorder.h"
#include "Mdf4/format/WorkSizes.h"
#include "tests/support/LoggerFile.h"
#include "tests/support/MemoryFile.h"
#include "tolvex/Mdf4.h"

namespace tolvex::test {
namespace {

constexpr std::uint64_t kStart = 1'700'000'000'000'000;  // microseconds
constexpr std::size_t kTimeGroups = 2;                   // in front of all others
constexpr std::size_t kTimeRecord = 16;                  // bytes; of one that every run has anew
constexpr std::uint64_t kHeaderSize = 24;                // of a block of data

class ObservedFile final : public SystemFile {
 public:
  ObservedFile(std::unique_ptr<SystemFile> inner, std::size_t number, OnWrite onWrite)
      : inner_(std::move(inner)), number_(number), onWrite_(std::move(onWrite)) {}

  bool size(std::uint64_t& bytes) override { return inner_->size(bytes); }
  ReadResult read(std::uint64_t position, std::span<const WritableBytes> pieces) override {
    return inner_->read(position, pieces);
  }
  bool write(std::uint64_t position, std::span<const ByteSpan> pieces) override {
    if (!inner_->write(position, pieces)) return false;
    onWrite_(number_, position, pieces);
    return true;
  }
  bool close() override { return inner_->close(); }
  std::string error() const override { return inner_->error(); }

 private:
  std::unique_ptr<SystemFile> inner_;
  std::size_t number_;
  OnWrite onWrite_;
};

ChannelInfo bytesChannel(const char* name, std::uint32_t bytes) {
  ChannelInfo info;
  info.name = name;
  info.dataType = 10;  // a byte array
  info.byteCount = bytes;
  return info;
}

std::string keyOf(const Bytes& bytes, std::size_t size) {
  return {reinterpret_cast<const char*>(bytes.data()), size};
}

std::string hex(const Bytes& bytes) {
  std::string text;
  for (const std::uint8_t byte : bytes) {
    char digits[8];
    std::snprintf(digits, sizeof digits, " %02x", unsigned{byte});
    text += digits;
  }
  return text;
}

std::string shown(const MdfFinding& finding) {
  return finding.what + " at " + std::to_string(finding.position) + ": expected " +
         finding.expected + ", found " + finding.found;
}

// Without its name, which may be lost alone.
std::string shown(const LoggerChannel& channel) {
  return std::to_string(channel.bitCount) + " bits at " + std::to_string(channel.firstBit);
}

}  // namespace

FileOpener observed(FileOpener inner, OnWrite onWrite) {
  return [inner = std::move(inner), onWrite = std::move(onWrite), number = std::size_t{0}](
             const std::string& path, OpenMode mode, std::string& error) mutable {
    std::unique_ptr<SystemFile> file = inner(path, mode, error);
    if (file == nullptr) return file;
    return std::unique_ptr<SystemFile>(new ObservedFile(std::move(file), number++, onWrite));
  };
}

MixedRecording::MixedRecording(std::uint32_t seed) : seed_(seed) {
  std::mt19937 random(seed);
  const auto below = [&](unsigned limit) { return static_cast<unsigned>(random() % limit); };
  async_ = below(2) == 0;
  splitSize_ = below(2) == 0 ? 0 : (async_ ? 180'000 : 260'000) + below(80'000);
  payloadSize_ = below(3) == 0 ? 16 : 8;
  signalBytes_[0] = 4 + below(12);
  signalBytes_[1] = below(2) == 0 ? signalBytes_[0] : 4 + below(12);
  std::array<unsigned, 10> weights{};  // two of signals, four of frames, two of either error
  for (std::size_t i = 0; i < weights.size(); ++i) weights[i] = 1 + below(i < 2 ? 30 : 6);
  std::uint64_t time = 0;
  const unsigned count = 3000 + below(5000);
  for (unsigned source = 0, i = 0; i < count; ++i) {
    if (below(20) < 15) {  // else a burst goes on
      std::discrete_distribution<unsigned> pick(weights.begin(), weights.end());
      source = pick(random);
    }
    const bool pause = below(count / 4) == 0;
    time += 1 + below(pause ? 1'000'000 : 2000);
    const Source kind = source < 2   ? static_cast<Source>(source)
                        : source < 6 ? kFrames
                        : source < 8 ? kErrors
                                     : kFdErrors;
    steps_.push_back(
        {kind, static_cast<std::uint8_t>(1 + source % 2), source % 4 < 2, pause, time});
  }
}

std::string MixedRecording::description() const {
  return "seed " + std::to_string(seed_) + (async_ ? ": asynchronous" : ": synchronous") +
         ", split at " + std::to_string(splitSize_) + " bytes, payloads of " +
         std::to_string(payloadSize_) + ", signals of " + std::to_string(signalBytes_[0]) +
         " and " + std::to_string(signalBytes_[1]) + ", " + std::to_string(steps_.size()) +
         " records";
}

void MixedRecording::run(const std::string& path, const FileOpener& open) const {
  const std::uint64_t before = recorderSettings.splitSize.exchange(splitSize_);
  std::unique_ptr<MdfRecorder> recorder;
  if (async_) {
    recorder = std::make_unique<MdfAsyncRecorder>(open);
  } else {
    recorder = std::make_unique<MdfRecorder>(open);
  }
  recorder->setMaxCanDataLength(payloadSize_);
  static_cast<void>(recorder->startRecord(path, kStart));
  record(*recorder);
  recorder->stopRecord(kStart + steps_.back().time);
  recorderSettings.splitSize = before;
}

void MixedRecording::record(MdfRecorder& recorder) const {
  int groups[2];
  for (std::size_t i = 0; i < 2; ++i) {
    groups[i] = recorder.addDataGroup(i == 0 ? "signals" : "other signals");
    recorder.addChannel(groups[i], timeChannel());
    recorder.addChannel(groups[i], bytesChannel("n", signalBytes_[i]));
  }
  for (std::uint32_t number = 0; number < steps_.size(); ++number) {
    const Step& step = steps_[number];
    constexpr std::chrono::milliseconds kPause(60);  // longer than lists wait
    if (step.pause) std::this_thread::sleep_for(kPause);
    const Bytes bytes = packed(number, ~number);
    if (step.source <= kOtherSignals) {
      const auto record = recorder.createRecordData(groups[step.source]);
      record->setTime(static_cast<double>(step.time) * 1e-6);
      record->setData("n", sizeof number, bytes.data());
      recorder.insertRecord(*record, groups[step.source]);
    } else if (step.source == kFrames) {
      MdfCanMessage frame;
      frame.MessageId(number % 0x800);
      frame.BusChannel(step.channel);
      frame.Dir(step.direction);
      frame.DataBytes(bytes);
      recorder.saveCanMessage(kStart + step.time, frame);
    } else {
      MdfCanError error;
      error.MessageId(number);
      error.BusChannel(step.channel);
      error.DataBytes(bytes);
      if (step.source == kFdErrors) error.BtrExtCfg(number);
      recorder.saveCanError(kStart + step.time, error);
    }
  }
}

bool LoggedWrite::isA(std::string_view type) const {
  return keyOf(bytes, std::min<std::size_t>(bytes.size(), 4)) == "##" + std::string(type);
}

std::vector<LoggedWrite> logOf(const MixedRecording& recording) {
  std::vector<LoggedWrite> log;
  recording.run(
      "log.mf4",
      observed([](const std::string& /*path*/, OpenMode /*mode*/,
                  std::string& /*error*/) { return std::make_unique<MemoryFile>(); },
               [&](std::size_t file, std::uint64_t position, std::span<const ByteSpan> pieces) {
                 Bytes bytes;
                 for (const ByteSpan& piece : pieces) {
                   bytes.insert(bytes.end(), piece.begin(), piece.end());
                 }
                 log.push_back({file, position, std::move(bytes)});
               }));
  return log;
}

RecoveryCheck::RecoveryCheck(const std::vector<LoggedWrite>& log) {
  const TempDir dir;
  const std::string path = dir.path("whole.mf4");
  std::vector<std::size_t> counts;
  for (auto write = log.begin(); write != log.end();) {
    MemoryFile memory;
    for (const std::size_t file = write->file; write != log.end() && write->file == file; ++write) {
      const ByteSpan bytes(write->bytes);
      memory.write(write->position, std::span(&bytes, 1));
    }
    std::ofstream(path, std::ios::binary)
        .write(reinterpret_cast<const char*>(memory.bytes().data()),
               static_cast<std::streamsize>(memory.bytes().size()));
    const std::vector<LoggerGroup> groups = readLoggerFile(path);
    recordSizes_.resize(std::max(recordSizes_.size(), groups.size()));
    channels_.resize(recordSizes_.size());
    counts.resize(recordSizes_.size());
    for (std::size_t i = kTimeGroups; i < groups.size(); ++i) {
      for (const LoggerChannel& channel : groups[i].channels) channels_[i].insert(shown(channel));
      const std::size_t first = counts[i];
      for (const Bytes& record : groups[i].records) {
        const std::size_t inFile = ++counts[i] - first;
        places_[keyOf(record, record.size())] = {
            i, counts[i] - 1, inFile % 512 == 0 || inFile == groups[i].records.size()};
        recordSizes_[i] = record.size();
      }
    }
  }
}

// Where the record belongs that the bytes start with; null when it was never recorded.
const RecoveryCheck::Place* RecoveryCheck::placeOf(const Bytes& bytes) const {
  for (const std::size_t size : recordSizes_) {
    if (size == 0 || size > bytes.size()) continue;
    const auto found = places_.find(keyOf(bytes, size));
    if (found != places_.end()) return &found->second;
  }
  return nullptr;
}

// Whether it is, but for zeros behind its time, a record that stood last in its block: where a page
// begins in it, nothing tells the zeros of a lost page from its own.
bool RecoveryCheck::endsABlock(const Bytes& record) const {
  constexpr std::size_t kTime = 8;  // bytes
  std::string key = keyOf(record, record.size());
  key.resize(key.find_last_not_of('\0') + 1);
  for (auto found = places_.lower_bound(key);
       found != places_.end() && found->first.starts_with(key); ++found) {
    const Place& place = found->second;
    if (place.endsBlock && found->first.size() == record.size() && key.size() >= kTime) {
      return true;
    }
  }
  return false;
}

std::string RecoveryCheck::faults(const std::string& input, const std::vector<TakenBlock>& taken,
                                  Allowed allowed) const {
  const TempDir dir;
  const std::string output = dir.path("recovered.mf4");
  WorkSizes sizes;
  if (allowed == Allowed::LostPages) sizes.piece = 8192;  // so that pages are lost at their ends
  const MdfRecoveryReport report = recoverFile(input, output, {}, sizes);
  if (!report.failure.empty()) return taken.empty() ? "" : "nothing comes back: " + report.failure;
  const MdfCheckReport check = checkFile(output);
  for (const MdfFinding& finding : check.findings) {
    if (finding.error) return "the result is not sound: " + shown(finding);
  }
  if (!check.failure.empty()) return "the result cannot be checked: " + check.failure;

  const std::vector<LoggerGroup> groups = readLoggerFile(output);
  if (groups.size() != report.groups.size()) return "another number of groups is reported";
  std::set<std::pair<std::size_t, std::size_t>> back;
  std::set<std::size_t> known;  // groups that have come
  for (std::size_t i = 0; i < groups.size(); ++i) {
    const std::string group = "group " + std::to_string(i) + ": ";
    const auto dg = static_cast<std::size_t>(report.groups[i].dgIndex);
    if (groups[i].records.size() != report.groups[i].records) return group + "miscounted";
    const bool isTime = groups[i].records.size() == 1 &&
                        groups[i].records[0].size() == kTimeRecord &&
                        (dg < kTimeGroups || allowed == Allowed::LostPages);
    // Lost groups leave others their numbers: which group it is, its first record tells.
    const Place* before = nullptr;
    for (const Bytes& record : groups[i].records) {
      const auto found = places_.find(keyOf(record, record.size()));
      if (found == places_.end() && (isTime || allowed == Allowed::DamagedBlocks)) continue;
      if (found == places_.end() && allowed == Allowed::LostPages && endsABlock(record)) continue;
      if (found == places_.end()) return group + "a record that was never recorded:" + hex(record);
      const Place& place = found->second;
      const std::string which = group + "record " + std::to_string(place.number) + " of group " +
                                std::to_string(place.group);
      if (!back.emplace(place.group, place.number).second) return which + " twice";
      const std::size_t owner = allowed != Allowed::LostPages ? dg
                                : before != nullptr           ? before->group
                                                              : place.group;
      if (place.group != owner) return which + " in group " + std::to_string(owner);
      if (before == nullptr && !known.insert(place.group).second) return which + " apart";
      if (before != nullptr && place.number < before->number) return which + " not in order";
      if (before != nullptr && allowed == Allowed::Nothing && place.number != before->number + 1) {
        return which + " behind a gap";
      }
      before = &place;
    }
    if (before == nullptr) continue;
    for (const LoggerChannel& channel : groups[i].channels) {
      if (!channels_[before->group].contains(shown(channel))) {
        return group + "a channel that group " + std::to_string(before->group) +
               " has not: " + shown(channel);
      }
    }
  }

  std::ifstream in(input, std::ios::binary);
  for (const TakenBlock& block : taken) {
    Bytes bytes(inMemory(block.size - kHeaderSize));
    in.seekg(static_cast<std::streamoff>(block.position + kHeaderSize));
    in.read(reinterpret_cast<char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
    if (bytes.size() == kTimeRecord) continue;
    const std::string name = "the block at " + std::to_string(block.position);
    const Place* const place = placeOf(bytes);
    if (place == nullptr) return name + " was never recorded";
    for (std::size_t i = 0; i < bytes.size() / recordSizes_[place->group]; ++i) {
      if (!back.contains({place->group, place->number + i})) {
        return name + " of group " + std::to_string(place->group) + " is lost";
      }
    }
  }
  return "";
}

}  // namespace tolvex::test
