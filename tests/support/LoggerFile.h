// Reads the files of loggers by hand, unfinalized or not: bytes at offsets, sharing nothing with
// the library, so that its answers can be compared with these. For sound blocks without
// compression.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "tests/support/FileBuilder.h"

namespace tolvex::test {

struct LoggerChannel {
  std::string name;
  std::uint64_t firstBit = 0;  // in the record
  unsigned bitCount = 0;
  std::vector<double> linear = {0, 1};  // offset and factor, of a linear conversion
  bool variable = false;                // its values lie outside the records,
  std::vector<Bytes> values = {};       // one for each record
};

// A channel group that is not one of values alone.
struct LoggerGroup {
  std::string name;  // the acquisition name, else the comment, else ""
  int dg = 0;
  int cg = 0;
  // Texts, channels, sources and conversions, but for where they lie and how many records there
  // are.
  std::string description;
  std::vector<LoggerChannel> channels;  // those composed into another one behind it
  std::vector<Bytes> records;           // without their ids, in order

  const LoggerChannel* channel(const std::string& wanted) const;  // or null
  // The bits of a channel in a record; 0 without such a channel.
  std::uint64_t field(std::size_t record, const std::string& of) const;
};

// All groups in file order. What the file's end cut off is left out, and records without their
// value.
std::vector<LoggerGroup> readLoggerFile(const std::string& path);

// The data frames of all groups of that name in time order, a line for each: nanoseconds,
// identifier, bus channel from 0, code and flags, payload.
std::vector<std::string> frameLines(const std::vector<LoggerGroup>& groups);

}  // namespace tolvex::test
