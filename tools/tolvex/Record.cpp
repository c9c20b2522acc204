// tolvex record: a can-utils log, finished or live, as a bus log.

#include <fmt/format.h>
#include <tolvex/Mdf4.h>
#include <tolvex/MdfEngine.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <array>
#include <charconv>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <map>
#include <memory>
#include <new>
#include <optional>
#include <thread>

#include "CandumpLine.h"
#include "Command.h"
#include "LineInput.h"
#include "Progress.h"
#include "RecordTarget.h"
#include "StopSignals.h"

namespace tolvex {

namespace {

constexpr unsigned kMaxChannel = 254;  // files count from 1, in 8 bits
constexpr std::uint32_t kMinDataLength = 8;
constexpr std::uint32_t kMaxDataLength = 64;
constexpr std::uint64_t kMaxSplitSize = std::uint64_t{1} << 62;
constexpr double kMaxFlushInterval = 86400;  // seconds
constexpr std::uint64_t kMaxComplaints = 20;
constexpr std::chrono::milliseconds kReportPeriod(200);

using ChannelByName = std::map<std::string, std::uint8_t, std::less<>>;

struct RecordOptions {
  std::string log = "-";
  std::string output;
  bool overwrite = false;
  bool async = false;
  std::optional<std::uint32_t> maxDataLength;
  std::uint64_t splitSize = 0;  // bytes; 0: one file
  double flushInterval = 0;     // seconds; 0: never
  std::vector<std::string> channels;
};

// ---------------------------------------------------------------------------------------------
// From lines to frames

// A whole number up to kMaxChannel.
std::optional<std::uint8_t> channelOf(std::string_view digits) {
  unsigned number = 0;
  const char* const end = digits.data() + digits.size();
  const auto [at, error] = std::from_chars(digits.data(), end, number);
  if (error != std::errc() || at != end || number > kMaxChannel) {
    return std::nullopt;
  }
  return static_cast<std::uint8_t>(number);
}

// "NAME=N".
std::optional<std::pair<std::string, std::uint8_t>> channelOption(const std::string& text) {
  const std::size_t equals = text.rfind('=');
  if (equals == std::string::npos || equals == 0) {
    return std::nullopt;
  }
  const auto channel = channelOf(std::string_view(text).substr(equals + 1));
  return channel ? std::optional(std::pair(text.substr(0, equals), *channel)) : std::nullopt;
}

// The bus channels of a log's interfaces, counted from 0: as the options say, else the number that
// the name ends in.
class BusChannels {
 public:
  // Borrows `progress`, which makes room for complaints.
  BusChannels(const std::vector<std::string>& options, std::string log, Progress& progress)
      : log_(std::move(log)), progress_(progress) {
    for (const std::string& option : options) {
      const auto [name, channel] = *channelOption(option);
      chosen_[name] = channel;
    }
  }

  // Nothing when the name has no number that fits.
  std::optional<std::uint8_t> find(std::string_view name) {
    if (!chosen_.empty()) {
      if (const auto found = chosen_.find(name); found != chosen_.end()) {
        return found->second;
      }
    }
    const auto isDigit = [](char c) { return c >= '0' && c <= '9'; };
    const char* digits = name.data() + name.size();
    while (digits != name.data() && isDigit(digits[-1])) {
      --digits;
    }
    const auto channel = channelOf(name.substr(static_cast<std::size_t>(digits - name.data())));
    if (channel && names_[*channel] != name) {
      meet(name, *channel);
    }
    return channel;
  }

 private:
  // Says once for a channel that two interfaces become one.
  void meet(std::string_view name, std::uint8_t channel) {
    std::string& first = names_[channel];
    if (first.empty()) {
      first = name;
    } else if (!merged_[channel]) {
      merged_[channel] = true;
      progress_.clear();
      complain(log_, fmt::format("{} and {} both become bus channel {}; --channel NAME=N tells "
                                 "them apart",
                                 first, name, channel));
    }
  }

  const std::string log_;
  Progress& progress_;
  ChannelByName chosen_;
  std::array<std::string, kMaxChannel + 1> names_;  // the first interface that became the channel
  std::array<bool, kMaxChannel + 1> merged_{};
};

// Makes frames of the library out of lines, each in the place of the one before.
class FrameMaker {
 public:
  explicit FrameMaker(std::uint32_t maxDataLength) : isClassic_(maxDataLength == kMinDataLength) {}

  // `channel` counts from 0, which files do from 1.
  const MdfCanMessage& make(const CandumpLine& line, std::uint8_t channel) {
    message_.Reset();
    message_.BusChannel(static_cast<std::uint8_t>(channel + 1));
    message_.MessageId(line.id);
    // A CAN FD error record keeps 24 bits of the identifier, and this mark in the place of the
    // next.
    message_.ExtendedId(line.error ? line.fd && (line.id >> kFdErrorIdBits & 1) != 0
                                   : line.extended);
    payload_.assign(line.data.begin(), line.data.begin() + line.length);
    message_.DataBytes(payload_);
    if (line.remote || (line.dlc != 0 && isClassic_)) {
      message_.Dlc(line.dlc);
    }
    message_.Edl(line.fd);
    message_.Brs(line.brs);
    message_.Esi(line.esi);
    message_.Rtr(line.remote);
    message_.Dir(line.transmitted);
    return message_;
  }

  static constexpr unsigned kFdErrorIdBits = 24;

 private:
  // Records have room for 8 bytes. In longer ones a code above 8 stands for more, so that a classic
  // frame with such a code would read back as one of CAN FD.
  const bool isClassic_;
  MdfCanMessage message_;
  std::vector<std::uint8_t> payload_;
};

// Whether the record of such a frame holds less than the line states.
bool isCut(const CandumpLine& line, std::uint32_t maxDataLength) {
  if (line.error) {
    return line.fd && line.id >> (FrameMaker::kFdErrorIdBits + 1) != 0;
  }
  return line.length > maxDataLength;
}

// The longest payload of the file's data frames. Only those of CAN FD have more than 8 bytes.
std::uint32_t longestPayload(LineInput& input) {
  std::uint32_t longest = kMinDataLength;
  CandumpLine line;
  std::string_view text;
  while (longest < kMaxDataLength && input.read()) {
    while (input.next(text)) {
      if (text.find("##") != std::string_view::npos && !parseCandumpLine(text, line) &&
          !line.error) {
        longest = std::max<std::uint32_t>(longest, line.length);
      }
    }
  }
  input.rewind();
  return longest;
}

// ---------------------------------------------------------------------------------------------
// From frames to files

// "1 frame", "2 frames".
std::string counted(std::uint64_t count, std::string_view what) {
  return fmt::format("{} {}{}", count, what, count == 1 ? "" : "s");
}

struct RecorderDeleter {
  void operator()(void* recorder) const { deleteRecorder(recorder); }
};

// One recording: takes lines, counts what becomes of them.
class Recording {
 public:
  Recording(const RecordOptions& options, const std::string& log, std::uint32_t maxDataLength)
      : log_(log),
        output_(options.output),
        maxDataLength_(maxDataLength),
        splitSize_(options.splitSize),
        holdsBack_(options.async),
        progress_(options.output),
        channels_(options.channels, log, progress_),
        maker_(maxDataLength),
        recorder_(createRecorder(options.async)) {
    constexpr double kMillisecondsPerSecond = 1000;
    const auto flushInterval =
        static_cast<std::uint32_t>(std::ceil(options.flushInterval * kMillisecondsPerSecond));
    // All that can fail here is an allocation.
    if (recorder_ == nullptr ||
        createBusLogConfiguration(recorder_.get(), 0, static_cast<int>(maxDataLength)) != 0 ||
        setParameter(recorder_.get(), MDF_RECORDER_SPLIT_SIZE, sizeof(options.splitSize),
                     &options.splitSize) != 0 ||
        setOverwrite(recorder_.get(), options.overwrite) != 0 ||
        setFlushInterval(recorder_.get(), flushInterval) != 0) {
      throw std::bad_alloc();
    }
  }

  // Records the line's frame. False when the file cannot be created, said why.
  bool record(std::string_view text, std::uint64_t number) {
    if (text.empty() || text == "\r") {
      return true;
    }
    if (const auto fault = parseCandumpLine(text, line_)) {
      complainOfLine(number, fault->expected, text.substr(fault->at));
      return true;
    }
    const auto channel = channels_.find(line_.interface);
    if (!channel) {
      complainOfLine(number,
                     fmt::format("an interface that ends in a number up to {}, or --channel NAME=N",
                                 kMaxChannel),
                     line_.interface);
      return true;
    }
    if (!started_ && !start()) {
      return false;
    }
    save(maker_.make(line_, *channel));
    return true;
  }

  // For between the lines: says how far it is and what went wrong meanwhile.
  void report(std::uint64_t logSize) {
    const auto now = std::chrono::steady_clock::now();
    if (now < nextReport_) {
      return;
    }
    nextReport_ = now + kReportPeriod;
    if (!complainedOfWriting_ && getLostRecordCount(recorder_.get()) > 0) {
      complainOfWriting();
    }
    compareSplitSize();
    progress_.show(fmt::format("{}, {:.1f} s, {:.1f} MB of log", counted(saved_, "frame"),
                               seconds(), static_cast<double>(logSize) * 1e-6));
  }

  bool isStarted() const { return started_; }
  // Completes the files, says what they hold and what was lost.
  ExitCode finish(const RecordTarget& target);

 private:
  bool start() {
    // To the recorder a time of 0 means now.
    firstUs_ = std::max<std::uint64_t>(line_.timeUs, 1);
    lastUs_ = firstUs_;
    if (startRecord(recorder_.get(), output_.c_str(), firstUs_) != 0) {
      complainOfWriting();
      return false;
    }
    started_ = true;
    return true;
  }

  void save(const MdfCanMessage& message) {
    if (holdsBack_) {
      waitForRoom();
    }
    const auto saveFrame = line_.error ? &saveCanError : &saveCanMessage;
    const bool isSaved = saveFrame(recorder_.get(), line_.timeUs, &message) == 0;
    ++(isSaved ? saved_ : unsaved_);
    errors_ += line_.error && isSaved ? 1 : 0;
    cut_ += isCut(line_, maxDataLength_) && isSaved ? 1 : 0;
    lastUs_ = std::max(lastUs_, line_.timeUs);
  }

  // Says once that the files are full with few frames.
  void compareSplitSize() {
    const std::uint64_t reserved = splitSize_ > 0 ? getReservedSize(recorder_.get()) : 0;
    if (complainedOfSplitSize_ || splitSize_ >= reserved) {
      return;
    }
    complainedOfSplitSize_ = true;
    progress_.clear();
    complain(output_, fmt::format("--split-size {} is less than the {} bytes that each file "
                                  "reserves for its channels and directions: files hold few frames",
                                  splitSize_, reserved));
  }

  // A recorder whose queue is full discards, so nothing is handed to it then. Nobody else fills the
  // queue: once its room is known it is only asked again when that is used up.
  void waitForRoom() {
    constexpr std::chrono::milliseconds kPause(1);
    while (room_ == 0) {
      const std::uint64_t pending = getPendingTaskCount(recorder_.get());
      const std::uint64_t most = getMaxPendingTasks(recorder_.get());
      room_ = most - std::min(most, pending);
      if (room_ == 0) {
        std::this_thread::sleep_for(kPause);
      }
    }
    --room_;
  }

  void complainOfLine(std::uint64_t number, std::string_view expected, std::string_view found) {
    constexpr std::size_t kShown = 40;
    if (++malformed_ > kMaxComplaints) {
      return;
    }
    progress_.clear();
    complain(log_, fmt::format("line {}: expected {}, found {}", number, expected,
                               found.empty() ? "the end of the line"
                                             : fmt::format("\"{}\"", found.substr(0, kShown))));
    if (malformed_ == kMaxComplaints) {
      complain(log_, "further malformed lines are only counted");
    }
  }

  void complainOfWriting() {
    complainedOfWriting_ = true;
    progress_.clear();
    const std::string error = recorderError();  // names the file
    const std::string what = error.empty() ? output_ + ": out of memory" : error;
    // Not fmt::print, which throws when stderr cannot be written either.
    const std::string line = fmt::format("tolvex: {}\n", printable(what));
    std::fwrite(line.data(), 1, line.size(), stderr);
  }

  std::string recorderError() const {
    std::string text(1024, '\0');
    const int length =
        getRecorderError(recorder_.get(), text.data(), static_cast<int>(text.size()));
    text.resize(std::min(text.size() - 1, static_cast<std::size_t>(std::max(length, 0))));
    return text;
  }

  double seconds() const { return static_cast<double>(lastUs_ - firstUs_) * 1e-6; }

  const std::string log_;
  const std::string output_;
  const std::uint32_t maxDataLength_;
  const std::uint64_t splitSize_;  // bytes
  const bool holdsBack_;
  Progress progress_;
  BusChannels channels_;
  FrameMaker maker_;
  CandumpLine line_;
  const std::unique_ptr<void, RecorderDeleter> recorder_;
  std::chrono::steady_clock::time_point nextReport_ =
      std::chrono::steady_clock::now() + kReportPeriod;
  bool started_ = false;
  bool complainedOfWriting_ = false;
  bool complainedOfSplitSize_ = false;
  std::uint64_t room_ = 0;       // frames that the queue has room for at least
  std::uint64_t firstUs_ = 0;    // the recording's start
  std::uint64_t lastUs_ = 0;     // the latest frame
  std::uint64_t saved_ = 0;      // frames that the recorder took
  std::uint64_t errors_ = 0;     // of them error frames
  std::uint64_t cut_ = 0;        // of them longer than their records
  std::uint64_t unsaved_ = 0;    // frames that the recorder did not take
  std::uint64_t malformed_ = 0;  // lines
};

ExitCode Recording::finish(const RecordTarget& target) {
  compareSplitSize();
  stopRecord(recorder_.get(), lastUs_);
  progress_.clear();
  const unsigned files = target.finish();
  const std::uint64_t frames = saved_ + unsaved_;
  const std::uint64_t unwritten =
      std::min(frames, std::max(unsaved_, getLostRecordCount(recorder_.get())));
  const bool isIncomplete = !recorderError().empty();
  if (isIncomplete && !complainedOfWriting_) {
    complainOfWriting();
  }
  std::vector<std::string> losses;
  if (malformed_ > 0) {
    losses.push_back(counted(malformed_, "malformed line"));
  }
  if (cut_ > 0) {
    losses.push_back(counted(cut_, "frame") + " cut to fit the records");
  }
  if (unwritten > 0) {
    losses.push_back(counted(unwritten, "frame") + " not written");
  }
  complain(output_, fmt::format("{} ({}), {:.3f} s, {}{}{}", counted(frames - unwritten, "frame"),
                                counted(errors_, "error frame"), seconds(), counted(files, "file"),
                                losses.empty() ? "" : "; lost: ", fmt::join(losses, ", ")));
  if (unwritten == frames || (isIncomplete && unwritten == 0)) {
    return kFailed;
  }
  return losses.empty() ? kDone : kLost;
}

// Gives the exit code.
int recordLines(LineInput& input, Recording& recording, RecordTarget& target) {
  std::string_view line;
  while (input.read()) {
    while (input.next(line)) {
      if (!recording.record(line, input.lineNumber())) {
        target.abandon();
        return kFailed;
      }
    }
    recording.report(input.size());
  }
  if (!input.good()) {
    complain(input.name(), input.error());
  }
  // A measurement file needs a start time, which is the first frame's. A log without frames is
  // mostly the wrong file or a dead bus, so no file that pretends otherwise is left.
  if (!recording.isStarted()) {
    target.abandon();
    complain(input.name(), "no frames; nothing was recorded");
    return kFailed;
  }
  const ExitCode code = recording.finish(target);
  return code == kDone && !input.good() ? kLost : code;
}

int record(const RecordOptions& options) {
  const bool split = options.splitSize > 0;
  if (split && !canBeSplit(options.output)) {
    complain(options.output, "has no extension, before which the numbers of split files go");
    return kWrongUse;
  }
  if (complainIfStandardOutput(options.output)) {
    return kWrongUse;
  }
  LineInput input;
  if (!input.open(options.log)) {
    complain(input.name(), input.error());
    return kFailed;
  }
  const StopSignals signals;
  input.endAtStop();
  RecordTarget target(options.output);
  const ExitCode code =
      target.claim({.overwrite = options.overwrite, .split = split, .input = input.descriptor()});
  if (code != kDone) {
    return code;
  }
  const std::uint32_t maxDataLength = options.maxDataLength ? *options.maxDataLength
                                      : input.isFile()      ? longestPayload(input)
                                                            : kMaxDataLength;
  Recording recording(options, input.name(), maxDataLength);
  return recordLines(input, recording, target);
}

}  // namespace

void addRecord(CLI::App& app, Command& chosen) {
  const auto options = std::make_shared<RecordOptions>();
  CLI::App* command =
      app.add_subcommand("record", "Record a can-utils log, live or finished, as a bus log");
  command->add_option("LOG", options->log,
                      "The log, as candump -L writes it; by default, and for \"-\", the standard "
                      "input, whose frames are recorded as they arrive");
  command->add_option("-o,--output", options->output, "The measurement file to write")
      ->type_name("OUT")
      ->required();
  addForce(*command, options->overwrite);
  command
      ->add_option("--channel", options->channels,
                   "Record the interface NAME as bus channel N, 0 to 254, which cat prints as "
                   "canN; by default the number that the name ends in; may be given several times")
      ->type_name("NAME=N")
      ->allow_extra_args(false)
      ->check(
          [](const std::string& text) {
            return channelOption(text) ? "" : "not NAME=N with an N up to 254: " + text;
          },
          "");
  command
      ->add_option("--max-data-length", options->maxDataLength,
                   "The payload bytes that a frame's record has room for, 8 to 64; by default "
                   "those of the log's longest frame if it is a file, 64 if it is a stream")
      ->type_name("N")
      ->check(CLI::Range(kMinDataLength, kMaxDataLength).description(""));
  command
      ->add_option("--split-size", options->splitSize,
                   "Go on in a further file, OUT with _1, _2, ... before its extension, whenever "
                   "one has grown beyond so many bytes; k, M and G stand for 1024, 1024 k and "
                   "1024 M. A file reserves a block of 512 frames for each channel and direction; "
                   "a size below that, which is then said, makes a file of every few frames")
      ->type_name("BYTES")
      ->transform(CLI::AsSizeValue(false).description(""))
      ->check(CLI::Range(std::uint64_t{1}, kMaxSplitSize).description(""));
  command
      ->add_option("--flush-interval", options->flushInterval,
                   "Have what was written on the disk every so many seconds, and all of it at the "
                   "end, so that a loss of power costs no more than what came later and the last "
                   "incomplete block of 512 frames of each channel and direction; by default the "
                   "system decides, often after half a minute")
      ->type_name("SECONDS")
      ->check(CLI::Range(0.0, kMaxFlushInterval).description(""));
  command->add_flag(
      "--async", options->async,
      "Write on a thread of its own, so that a slow disk does not delay the reading; all but error "
      "frames then share one group, instead of one per channel and direction");
  command->footer(
      "The recording starts with the first frame's time. It ends with the log, or at SIGINT "
      "(Ctrl-C), SIGTERM or SIGHUP, which complete the file; a second signal ends the program at "
      "once.\n"
      "\n"
      "Lines of the log:\n"
      "  (1436509052.249713) can0 123#DEADBEEF    a frame; 8 digits make an extended identifier\n"
      "  (1436509052.249713) can0 123##1DEADBEEF  CAN FD; 1 bit rate switch, 2 error state\n"
      "  (1436509052.249713) can0 123#R4          a remote frame, here with the length code 4\n"
      "  (1436509052.249713) can0 20000080#00     an error frame: 0x20000000 in the identifier\n"
      "They may end in the direction, R or T. Other lines are reported and left out.\n"
      "\n"
      "tolvex cat prints the lines again, but:\n"
      "- interfaces are named canN, and the direction shows in csv and ndjson only;\n"
      "- times are rounded to microseconds, and frames of equal times may change places;\n"
      "- of the flags of CAN FD, 1 and 2 are kept;\n"
      "- CAN FD payloads whose length has no code are filled with zeros up to the next that has;\n"
      "- a classic frame's length code above 8 is kept only if records have room for just 8 "
      "bytes;\n"
      "- error frames marked as CAN FD lose their flags and the identifier's bits 25 to 28.\n"
      "\n"
      "Exit code 3 if lines were malformed, frames were longer than their records or could not be "
      "written; 1, and no file, if the log has no frames.\n"
      "\n"
      "Examples:\n"
      "  candump -L can0 | tolvex record -o drive.mf4\n"
      "  tolvex record drive.log -o drive.mf4 --channel vcan0=4\n"
      "  candump -L any | tolvex record -o drive.mf4 --async --split-size 512M");
  command->callback([options, &chosen] { chosen = [options] { return record(*options); }; });
}

}  // namespace tolvex
