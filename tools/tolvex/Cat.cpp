// tolvex cat: the CAN frames of a bus log, in time order.

#include <fmt/format.h>
#include <tolvex/Mdf4.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cmath>
#include <limits>
#include <memory>
#include <optional>

#include "Command.h"
#include "FrameText.h"

namespace tolvex {

namespace {

struct CatOptions {
  std::string file;
  std::string format = "candump";
  std::optional<double> start;  // seconds
  std::optional<double> end;
  std::optional<std::uint64_t> maxOutput;  // bytes
};

FrameFormat formatOf(const std::string& name) {
  return name == "csv"      ? FrameFormat::Csv
         : name == "ndjson" ? FrameFormat::Ndjson
                            : FrameFormat::Candump;
}

// A span of frame times, nanoseconds since the recording's start, both ends included.
struct Window {
  std::int64_t firstNs = std::numeric_limits<std::int64_t>::min();
  std::int64_t lastNs = std::numeric_limits<std::int64_t>::max();
};

// Seconds to nanoseconds, as far as 64 bits go.
std::int64_t toNanoseconds(double seconds) {
  constexpr double kLimit = 9.2e18;
  return static_cast<std::int64_t>(std::clamp(std::round(seconds * 1e9), -kLimit, kLimit));
}

Window windowOf(const CatOptions& options) {
  Window window;
  if (options.start) {
    window.firstNs = toNanoseconds(*options.start);
  }
  if (options.end) {
    window.lastNs = toNanoseconds(*options.end) - 1;
  }
  return window;
}

std::uint64_t countPromised(const std::vector<MdfGroupInfo>& groups) {
  std::uint64_t count = 0;
  for (const MdfGroupInfo& group : groups) {
    count += std::min(group.recordCount, std::numeric_limits<std::uint64_t>::max() - count);
  }
  return count;
}

// The frames of a file.
struct FrameCounts {
  std::uint64_t read = 0;
  std::uint64_t written = 0;
  std::uint64_t withoutPayload = 0;                                 // of those written
  std::int64_t firstNs = std::numeric_limits<std::int64_t>::max();  // of those read
  std::int64_t lastNs = std::numeric_limits<std::int64_t>::min();
};

// Writes all frames inside the window.
FrameCounts writeFrames(MdfReader& reader, const Window& window, FrameText& text,
                        const Output& out) {
  FrameCounts counts;
  for (;; ++counts.read) {
    const MdfFrame frame = reader.getNext();
    const auto* message = std::get_if<std::shared_ptr<MdfCanMessage>>(&frame);
    if ((message != nullptr && *message == nullptr) || !out.good()) {
      return counts;
    }
    const std::int64_t timeNs = MdfReader::getSignedTimestampNsFromVariant(frame);
    counts.firstNs = std::min(counts.firstNs, timeNs);
    counts.lastNs = std::max(counts.lastNs, timeNs);
    if (timeNs < window.firstNs || timeNs > window.lastNs) {
      continue;
    }
    std::visit(
        [&](const auto& pointer) {
          text.write(*pointer);
          counts.withoutPayload += pointer->PayloadMissing() ? 1 : 0;
        },
        frame);
    ++counts.written;
  }
}

// Says which bus events the file holds beside those of `groups`, which are in order.
void tellOfOtherEvents(MdfReader& reader, const std::vector<MdfGroupInfo>& groups,
                       const std::string& file) {
  constexpr unsigned kPlainBusEvent = 0x4;
  auto shown = groups.begin();
  const int dataGroups = reader.getDGCount();
  MdfGroupInfo group;
  for (int dg = 0; dg < dataGroups; ++dg) {
    for (int cg = 0; reader.getGroupInfo(dg, cg, group); ++cg) {
      if (shown != groups.end() && shown->dgIndex == dg && shown->cgIndex == cg) {
        ++shown;
      } else if ((group.flags & kPlainBusEvent) != 0 && group.recordCount > 0) {
        complain(file, fmt::format("{:.100}: {} records are no CAN data, remote or error frames",
                                   group.name.empty() ? "a group without a name" : group.name,
                                   group.recordCount));
      }
    }
  }
}

int cat(const CatOptions& options) {
  MdfReader reader(options.file);
  reader.setLoggerRules(true);
  if (!openOrComplain(reader, options.file)) {
    return kFailed;
  }
  const std::vector<MdfGroupInfo> groups = reader.getBusLogGroups();
  if (std::ranges::any_of(groups, [&](const MdfGroupInfo& group) {
        return complainIfUnsorted(group, options.file);
      })) {
    return kFailed;
  }
  OutputBudget budget = budgetFor(options.maxOutput, {options.file});
  Output out;
  out.limitBy(budget);
  if (groups.empty()) {
    complain(options.file, "no CAN frames");
    tellOfOtherEvents(reader, groups, options.file);
    return finish(out, reader, options.file, kDone);
  }
  FrameText text(out, formatOf(options.format), reader.getFileInfo().startTimeNs);
  text.writeHeader();
  const FrameCounts counts = writeFrames(reader, windowOf(options), text, out);
  const std::uint64_t promised = countPromised(groups);
  const bool lost = out.good() && counts.read < promised;
  const bool lacking = out.good() && counts.withoutPayload > 0;
  const int exitCode = finish(out, reader, options.file, lost || lacking ? kLost : kDone);
  if (lost) {
    complain(options.file, fmt::format("{} of {} frames could be read", counts.read, promised));
  }
  if (out.good() && counts.written == 0 && counts.read > 0) {
    complain(options.file, fmt::format("no frames in that time; the recording has them from {:.6f} "
                                       "to {:.6f} s",
                                       1e-9 * static_cast<double>(counts.firstNs),
                                       1e-9 * static_cast<double>(counts.lastNs)));
  }
  if (lacking) {
    complain(options.file, fmt::format("{} of {} frames have lost their payload, and are printed "
                                       "without one",
                                       counts.withoutPayload, counts.written));
  }
  tellOfOtherEvents(reader, groups, options.file);
  return exitCode;
}

}  // namespace

void addCat(CLI::App& app, Command& chosen) {
  const auto options = std::make_shared<CatOptions>();
  CLI::App* command = app.add_subcommand("cat", "Print the CAN frames of a bus log in time order");
  command->add_option("FILE", options->file, "The measurement file")->required();
  command->add_option("--format", options->format, "The form of the lines; candump by default")
      ->type_name("FORMAT")
      ->check(CLI::IsMember({"candump", "csv", "ndjson"}));
  const auto number = [](const std::string& text) {
    return std::isnan(std::strtod(text.c_str(), nullptr)) ? "not a number: " + text : "";
  };
  command
      ->add_option(
          "--start", options->start,
          "The first time to print, in seconds since the recording's start; may be negative")
      ->type_name("SECONDS")
      ->check(number, "");
  command
      ->add_option(
          "--end", options->end,
          "The time to print up to but not including, in seconds since the recording's start")
      ->type_name("SECONDS")
      ->check(number, "");
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
      "Examples:\n"
      "  tolvex cat drive.mf4 --start 10 --end 20 > part.log\n"
      "  tolvex cat drive.mf4 | canplayer vcan0=can0\n"
      "  tolvex cat drive.mf4 --format ndjson | jq 'select(.id == 291)'");
  command->callback([options, &chosen] { chosen = [options] { return cat(*options); }; });
}

}  // namespace tolvex
