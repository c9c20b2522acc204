// tolvex cat: the CAN frames of a bus log, in time order.

#include <fmt/format.h>
#include <tolvex/MdfFrameReader.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <charconv>
#include <limits>
#include <memory>
#include <optional>
#include <string_view>

#include "Command.h"
#include "FrameText.h"
#include "Mdf4/base/System.h"
#include "StopSignals.h"
#include "TimeArgument.h"

namespace tolvex {

namespace {

constexpr std::int64_t kSecondNs = 1'000'000'000;

enum class Clock { AsRecorded, Utc, Local };

struct CatOptions {
  std::vector<std::string> files;
  bool parts = false;
  std::string format = "candump";
  std::vector<std::string> ids;
  std::vector<std::string> buses;
  std::optional<TimeArgument> start;
  std::optional<TimeArgument> end;
  Clock clock = Clock::AsRecorded;
  std::string output;
  bool force = false;
  std::optional<std::uint64_t> maxOutput;  // bytes
};

FrameFormat formatOf(const std::string& name) {
  return name == "csv"      ? FrameFormat::Csv
         : name == "ndjson" ? FrameFormat::Ndjson
                            : FrameFormat::Candump;
}

// A number, decimal or hexadecimal with 0x in front, up to `largest`.
std::optional<std::uint32_t> parseNumber(std::string_view text, std::uint32_t largest) {
  const bool isHex = text.starts_with("0x") || text.starts_with("0X");
  const char* const begin = text.data() + (isHex ? 2 : 0);
  const char* const end = text.data() + text.size();
  std::uint32_t number = 0;
  const auto [stop, error] = std::from_chars(begin, end, number, isHex ? 16 : 10);
  if (error != std::errc() || stop != end || number > largest) {
    return std::nullopt;
  }
  return number;
}

std::optional<std::uint32_t> parseId(const std::string& text) {
  constexpr std::uint32_t kMostId = 0x1FFFFFFF;
  return parseNumber(text, kMostId);
}

// A bus channel as the file counts them, or as candump names it.
std::optional<std::uint32_t> parseBus(const std::string& text) {
  constexpr std::uint32_t kMostBus = 0xFFFF;
  if (!text.starts_with("can")) {
    return parseNumber(text, kMostBus);
  }
  const auto interface = parseNumber(std::string_view(text).substr(3), kMostBus - 1);
  return interface ? std::optional(*interface + 1) : std::nullopt;
}

// How times in the file are on other clocks.
struct Clocks {
  std::int64_t toUtcNs = 0;  // 0 unless the file has the time of a place that it does not tell
  std::int64_t toShownNs = 0;

  static Clocks of(const MdfFrameReader& reader, Clock shown) {
    const std::int64_t system = -std::int64_t{timeZoneSeconds()} * kSecondNs;
    const std::int64_t place = std::int64_t{reader.utcOffsetMinutes()} * 60 * kSecondNs;
    Clocks clocks;
    clocks.toUtcNs = reader.startIsLocal() ? -system : 0;
    if (shown == Clock::Utc) {
      clocks.toShownNs = clocks.toUtcNs;
    } else if (shown == Clock::Local && !reader.startIsLocal()) {
      clocks.toShownNs = place != 0 ? place : system;
    }
    return clocks;
  }
};

// The sum, or the end of what 64 bits have.
std::int64_t saturatedSum(std::int64_t a, std::int64_t b) {
  std::int64_t sum = 0;
  if (!__builtin_add_overflow(a, b, &sum)) {
    return sum;
  }
  return b < 0 ? std::numeric_limits<std::int64_t>::min()
               : std::numeric_limits<std::int64_t>::max();
}

// The time as the file counts it.
std::int64_t fileTimeOf(const TimeArgument& time, const MdfFrameReader& reader,
                        const Clocks& clocks) {
  switch (time.from) {
    case TimeArgument::From::Start:
      return saturatedSum(reader.startTimeNs(), time.ns);
    case TimeArgument::From::Clock:
      return saturatedSum(time.ns, -clocks.toShownNs);
    case TimeArgument::From::Utc:
      return saturatedSum(time.ns, -clocks.toUtcNs);
  }
  return time.ns;
}

MdfFrameFilter filterOf(const CatOptions& options, const MdfFrameReader& reader,
                        const Clocks& clocks) {
  MdfFrameFilter filter;
  for (const std::string& id : options.ids) {
    filter.ids.push_back(parseId(id).value_or(0));
  }
  for (const std::string& bus : options.buses) {
    filter.buses.push_back(static_cast<std::uint16_t>(parseBus(bus).value_or(0)));
  }
  if (options.start) {
    filter.startNs = fileTimeOf(*options.start, reader, clocks);
  }
  if (options.end) {
    filter.endNs = fileTimeOf(*options.end, reader, clocks);
  }
  return filter;
}

struct FrameCounts {
  std::uint64_t written = 0;
  std::uint64_t withoutPayload = 0;
};

FrameCounts writeFrames(MdfFrameReader& reader, const MdfFrameFilter& filter, FrameText& text,
                        const Output& out) {
  FrameCounts counts;
  for (const MdfFrameView& frame : reader.frames(filter)) {
    text.write(frame);
    ++counts.written;
    counts.withoutPayload += frame.isPayloadMissing() ? 1 : 0;
    if (!out.good()) {
      break;
    }
  }
  return counts;
}

// Says which bus events the files hold beside their frames.
void tellOfOtherEvents(const MdfFrameReader& reader, const std::string& label) {
  for (const MdfFrameGroup& group : reader.groups()) {
    if (!group.isRead && group.statedRecords > 0) {
      complain(label, fmt::format("{:.100}: {} records are no CAN data, remote or error frames",
                                  group.name.empty() ? "a group without a name" : group.name,
                                  group.statedRecords));
    }
  }
}

// Says why nothing was found of what was asked for.
void tellOfNothing(const CatOptions& options, MdfFrameReader& reader, const MdfFrameFilter& filter,
                   const std::string& label) {
  std::int64_t firstNs = 0;
  std::int64_t lastNs = 0;
  if (!reader.timeRange(firstNs, lastNs)) {
    return;
  }
  const bool hasTime = options.start || options.end;
  const bool isOutside = filter.startNs > lastNs || filter.endNs <= firstNs;
  if (hasTime && (isOutside || (filter.ids.empty() && filter.buses.empty()))) {
    const auto seconds = [&](std::int64_t timeNs) {
      return 1e-9 * static_cast<double>(saturatedSum(timeNs, -reader.startTimeNs()));
    };
    complain(label, fmt::format("no frames in that time; the recording has them from {:.6f} "
                                "to {:.6f} s",
                                seconds(firstNs), seconds(lastNs)));
  } else if (!filter.ids.empty() || !filter.buses.empty()) {
    complain(label, hasTime ? "no such frames in that time" : "no such frames");
  }
}

std::uint64_t countPromised(const MdfFrameReader& reader) {
  std::uint64_t count = 0;
  for (const MdfFrameGroup& group : reader.groups()) {
    const std::uint64_t more = group.isRead ? group.statedRecords : 0;
    count += std::min(more, std::numeric_limits<std::uint64_t>::max() - count);
  }
  return count;
}

// What is left to do when the frames are written: closing the output and saying what is amiss.
int finishFrames(const CatOptions& options, MdfFrameReader& reader, const MdfFrameFilter& filter,
                 const FrameCounts& counts, Output& out) {
  const std::string label = labelOf(options.files);
  const bool isWhole =
      !options.start && !options.end && options.ids.empty() && options.buses.empty();
  const std::uint64_t promised = isWhole ? countPromised(reader) : 0;
  const bool failed = out.good() && !reader.error().empty();
  const bool lost = out.good() && !failed && counts.written < promised;
  const bool lacking = out.good() && counts.withoutPayload > 0;
  const bool isEmpty = out.good() && !failed && counts.written == 0;
  const std::string error = reader.error();
  ExitCode exitCode = finish(out, reader, label, lost || lacking ? kLost : kDone);
  if (failed) {
    complain(label, error);
    exitCode = kFailed;
  }
  if (lost) {
    complain(label, fmt::format("{} of {} frames could be read", counts.written, promised));
  }
  if (isEmpty) {
    tellOfNothing(options, reader, filter, label);
  }
  if (lacking) {
    complain(label, fmt::format("{} of {} frames have lost their payload, and are printed without "
                                "one",
                                counts.withoutPayload, counts.written));
  }
  tellOfOtherEvents(reader, label);
  return exitCode;
}

int cat(const CatOptions& options) {
  MdfFrameReader reader(options.files);
  const std::string label = labelOf(options.files);
  if (!reader.open()) {
    complain(label, reader.error());
    return kFailed;
  }
  OutputBudget budget = budgetFor(options.maxOutput, options.files);
  Output out;
  const ExitCode opened = openOutput(out, options.output, options.files, options.force);
  if (opened != kDone) {
    return opened;
  }
  out.limitBy(budget);
  const Clocks clocks = Clocks::of(reader, options.clock);
  const MdfFrameFilter filter = filterOf(options, reader, clocks);
  const auto hasFrames = [](const MdfFrameGroup& group) { return group.isRead; };
  if (std::ranges::none_of(reader.groups(), hasFrames)) {
    complain(label, "no CAN frames");
    return finishFrames(options, reader, filter, {}, out);
  }
  FrameText text(out, formatOf(options.format), reader.startTimeNs(), clocks.toShownNs);
  text.writeHeader();
  const FrameCounts counts = writeFrames(reader, filter, text, out);
  return finishFrames(options, reader, filter, counts, out);
}

int runCat(CatOptions& options) {
  if (!findParts(options.files, options.parts)) {
    return kWrongUse;
  }
  const bool toStandardOutput = options.output.empty() || options.output == "-";
  return toStandardOutput ? cat(options) : runStoppable([&] { return cat(options); });
}

void addChoice(CLI::App& command, const std::shared_ptr<CatOptions>& options) {
  command
      .add_option("--id", options->ids,
                  "Print the frames with this identifier only, decimal or 0x123; may be given "
                  "several times, or as 0x123,0x456")
      ->type_name("ID")
      ->delimiter(',')
      ->allow_extra_args(false)
      ->check([](const std::string& text) { return parseId(text) ? "" : "no identifier: " + text; },
              "");
  command
      .add_option("--bus", options->buses,
                  "Print the frames of this bus channel only, as the file counts them, mostly from "
                  "1, or as printed: can0; may be given several times")
      ->type_name("BUS")
      ->delimiter(',')
      ->allow_extra_args(false)
      ->check([](const std::string& text) { return parseBus(text) ? "" : "no bus: " + text; }, "");
  addTimeArgument(command, "--start", options->start, "The first time to print");
  addTimeArgument(command, "--end", options->end, "The time to print up to but not including");
  command
      .add_option_function<std::string>(
          "--time",
          [options](const std::string& clock) {
            options->clock = clock == "local" ? Clock::Local : Clock::Utc;
          },
          "Times since 1970 in UTC, or by the clocks of the place of the recording; as the file "
          "has "
          "them by default, which is UTC in most")
      ->type_name("CLOCK")
      ->check(CLI::IsMember({"local", "utc"}));
}

}  // namespace

void addCat(CLI::App& app, Command& chosen) {
  const auto options = std::make_shared<CatOptions>();
  CLI::App* command = app.add_subcommand("cat", "Print the CAN frames of bus logs in time order");
  addInputs(*command, options->files, options->parts);
  command->add_option("--format", options->format, "The form of the lines; candump by default")
      ->type_name("FORMAT")
      ->check(CLI::IsMember({"candump", "csv", "ndjson"}));
  addChoice(*command, options);
  command
      ->add_option("-o,--output", options->output,
                   "The file to write; by default, or as -, the standard output")
      ->type_name("OUT");
  addForce(*command, options->force);
  addMaxOutput(*command, options->maxOutput);
  command->footer(
      "Formats:\n"
      "  candump  the log format of can-utils, read by canplayer: (SECONDS) canN ID#DATA with the "
      "seconds since 1970 (UTC), identifier and data hexadecimal; ID##FDATA for CAN FD (F: 1 bit "
      "rate switch, 2 error state), ID#RDLC for remote frames; error frames have 0x20000000 added "
      "to the identifier; where only the kind of error is known, identifier and data are those of "
      "SocketCAN\n"
      "  csv      every field, a line of names first; empty where a kind of frame has no such "
      "field\n"
      "  ndjson   the same fields, a JSON object per line; null where there is no such field\n"
      "In csv and ndjson, time_ns is nanoseconds since the recording's start, time is seconds "
      "since 1970 (UTC), id is decimal, length is bytes, data is hexadecimal; error_type is 1 bit, "
      "2 form, 3 bit stuffing, 4 CRC, 5 acknowledge. A frame whose payload the file has lost is "
      "printed without one, and the exit code is 3: in candump nothing follows the '#', in csv and "
      "ndjson length keeps the bytes that it had and data is empty or null.\n"
      "\n"
      "Times are seconds, from 100000000 on since 1970, below since the recording's start, where "
      "they may be negative; or dates like 2021-07-26T04:34:14.5Z, with +02:00 instead of the Z, "
      "or "
      "without either on the clock of --time. They are looked up, not read up to. Where the file "
      "does not tell how far its clocks are from UTC, --time takes those of this system.\n"
      "\n"
      "Examples:\n"
      "  tolvex cat drive.mf4 --start 10 --end 20 -o part.log\n"
      "  tolvex cat drive.mf4 --id 0x123,0x7E8 --bus can0\n"
      "  tolvex cat drive.mf4 | canplayer vcan0=can0\n"
      "  tolvex cat drive.mf4 --format ndjson | jq 'select(.id == 291)'");
  command->callback([options, &chosen] { chosen = [options] { return runCat(*options); }; });
}

}  // namespace tolvex
