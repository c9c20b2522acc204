// tolvex export: signals as CSV files of physical values.

#include <fmt/format.h>
#include <tolvex/MdfColumnReader.h>

#include <CLI/CLI.hpp>
#include <cmath>
#include <memory>

#include "Command.h"
#include "Exporter.h"
#include "StopSignals.h"

namespace tolvex {

namespace {

constexpr double kNsPerSecond = 1e9;

// Nothing, or what is wrong with a raster of so many seconds.
std::string checkRaster(const std::string& text) {
  double seconds = 0;
  if (!CLI::detail::lexical_cast(text, seconds) || !(seconds >= 1 / kNsPerSecond) ||
      !(seconds <= kNsPerSecond)) {
    return "a raster has 1e-9 to 1e9 seconds: " + text;
  }
  return "";
}

int exportFiles(const ExportOptions& options) {
  MdfColumnReader reader(options.files);
  if (!reader.open()) {
    complain(labelOf(options.files), reader.error());
    return kFailed;
  }
  return Exporter(reader, options).run();
}

int runExport(ExportOptions& options) {
  if (!findParts(options.files, options.parts)) {
    return kWrongUse;
  }
  return options.toStandardOutput() ? exportFiles(options)
                                    : runStoppable([&] { return exportFiles(options); });
}

void addTableOptions(CLI::App& command, const std::shared_ptr<ExportOptions>& options) {
  command.add_flag(
      "--join", options->join,
      "One table of all groups: a row for each time at which one of them has a record");
  CLI::Option* const raster =
      command
          .add_option_function<double>(
              "--raster",
              [options](double seconds) {
                options->table.rasterNs = std::llround(seconds * kNsPerSecond);
              },
              "A row every so many seconds, counted from the recording's start, with the values of "
              "the last record before it")
          ->type_name("SECONDS")
          ->check(checkRaster, "");
  command
      .add_flag("--interpolate", options->table.interpolate,
                "With --raster, numbers on the line between the records around the row")
      ->needs(raster);
  command
      .add_option_function<std::string>(
          "--time",
          [options](const std::string& form) {
            options->table.time = form == "absolute" ? TimeForm::Absolute
                                  : form == "iso"    ? TimeForm::Iso
                                                     : TimeForm::Relative;
          },
          "The time column; relative by default")
      ->type_name("FORM")
      ->check(CLI::IsMember({"relative", "absolute", "iso"}));
  command.add_flag("--raw", options->table.raw,
                   "Values as recorded, before the conversion to physical ones; the time column "
                   "stays physical");
  command.add_flag("--safe-csv", options->table.safe,
                   "An apostrophe before texts that a spreadsheet would take for formulas");
}

}  // namespace

void addExport(CLI::App& app, Command& chosen) {
  const auto options = std::make_shared<ExportOptions>();
  CLI::App* command = app.add_subcommand("export", "Write signals as CSV files");
  addInputs(*command, options->files, options->parts);
  CLI::Option* dg =
      command
          ->add_option("--dg", options->dg,
                       "The data group, counted from 0; by default every group is exported")
          ->type_name("N")
          ->check(CLI::NonNegativeNumber.description(""));
  command->add_option("--cg", options->cg, "The channel group in it, counted from 0; by default 0")
      ->type_name("M")
      ->check(CLI::NonNegativeNumber.description(""))
      ->needs(dg);
  command
      ->add_option(
          "--channel", options->channels,
          "Export the channels of this name only; may be given several times. '*' stands "
          "for any characters, '?' for one; members are \"pair.lo\", elements \"map[1][2]\"")
      ->type_name("NAME")
      ->allow_extra_args(false);
  addTimeArgument(*command, "--start", options->start, "The time of the first row");
  addTimeArgument(*command, "--end", options->end, "The time that rows are before");
  addTableOptions(*command, options);
  command
      ->add_option("-o,--output", options->output,
                   "With --dg or --join, the file to write; by default, or as -, the standard "
                   "output. Else the folder that gets a file dgN_cgM_NAME.csv for every group")
      ->type_name("OUT");
  addForce(*command, options->force);
  addMaxOutput(*command, options->maxOutput);
  command->footer(
      "The first column is the group's time, or the record's number (from 0) in a group without "
      "one; then the channels in the file's order, members of structures and elements of arrays "
      "as columns of their own. Columns are headed \"name [unit]\".\n"
      "\n"
      "Integers without a conversion have all their digits; other numbers read back as the same "
      "64-bit floating point number. Texts are quoted where they hold a comma, a quote or a line "
      "end; bytes are 0x and hexadecimal digits. A cell is empty where there is no valid value; "
      "channels that have none at all are named on the standard error. "
      "Lines end in a line feed. With --safe-csv, texts that begin with = + - @, tab or carriage "
      "return and are no numbers get an apostrophe in front. On a terminal, control characters "
      "show as \\n, \\x1B or \\u202E.\n"
      "\n"
      "Times:\n"
      "  relative  seconds since the recording's start\n"
      "  absolute  seconds since 1970 with nine digits behind the point\n"
      "  iso       2021-07-26T04:34:14.500000000Z; without the Z when the file has the time of a "
      "place that it does not tell\n"
      "\n"
      "--start and --end are seconds, from 100000000 on since 1970, below since the recording's "
      "start, or dates like 2021-07-26T04:34:14.5Z, with +02:00 instead of the Z, or without "
      "either "
      "as the file counts its time.\n"
      "\n"
      "With --join, the records of all groups whose time is the same nanosecond share a row, and "
      "groups without a record there have empty cells; a name that several channels have gets its "
      "group in front, as dg2_cg0.speed. With --raster, rows go from the first record to the last, "
      "and values hold until the next record; cells are empty before a group's first one. Several "
      "files are read as one recording, in the order of their start times.\n"
      "\n"
      "Examples:\n"
      "  tolvex export drive.mf4 -o drive\n"
      "  tolvex export drive.mf4 --dg 2 --channel Speed --channel Gear -o speed.csv\n"
      "  tolvex export drive.mf4 --dg 2 --raw | head\n"
      "  tolvex export drive.mf4 --join --raster 0.1 --time iso -o table.csv\n"
      "  tolvex export drive.mf4 --parts --channel 'CAN_DataFrame.*' -o drive");
  command->callback([options, &chosen] { chosen = [options] { return runExport(*options); }; });
}

}  // namespace tolvex
