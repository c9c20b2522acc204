#include "tests/support/ColumnSample.h"

#include <string>
#include <vector>

namespace tolvex::test {
namespace {

// An array of int16 in its channel's place, by rows.
Link arrayOf(FileBuilder& file, std::uint64_t rows, std::uint64_t columns) {
  return file.block("CA", {0},
                    packed(std::uint8_t{0}, std::uint8_t{0}, std::uint16_t{2}, std::uint32_t{0},
                           std::int32_t{2}, std::uint32_t{0}, rows, columns));
}

}  // namespace

FileBuilder columnSample(unsigned records) {
  FileBuilder file({.startTimeNs = kSampleStart});
  std::vector<Bytes> rows;
  Bytes texts;
  for (unsigned i = 0; i < records; ++i) {
    const std::uint64_t offset = i % 5 == 4 ? ~std::uint64_t{0} : texts.size();
    const std::string text = "text " + std::to_string(i);
    const auto low = static_cast<std::int16_t>(i);
    Bytes row = packed(0.25 * i, ~std::uint64_t{0} - i, static_cast<std::uint16_t>(i),
                       static_cast<std::int8_t>(-static_cast<int>(i)), offset,
                       static_cast<std::uint8_t>(i), std::uint8_t{0xFE});
    for (int element = 0; element < 6; ++element) {
      row = joined({row, packed(static_cast<std::int16_t>(low + element))});
    }
    row.push_back(i % 3 == 1 ? 1 : 0);
    rows.push_back(std::move(row));
    if (i % 5 == 4) continue;
    texts = joined(
        {texts, packed(static_cast<std::uint32_t>(text.size())), {text.begin(), text.end()}});
  }
  const Link half = file.cc({.type = 1, .values = {1, 0.5}});
  const Link number = file.cc({.type = 1, .values = {0, 0.5}});
  const Link status = file.cc({.type = 8,
                               .values = {0, 0, 1, 1, 4, 4, 5, 5, 8, 8, 9, 9},
                               .refs = {file.tx("off"), file.tx("on"), file.tx("off"),
                                        file.tx("on"), file.tx("off"), file.tx("on"), number}});
  const Link level =
      file.cc({.type = 8, .values = {0, 2}, .refs = {file.tx("low"), file.tx("high")}});
  const std::vector<Cn> channels = {
      {.name = "big", .byteOffset = 8, .bitCount = 64},
      {.name = "kmh",
       .byteOffset = 16,
       .bitCount = 16,
       .conversion = half,
       .unit = file.tx("km/h"),
       .comment = file.tx("of the wheels")},
      {.name = "small", .dataType = 2, .byteOffset = 18, .bitCount = 8},
      {.name = "text",
       .type = 1,
       .dataType = 7,
       .byteOffset = 19,
       .bitCount = 64,
       .data = file.sd(texts)},
      {.name = "bytes", .dataType = 10, .byteOffset = 27, .bitCount = 16},
      {.name = "status", .byteOffset = 16, .bitCount = 16, .conversion = status},
      {.name = "level", .byteOffset = 16, .bitCount = 16, .conversion = level},
      {.name = "matrix",
       .dataType = 2,
       .byteOffset = 29,
       .bitCount = 16,
       .children = {arrayOf(file, 2, 3)}},
      {.name = "beyond", .byteOffset = 99, .bitCount = 8},
      {.name = "checked", .byteOffset = 16, .bitCount = 16, .flags = 2}};
  file.signalGroup(channels,
                   {.name = "sample", .records = records, .dataBytes = 41, .invalBytes = 1},
                   file.dt(joined(rows)));
  return file;
}

}  // namespace tolvex::test
