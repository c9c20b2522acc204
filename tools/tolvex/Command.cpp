#include "Command.h"

#include <fmt/format.h>
#include <tolvex/Mdf4.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>

namespace tolvex {

namespace {

// The length of the well-formed UTF-8 sequence that `text` begins with, 0 when there is none.
std::size_t sequenceLength(std::string_view text) {
  const auto byte = [&](std::size_t i) { return static_cast<std::uint8_t>(text[i]); };
  const std::uint8_t lead = byte(0);
  if (lead < 0x80) {
    return 1;
  }
  const std::size_t length = lead >= 0xF5   ? 0
                             : lead >= 0xF0 ? 4
                             : lead >= 0xE0 ? 3
                             : lead >= 0xC2 ? 2
                                            : 0;
  if (length == 0 || text.size() < length) {
    return 0;
  }
  for (std::size_t i = 1; i < length; ++i) {
    if ((byte(i) & 0xC0) != 0x80) {
      return 0;
    }
  }
  const std::uint8_t second = byte(1);
  const bool overlong = (lead == 0xE0 && second < 0xA0) || (lead == 0xF0 && second < 0x90);
  const bool outside = (lead == 0xED && second >= 0xA0) || (lead == 0xF4 && second >= 0x90);
  return overlong || outside ? 0 : length;
}

bool isControl(std::string_view sequence) {
  const auto first = static_cast<std::uint8_t>(sequence[0]);
  if (sequence.size() == 1) {
    return first < 0x20 || first == 0x7F;
  }
  return first == 0xC2 && static_cast<std::uint8_t>(sequence[1]) < 0xA0;
}

}  // namespace

void complain(std::string_view file, std::string_view what) {
  const std::string line = fmt::format("tolvex: {}: {}\n", file, printable(what));
  std::fwrite(line.data(), 1, line.size(), stderr);
}

bool openOrComplain(MdfBaseReader& reader, const std::string& file) {
  if (reader.open()) {
    return true;
  }
  complain(file, reader.getLastError());
  return false;
}

bool complainIfUnsorted(const MdfGroupInfo& group, const std::string& file) {
  if (group.unsorted) {
    complain(file, fmt::format("data group {} is unsorted: records of several channel groups, or "
                               "with record ids, lie in one sequence; tolvex recover sorts it",
                               group.dgIndex));
  }
  return group.unsorted;
}

ExitCode reportProblems(const MdfBaseReader& reader, const std::string& file, ExitCode soFar) {
  const std::vector<std::string> problems = reader.getProblems();
  for (const std::string& problem : problems) {
    complain(file, problem);
  }
  return problems.empty() ? soFar : kLost;
}

ExitCode finish(Output& out, const MdfBaseReader& reader, const std::string& file, ExitCode soFar) {
  if (out.close()) {
    return reportProblems(reader, file, soFar);
  }
  if (out.pipeClosed()) {
    return kDone;
  }
  complain(out.name(), out.error());
  return kFailed;
}

std::string printable(std::string_view text) {
  std::string shown;
  while (!text.empty()) {
    const std::size_t length = sequenceLength(text);
    if (length == 0) {
      shown += "\xEF\xBF\xBD";
      text.remove_prefix(1);
      continue;
    }
    const std::string_view sequence = text.substr(0, length);
    shown += isControl(sequence) ? std::string_view("?") : sequence;
    text.remove_prefix(length);
  }
  return shown;
}

}  // namespace tolvex
