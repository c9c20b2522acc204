// Records what the input says with the asynchronous recorder into files in memory, and holds what
// they contain against what was accepted: nothing is lost, twice or out of order.
#include <algorithm>
#include <atomic>
#include <chrono>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "Mdf4/MdfAsyncRecorder.h"
#include "fuzz/FuzzInput.h"
#include "tests/support/RecordedFile.h"
#include "tolvex/Mdf4.h"

namespace tolvex::fuzz {
namespace {

using test::Bytes;
using test::RecordedFile;
using test::RecordedGroup;

constexpr std::size_t kTimeGroups = 2;  // of start and stop, in front of the others
constexpr int kMostSteps = 300;
constexpr std::size_t kMostGroups = 6;  // each file reserves 512 records for each
constexpr std::size_t kMostFiles = 10;  // of a recording that is split
constexpr std::uint64_t kStart = 1'700'000'000'000'000;

// Opens files that are kept in memory, in the order in which they were made.
class Disk {
 public:
  FileOpener opener() {
    return [this](const std::string& /*path*/, OpenMode /*mode*/, std::string& error) {
      files_.push_back(std::make_unique<MemoryFile>(ByteSpan()));
      ++count_;
      return openSystemFile(files_.back()->path(), OpenMode::Update, error);
    };
  }
  std::size_t count() const { return count_; }
  // While nobody records.
  const std::vector<std::unique_ptr<MemoryFile>>& files() const { return files_; }
  void clear() {
    files_.clear();
    count_ = 0;
  }

 private:
  std::vector<std::unique_ptr<MemoryFile>> files_;
  std::atomic<std::size_t> count_ = 0;
};

// What was accepted of one recording.
struct Accepted {
  struct Group {
    Bytes queued;  // the bytes of records that went through the queue, in order
    Bytes direct;  // of those that went past it
  };
  std::map<int, Group> groups;  // those of the input; others are the recorder's own, for frames
  std::multiset<std::uint32_t> messages;  // identifiers
  std::size_t errors = 0;
};

class Recording {
 public:
  explicit Recording(Numbers input) : input_(input), recorder_(disk_.opener()) {}

  void run() {
    recorderSettings.splitSize = 0;
    recorderSettings.maxPendingTasks = 10000;
    start();
    for (int step = 0; step < kMostSteps && !input_.rest().empty(); ++step) takeStep();
    stop();
  }

 private:
  void start() {
    disk_.clear();
    accepted_ = {};
    require(recorder_.startRecord("log.mf4", kStart) == 0, "a file in memory can be created");
  }

  void stop() {
    recorder_.stopRecord(kStart + 1);
    require(recorder_.lostRecords() == 0 && recorder_.firstError().empty(),
            "nothing is lost without a failed write");
    require(recorder_.pendingTasks() == 0, "nothing waits in a recorder that was stopped");
    MdfCanMessage message;
    require(!recorder_.saveCanMessage(kStart, message) && recorder_.addDataGroup("") == -1,
            "a recorder that was stopped takes nothing");
    readBack();
  }

  void takeStep() {
    if (disk_.count() > kMostFiles) recorderSettings.splitSize = 0;
    switch (input_.next<std::uint8_t>() % 16) {
      case 0:
        addGroup();
        break;
      case 1:
      case 2:
        addChannel();
        break;
      case 3:
      case 4:
      case 5:
      case 6:
        insertRecord();
        break;
      case 7:
        insertBytes();
        break;
      case 8:
      case 9:
      case 10:
        saveMessage();
        break;
      case 11:
        saveError();
        break;
      case 12:
        if (accepted_.messages.empty()) recorder_.setMaxCanDataLength(input_.next<std::int8_t>());
        break;
      case 13:
        recorderSettings.splitSize = std::uint64_t{input_.next<std::uint8_t>()} << 11;
        break;
      case 14:
        recorderSettings.maxPendingTasks = 1U + input_.next<std::uint8_t>();
        recorder_.setFlushInterval(std::chrono::milliseconds(input_.next<std::uint8_t>() % 3));
        recorder_.setDataGroupComment(input_.next<std::int8_t>(), input_.text());
        recorder_.setAcquisitionName(input_.next<std::int8_t>(), input_.text());
        break;
      default:
        stop();
        start();
    }
  }

  void addGroup() {
    if (accepted_.groups.size() >= kMostGroups) return;
    const int index = recorder_.addDataGroup(input_.text());
    require(index >= 0 && accepted_.groups.try_emplace(index).second, "a group has its own index");
  }

  int someGroup() {
    const std::size_t number = input_.next<std::uint8_t>();
    if (accepted_.groups.empty()) return -1;
    return std::next(accepted_.groups.begin(),
                     static_cast<std::ptrdiff_t>(number % accepted_.groups.size()))
        ->first;
  }

  static bool isEmpty(const Accepted::Group& group) {
    return group.queued.empty() && group.direct.empty();
  }

  void addChannel() {
    const int group = someGroup();
    ChannelInfo channel = timeChannel();
    const auto number = input_.next<std::uint8_t>();
    if (number % 4 != 0) {
      channel = {};
      channel.name = std::string(1, static_cast<char>('a' + number % 16));
      channel.byteCount = number % 32;
      channel.dataType = 10;
    }
    // What is there already would be taken apart in another way.
    if (group >= 0 && isEmpty(accepted_.groups[group])) recorder_.addChannel(group, channel);
  }

  void insertRecord() {
    const int group = someGroup();
    const std::unique_ptr<RecordData> record = recorder_.createRecordData(group);
    require((record != nullptr) == (group >= 0), "a group has records");
    const auto time = input_.next<float>();
    const auto channel = static_cast<char>('a' + input_.next<std::uint8_t>() % 16);
    const ByteSpan value = input_.take(input_.next<std::uint8_t>() % 32);
    if (record == nullptr || record->size() == 0) return;
    record->setTime(time);
    record->setData({&channel, 1}, static_cast<std::uint32_t>(value.size()), value.data());
    if (!recorder_.insertRecord(*record, group)) return;
    Bytes& bytes = accepted_.groups[group].queued;
    bytes.insert(bytes.end(), record->data(), record->data() + record->size());
  }

  void insertBytes() {
    const int group = someGroup();
    const ByteSpan bytes = input_.take(input_.next<std::uint8_t>());
    if (group < 0 || bytes.empty()) return;
    if (input_.flag()) return insertMany(group, bytes);
    if (!recorder_.insertData(static_cast<std::uint32_t>(group),
                              static_cast<std::uint32_t>(bytes.size()), bytes.data())) {
      return;
    }
    Bytes& direct = accepted_.groups[group].direct;
    direct.insert(direct.end(), bytes.begin(), bytes.end());
  }

  // The record over and over. Of another size than the group's, it would be lost.
  void insertMany(int group, ByteSpan record) {
    const std::unique_ptr<RecordData> model = recorder_.createRecordData(group);
    const std::uint64_t count = input_.next<std::uint16_t>() % 2000;
    if (model->size() != record.size()) return;
    Bytes records;
    for (std::uint64_t i = 0; i < count; ++i) {
      records.insert(records.end(), record.begin(), record.end());
    }
    std::uint64_t taken = 0;
    require(recorder_.insertRecords(static_cast<std::uint32_t>(group), count, model->size(),
                                    records.data(), taken),
            "a group takes its records");
    Bytes& queued = accepted_.groups[group].queued;
    queued.insert(queued.end(), records.begin(),
                  records.begin() + static_cast<std::ptrdiff_t>(taken * record.size()));
  }

  MdfCanMessage someMessage() {
    MdfCanMessage message;
    message.BusChannel(input_.next<std::uint8_t>() % 2);
    message.MessageId(input_.next<std::uint32_t>() & 0x1FFFFFFF);
    message.Edl(input_.flag());
    message.Dir(input_.flag());
    const ByteSpan payload = input_.take(input_.next<std::uint8_t>() % 70);
    message.DataBytes(payload.data(), payload.size());
    return message;
  }

  void saveMessage() {
    const MdfCanMessage message = someMessage();
    if (recorder_.saveCanMessage(kStart + input_.next<std::uint32_t>(), message)) {
      accepted_.messages.insert(message.CanId());
    }
  }

  void saveError() {
    const MdfCanMessage message = someMessage();
    const std::uint64_t time = kStart + input_.next<std::uint32_t>();
    bool saved = false;
    if (input_.flag()) {
      MdfCanError error;
      error.BusChannel(message.BusChannel());
      error.MessageId(message.MessageId());
      saved = recorder_.saveCanError(time, error);
    } else {
      saved = recorder_.saveCanError(time, message);
    }
    accepted_.errors += saved ? 1 : 0;
  }

  void readBack() const {
    std::map<int, Bytes> stored;
    std::map<int, std::size_t> recordSizes;
    std::size_t frames = 0;
    std::multiset<std::uint32_t> messages;
    for (const auto& disk : disk_.files()) {
      const RecordedFile file(disk->path());
      require(file.groups.size() >= kTimeGroups, "a recording has its times");
      for (std::size_t i = kTimeGroups; i < file.groups.size(); ++i) {
        const RecordedGroup& group = file.groups[i];
        const std::size_t records = group.records().size();
        require(group.cg.cg_cycle_count == records, "a group counts its records");
        const int index = static_cast<int>(i - kTimeGroups);
        if (accepted_.groups.count(index) == 0) {
          frames += records;
          continue;
        }
        recordSizes[index] = group.cg.cg_data_bytes;
        stored[index].insert(stored[index].end(), group.bytes.begin(), group.bytes.end());
      }
      readFrames(disk->path(), messages);
    }
    for (const auto& [index, group] : accepted_.groups) {
      requireSame(group, stored[index], recordSizes[index]);
    }
    require(frames == accepted_.messages.size() + accepted_.errors, "each frame has a record");
    require(messages == accepted_.messages, "each frame that was accepted is there once");
  }

  // Records that went past the queue may stand anywhere among the others.
  static void requireSame(const Accepted::Group& accepted, const Bytes& stored, std::size_t size) {
    if (accepted.direct.empty() || accepted.queued.empty()) {
      require(stored == (accepted.direct.empty() ? accepted.queued : accepted.direct),
              "a group has the records that were accepted, in their order");
      return;
    }
    const auto sorted = [size](const Bytes& bytes, std::vector<Bytes> records) {
      for (auto at = bytes.begin(); at != bytes.end(); at += static_cast<std::ptrdiff_t>(size)) {
        records.emplace_back(at, at + static_cast<std::ptrdiff_t>(size));
      }
      std::sort(records.begin(), records.end());
      return records;
    };
    Bytes all = accepted.queued;
    all.insert(all.end(), accepted.direct.begin(), accepted.direct.end());
    require(all.size() == stored.size() && sorted(all, {}) == sorted(stored, {}),
            "a group has the records that were accepted");
  }

  static void readFrames(const std::string& path, std::multiset<std::uint32_t>& messages) {
    MdfReader reader(path);
    require(reader.open(), "what was recorded opens");
    while (true) {
      const MdfFrame frame = reader.getNext();
      const auto* const message = std::get_if<std::shared_ptr<MdfCanMessage>>(&frame);
      if (message == nullptr) continue;
      if (*message == nullptr) break;
      messages.insert((*message)->CanId());
    }
    require(reader.getProblems().empty(), "a bus log has no fault");
  }

  Numbers input_;
  Disk disk_;
  MdfAsyncRecorder recorder_;
  Accepted accepted_;
};

}  // namespace
}  // namespace tolvex::fuzz

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace tolvex::fuzz;
  Recording(Numbers({data, size})).run();
  return 0;
}
