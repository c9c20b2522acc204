// Records what the input says through the plain functions, and reads it back: every record and
// frame that was accepted is in the file, which no reader finds a fault with.
#include <map>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "fuzz/FuzzInput.h"
#include "tolvex/Mdf4.h"
#include "tolvex/MdfEngine.h"

namespace tolvex::fuzz {
namespace {

constexpr int kTimeGroups = 2;  // of start and stop, in front of the others
constexpr int kMostSteps = 2000;
constexpr std::size_t kMostBytes = std::size_t{1} << 20;
constexpr std::uint64_t kStart = 1'700'000'000'000'000;

struct Freed {
  void operator()(void* handle) const { free(handle); }
  void (*free)(void*);
};
using Handle = std::unique_ptr<void, Freed>;

class Recording {
 public:
  Recording(Numbers input, const std::string& path)
      : input_(input), recorder_(createRecorder(false), Freed{deleteRecorder}) {
    require(startRecord(recorder(), path.c_str(), kStart) == 0, "a file in memory can be created");
  }

  void run() {
    for (int step = 0; step < kMostSteps && !input_.rest().empty(); ++step) {
      switch (input_.next<std::uint8_t>() % 7) {
        case 0:
          ownGroups_.insert(addDataGroup(recorder(), input_.text().c_str()));
          break;
        case 1:
          addChannel();
          break;
        case 2:
        case 3:
          insertFilled();
          break;
        case 4:
          insertBytes();
          break;
        case 5:
          saveFrame();
          break;
        default:
          createBusLogConfiguration(recorder(), 0, input_.next<std::int8_t>());
      }
    }
    stopRecord(recorder(), kStart + 1);
    require(getLostRecordCount(recorder()) == 0, "nothing is lost without a failed write");
  }

  // By group index.
  const std::map<int, std::uint64_t>& records() const { return records_; }
  std::uint64_t frames() const { return frames_; }

 private:
  void* recorder() const { return recorder_.get(); }
  int group() { return input_.next<std::int8_t>(); }

  Handle formula() {
    const auto kind = input_.next<std::uint8_t>();
    Handle formula(allocFormula(kind), Freed{freeFormula});
    for (unsigned entries = input_.next<std::uint8_t>() % 8; entries > 0; --entries) {
      const auto key = input_.next<double>();
      const auto end = input_.next<double>();
      switch (input_.next<std::uint8_t>() % 4) {
        case 0:
          addFormulaParamN2N(formula.get(), key, end);
          break;
        case 1:
          addFormulaParamN2T(formula.get(), key, input_.text().c_str());
          break;
        case 2:
          addFormulaParamR2N(formula.get(), key, end, input_.next<double>());
          break;
        default:
          addFormulaParamR2T(formula.get(), key, end, input_.text().c_str());
      }
    }
    const std::vector<std::uint8_t> parameters(64, input_.next<std::uint8_t>());
    const int size = input_.next<std::uint8_t>() % 64;
    if (kind != 3) setFormulaParam(formula.get(), size, parameters.data());
    const std::string text = input_.text() + std::string(sizeof(double), '\0');
    if (kind == 3) setFormulaParam(formula.get(), 0, text.c_str());
    setFormulaParamDefault(formula.get(), sizeof(double), text.data());
    return formula;
  }

  void addChannel() {
    const Handle channel(allocChannel(), Freed{freeChannel});
    for (const int text : {MDF_CHANNEL_NAME, MDF_CHANNEL_UNIT, MDF_CHANNEL_COMMENT}) {
      setChannelParameter(channel.get(), text, 0, input_.text().c_str());
    }
    const auto number = [&](int parameter, auto value) {
      setChannelParameter(channel.get(), parameter, sizeof value, &value);
    };
    number(MDF_CHANNEL_TYPE, static_cast<std::uint8_t>(input_.next<std::uint8_t>() % 4));
    number(MDF_CHANNEL_SYNC_TYPE, input_.next<std::uint8_t>());
    number(MDF_CHANNEL_DATA_TYPE, input_.next<std::uint8_t>());
    number(MDF_CHANNEL_VALUE_TYPE, input_.next<std::uint8_t>());
    number(MDF_CHANNEL_BYTE_COUNT, std::uint32_t{input_.next<std::uint16_t>()});
    number(MDF_CHANNEL_BIT_MASK, input_.next<std::uint64_t>());
    number(MDF_CHANNEL_LIMIT_MIN, input_.next<double>());
    if (input_.flag()) setChannelFormula(channel.get(), formula().get());
    const int target = group();
    // Records and frames that are there already would be taken apart in another way.
    if (records_[target] != 0 || ownGroups_.count(target) == 0) return;
    addChannelToDG(recorder(), target, channel.get());
  }

  void insertFilled() {
    const int target = group();
    const Handle record(allocRecord(recorder(), target), Freed{freeRecord});
    for (unsigned fields = input_.next<std::uint8_t>() % 4; fields > 0; --fields) {
      const std::string name = input_.text();
      const ByteSpan value = input_.take(input_.next<std::uint8_t>());
      fillRecordData(record.get(), name.c_str(), static_cast<int>(value.size()), value.data());
    }
    if (written_ > kMostBytes) return;
    written_ += sizeof(std::uint64_t) * 4096;
    if (insertRecordToDG(recorder(), target, record.get()) == 0) ++records_[target];
  }

  void insertBytes() {
    const auto target = static_cast<unsigned>(group());
    const ByteSpan bytes = input_.take(input_.next<std::uint8_t>());
    const int size = static_cast<int>(bytes.size());
    if (insertDataToDG(recorder(), target, size, bytes.data()) == 0) {
      ++records_[static_cast<int>(target)];
    }
  }

  void saveFrame() {
    MdfCanMessage message;
    message.BusChannel(input_.next<std::uint8_t>());
    message.MessageId(input_.next<std::uint32_t>());
    message.Edl(input_.flag());
    message.Dir(input_.flag());
    message.Dlc(input_.next<std::uint8_t>());
    const ByteSpan payload = input_.take(input_.next<std::uint8_t>() % 70);
    if (!payload.empty()) message.DataBytes({payload.begin(), payload.end()});
    const auto time = input_.next<std::uint64_t>();
    const bool isError = input_.flag();
    const int result = isError ? saveCanError(recorder(), time, &message)
                               : saveCanMessage(recorder(), time, &message);
    if (result == 0) ++frames_;
  }

  Numbers input_;
  Handle recorder_;
  std::set<int> ownGroups_;
  std::map<int, std::uint64_t> records_;
  std::uint64_t frames_ = 0;
  std::size_t written_ = 0;
};

void readBack(const Recording& recording, const std::string& path) {
  MdfSigReader signals(path);
  signals.setReadAllGroups(true);
  require(signals.open(), "what was recorded opens");
  std::uint64_t stored = 0;
  for (int dg = kTimeGroups; dg < signals.getDGCount(); ++dg) {
    stored += signals.getStoredRecordCount(dg, 0);
    const auto count = static_cast<std::uint64_t>(signals.getRecordCount(dg, 0));
    const auto accepted = recording.records().find(dg - kTimeGroups);
    if (accepted != recording.records().end() && accepted->second != 0) {
      require(count >= accepted->second, "every accepted record counts");
    }
    for (int cn = 0; cn < signals.getCNCount(dg, 0); ++cn) {
      MdfSigCCInfo info;
      require(signals.getCCInfo(dg, 0, cn, info), "every channel can be described");
    }
  }
  require(signals.getProblems().empty(), "a recording has no fault");

  std::uint64_t counted = recording.frames();
  for (const auto& [group, records] : recording.records()) counted += records;
  require(stored == counted, "the file holds what was accepted and nothing else");

  MdfReader frames(path);
  require(frames.open(), "what was recorded opens");
  while (true) {
    const MdfFrame frame = frames.getNext();
    const auto* const message = std::get_if<std::shared_ptr<MdfCanMessage>>(&frame);
    if (message != nullptr && *message == nullptr) break;
  }
  require(frames.getProblems().empty(), "a bus log has no fault");
}

}  // namespace
}  // namespace tolvex::fuzz

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace tolvex::fuzz;
  const MemoryFile file({});
  Recording recording(Numbers({data, size}), file.path());
  recording.run();
  readBack(recording, file.path());
  return 0;
}
