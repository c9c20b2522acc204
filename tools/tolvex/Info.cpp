// tolvex info: what measurement files hold.

#include "Info.h"

#include <tolvex/MdfColumnReader.h>

#include <CLI/CLI.hpp>
#include <memory>

#include "Command.h"

namespace tolvex {

namespace {

struct InfoOptions {
  std::vector<std::string> files;
  bool parts = false;
  std::string format = "text";
  BitRates rates;
};

int info(InfoOptions& options) {
  if (!findParts(options.files, options.parts)) {
    return kWrongUse;
  }
  const std::string label = labelOf(options.files);
  MdfColumnReader reader(options.files);
  if (!reader.open()) {
    complain(label, reader.error());
    return kFailed;
  }
  InfoSubject subject(reader, options.files);
  subject.countFrames(options.rates);
  Output out;
  if (options.format == "json") {
    writeInfoJson(out, subject);
  } else {
    writeInfoText(out, subject);
  }
  const ExitCode code = finish(out, reader, label, kDone);
  for (const std::string& problem : subject.problems()) {
    complain(label, problem);
  }
  return code == kDone && !subject.problems().empty() ? kLost : code;
}

void addRate(CLI::App& command, const char* name, double& rate, const char* help) {
  constexpr double kMost = 1e12;
  command.add_option(name, rate, help)
      ->type_name("BITS")
      ->check(CLI::Range(1.0, kMost).description(""));
}

}  // namespace

void addInfo(CLI::App& app, Command& chosen) {
  const auto options = std::make_shared<InfoOptions>();
  CLI::App* command = app.add_subcommand("info", "Show what measurement files hold");
  addInputs(*command, options->files, options->parts);
  command->add_option("--format", options->format, "The form of the description; text by default")
      ->type_name("FORMAT")
      ->check(CLI::IsMember({"text", "json"}));
  addRate(*command, "--bit-rate", options->rates.nominal,
          "Bits per second of the buses, for their load; 500000 by default");
  addRate(*command, "--data-bit-rate", options->rates.data,
          "Likewise of the data of CAN FD frames that switch the rate; 2000000 by default");
  command->footer(
      "Shows version, program, start time, size in bytes, the first time of a record and the last "
      "one, comment, properties of device and vehicle, history, attachments, events; for each "
      "group its name, the number of records that are there, bytes per record, duration in seconds "
      "(unless it is unknown) and channels, members of structures included; for each bus how many "
      "frames it has, how often each identifier comes, and the bus load. Files do not tell the bit "
      "rate of a bus, and stuff bits are not counted.\n"
      "\n"
      "Times are UTC, or without a Z in the time of a place that the file does not tell. A note "
      "says what an unusual file is taken for: one that its logger never finalized, or a recording "
      "that was killed. \"unsorted\" marks groups whose records stand among others'. In json, "
      "times in ns are since 1970 and those in s since the recording's start, offsets are bytes "
      "and bits in a record, the types are the format's numbers, a load of 1 is 100 %, and what is "
      "unknown is null.\n"
      "\n"
      "Examples:\n"
      "  tolvex info drive.mf4\n"
      "  tolvex info drive.mf4 --parts --bit-rate 250000\n"
      "  tolvex info drive.mf4 --format json | jq '.groups[].channels[].name'");
  command->callback([options, &chosen] { chosen = [options] { return info(*options); }; });
}

}  // namespace tolvex
