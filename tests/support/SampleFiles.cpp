#include "tests/support/SampleFiles.h"

#include <algorithm>

namespace tolvex::test {
namespace {

// `count` records of a time, a counter and a byte that alternates.
constexpr int kRampCount = 12;
Bytes ramp(int count) {
  Bytes bytes;
  for (int i = 0; i < count; ++i) {
    const auto number = static_cast<std::uint16_t>(1000 + i);
    bytes = joined({bytes, packed(0.5 * i, number, static_cast<std::uint8_t>(i % 2))});
  }
  return bytes;
}

// Records `first` to `first` + `count` of the ramp that the data forms hold.
Bytes part(int first, int count) {
  const Bytes all = ramp(first + count);
  return {all.begin() + first * static_cast<std::ptrdiff_t>(kRampSize), all.end()};
}

// The records up to the middle of the second one, and the rest.
std::pair<Bytes, Bytes> halves() {
  const Bytes all = ramp(kRampCount);
  return {Bytes(all.begin(), all.begin() + 17), Bytes(all.begin() + 17, all.end())};
}

std::vector<Link> quarters(FileBuilder& file, bool compressed) {
  std::vector<Link> blocks;
  for (int first = 0; first < kRampCount; first += kRampCount / 4) {
    const Bytes bytes = part(first, kRampCount / 4);
    blocks.push_back(compressed ? file.dz(bytes, "DT", 1, kRampSize) : file.dt(bytes));
  }
  return blocks;
}

constexpr std::uint64_t kQuarter = kRampCount / 4 * kRampSize;
constexpr DataForm kDataForms[] = {
    {"dt", [](FileBuilder& file) { return file.dt(ramp(kRampCount)); }},
    {"sd", [](FileBuilder& file) { return file.sd(ramp(kRampCount)); }},
    {"rd", [](FileBuilder& file) { return file.rd(ramp(kRampCount)); }},
    {"dv", [](FileBuilder& file) { return file.dv(ramp(kRampCount)); }},
    {"dz", [](FileBuilder& file) { return file.dz(ramp(kRampCount)); }},
    {"dz-transposed",
     [](FileBuilder& file) { return file.dz(ramp(kRampCount), "DT", 1, kRampSize); }},
    {"dl-equal", [](FileBuilder& file) { return file.dl(quarters(file, false), kQuarter); }},
    {"dl-offsets",
     [](FileBuilder& file) {
       const auto [head, tail] = halves();
       return file.dl({file.dt(head), file.dt(tail)});
     }},
    {"dl-mixed",
     [](FileBuilder& file) {
       const auto [head, tail] = halves();
       return file.dl({file.dz(head), file.dt(tail)});
     }},
    {"dl-empty",
     [](FileBuilder& file) {
       const auto [head, tail] = halves();
       return file.dl({file.dt(head), file.dt({}), file.dt(tail)});
     }},
    {"dl-chain",
     [](FileBuilder& file) {
       return file.chain(
           {file.dl(quarters(file, false), kQuarter), file.dl({file.dt(ramp(kRampCount))})});
     }},
    {"hl", [](FileBuilder& file) { return file.hl(file.dl(quarters(file, true), kQuarter), 1); }},
    {"ld",
     [](FileBuilder& file) {
       const Link plain = file.ld({file.dv(part(0, 6))}, {file.di({0, 1, 0, 1, 0, 1})});
       const Link compressed =
           file.ld({file.dz(part(6, 6), "DV")}, {file.dz({1, 0, 1, 0, 1, 0}, "DI")});
       return file.chain({plain, compressed});
     },
     true},
    {"ld-unmarked",
     [](FileBuilder& file) {
       return file.ld({file.dv(part(0, 6)), file.dv(part(6, 6))});
     }},
};

// A conversion of every kind.
std::vector<Link> conversions(FileBuilder& file) {
  const Link off = file.tx("off");
  const Link on = file.md("<CNcomment><TX>on</TX></CNcomment>");
  const std::vector<Link> texts = {off, on, file.tx("else")};
  const std::vector<Cc> all = {
      {.type = 0, .precision = 2, .flags = 3, .rangeMin = -1, .rangeMax = 1},
      {.type = 1, .values = {1, 0.5}, .name = file.tx("linear"), .unit = file.tx("m")},
      {.type = 2, .values = {0, 2, 0, 0, 0, 1}, .comment = file.md("<TX>rational</TX>")},
      {.type = 3, .refs = {file.tx("X1 * 2")}},
      {.type = 4, .values = {0, 0, 1, 10, 2000, 20}},
      {.type = 5, .values = {0, 0, 1, 10, 2000, 20}},
      {.type = 6, .values = {0, 1, 5, 2, 3000, 6, 7}},
      {.type = 7, .values = {0, 1}, .refs = texts},
      {.type = 8, .values = {0, 1, 2, 3000}, .refs = texts},
      {.type = 9, .values = {4, 5, 6}, .refs = texts},
      {.type = 10, .refs = {off, on, on, off, off}},
      {.type = 11, .values = {1, 1, 2, 2}, .refs = {off, on}},
      {.type = 7, .values = {1}, .refs = {file.cc({.type = 1, .values = {0, 1}}), off}},
  };
  std::vector<Link> links;
  for (const Cc& conversion : all) links.push_back(file.cc(conversion));
  return links;
}

const Cn kCounter = {.name = "counter", .byteOffset = 8, .bitCount = 16};

FileBuilder dataFormFile(const DataForm& form) {
  FileBuilder file;
  const std::uint32_t marks = form.marked ? 1 : 0;
  file.signalGroup(
      {kCounter, {.name = "bit", .byteOffset = 10, .bitCount = 1, .flags = form.marked ? 2U : 0U}},
      {.name = form.name, .records = kRampCount, .dataBytes = kRampSize, .invalBytes = marks},
      form.store(file));
  return file;
}

FileBuilder conversionsFile() {
  FileBuilder file;
  std::vector<Cn> channels;
  for (const Link conversion : conversions(file)) {
    channels.push_back({.name = "v",
                        .byteOffset = 10,
                        .conversion = conversion,
                        .unit = file.tx("unit"),
                        .comment = file.md("<TX>comment</TX>")});
  }
  file.signalGroup(channels, {.name = "conversions", .records = 12, .dataBytes = kRampSize},
                   file.dt(ramp(12)));
  return file;
}

// Every data type, and values beside the records.
FileBuilder valuesFile() {
  FileBuilder file({.zoneMinutes = 60, .daylightMinutes = 60, .timeFlags = 2});
  std::vector<Cn> channels;
  for (std::uint8_t type = 0; type < 16; ++type) {
    channels.push_back({.name = "type",
                        .dataType = type,
                        .byteOffset = 8,
                        .bitOffset = static_cast<std::uint8_t>(type % 3),
                        .bitCount = type == 4 || type == 5 ? 64U : 24U,
                        .flags = 0x3C,
                        .ranges = {0, 1, 2, 3, 4, 5}});
  }
  const Bytes text = {'t', 'e', 'x', 't', 0, 'x', 0xD8, 0xDC, 0, 0xDC, 0, 0};
  const Bytes first = joined({packed(std::uint32_t{12}), text, packed(std::uint32_t{3})});
  const Bytes second = {'a', 'b', 'c'};
  const Bytes whole = joined({first, second});
  const std::vector<Link> outside = {
      file.sd(whole), file.dl({file.sd(first), file.sd(second)}), file.dz(whole, "SD"),
      file.hl(file.dl({file.dz(first, "SD"), file.dz(second, "SD")}))};
  for (std::size_t i = 0; i < outside.size(); ++i) {
    channels.push_back({.name = "outside",
                        .type = 1,
                        .dataType = static_cast<std::uint8_t>(6 + i),
                        .byteOffset = 16,
                        .bitCount = 64,
                        .flags = 2,
                        .invalBitPos = static_cast<std::uint32_t>(i),
                        .data = outside[i]});
  }
  const Bytes mark = {0x05};
  file.signalGroup(channels, {.name = "values", .records = 3, .dataBytes = 24, .invalBytes = 1},
                   file.dt(joined({packed(0.0, std::uint64_t{0x4142434445464748}, std::uint64_t{0}),
                                   mark,
                                   packed(1.0, 2.5, std::uint64_t{16}),
                                   {0},
                                   packed(2.0, -1.0, std::uint64_t{99}),
                                   mark})));
  return file;
}

// Blocks of every other kind, where links lead to a block of any kind.
FileBuilder kindsFile() {
  FileBuilder file;
  std::vector<Link> channels;
  for (const char* kind : {"SI", "SR", "CA", "CH", "AT", "EV", "FH", "RV", "RI", "DV", "DI", "LD",
                           "HL", "DZ", "DL", "DT", "HD", "XX"}) {
    const Link block = file.block(kind, {0, 0}, Bytes(40));
    channels.push_back(file.cn({.name = kind,
                                .children = {block},
                                .source = block,
                                .conversion = block,
                                .data = block,
                                .unit = block,
                                .comment = block}));
  }
  const Link comment = file.md("<CGcomment><TX>a group</TX></CGcomment>");
  file.dg({.groups = {file.cg({.channels = channels, .comment = comment}),
                      file.cg({.name = "second", .records = 3, .dataBytes = 8, .flags = 1})},
           .data = file.dt(Bytes(64)),
           .recordIdSize = 1});
  return file;
}

std::vector<std::pair<std::string, FileBuilder>> busLogFiles() {
  const auto records = [](const BusLayout& layout, double start) {
    std::vector<Bytes> all;
    for (int i = 0; i < 4; ++i) {
      const auto id = 0x123 + 0x400 * static_cast<std::uint64_t>(i);
      std::vector<std::pair<std::string, std::uint64_t>> fields = {{"ID", id}, {"DLC", 3}};
      if (layout.payloadOutside) fields.emplace_back("DataBytes", i % 2 == 0 ? 0 : 12);
      all.push_back(busRecord(layout, start + 2 * i, fields));
    }
    return all;
  };
  const Bytes payloads = joined(
      {packed(std::uint32_t{8}), {1, 2, 3, 4, 5, 6, 7, 8}, packed(std::uint32_t{2}), {9, 8}});
  std::vector<std::pair<std::string, FileBuilder>> files;
  const std::pair<const char*, BusLayout> layouts[] = {
      {"data", dataFrames()},        {"fd", dataFrames(64)},     {"error", errorFrames()},
      {"fd-error", fdErrorFrames()}, {"remote", remoteFrames()}, {"logger", loggerFrames()}};
  for (const auto& [name, layout] : layouts) {
    FileBuilder file;
    file.busLog(layout, records(layout, 1), layout.payloadOutside ? file.sd(payloads) : 0);
    files.emplace_back(std::string("frames-") + name, file);
  }

  // Few channels in each group, so that many groups make a small file.
  const auto lean = [](BusLayout layout) {
    std::vector<BusField> kept;
    for (const BusField& field : layout.fields) {
      for (const char* name : {"ID", "DLC", "IDE", "DataBytes", "BusChannel"}) {
        if (field.name == name) kept.push_back(field);
      }
    }
    layout.fields = kept;
    return layout;
  };
  FileBuilder merged;
  merged.busLog(lean(dataFrames()), records(dataFrames(), 1));
  merged.busLog(lean(errorFrames()), records(errorFrames(), 2));
  const Bytes zipped = joined(records(dataFrames(), 1.5));
  merged.busLog(lean(dataFrames()), 4, merged.dz(zipped, "DT", 1, 23));
  files.emplace_back("frames-merged", merged);

  FileBuilder logger;
  const BusLayout layout = lean(loggerFrames());
  const Bytes first(payloads.begin(), payloads.begin() + 5);
  const Bytes second(payloads.begin() + 5, payloads.end());
  const std::vector<Bytes> frames = records(loggerFrames(), 1);
  logger.busLog(layout, 4,
                logger.dl({logger.dt(joined({frames[0], frames[1]})),
                           logger.dt(joined({frames[2], frames[3]}))},
                          44),
                logger.dl({logger.sd(first), logger.sd(second)}));
  logger.busLog(layout, 4, logger.hl(logger.dl({logger.dz(joined(frames))})),
                logger.hl(logger.dl({logger.dz(first, "SD"), logger.dz(second, "SD")})));
  files.emplace_back("frames-logger-lists", logger);

  FileBuilder constant;
  BusLayout channel = lean(dataFrames());
  for (BusField& field : channel.fields) {
    if (field.name == "BusChannel") field.bits = 0;
  }
  constant.busLog(channel, records(channel, 1));
  for (const Link block : constant.blocks()) {
    if (!constant.isA(block, "CN")) continue;
    constant.setLink(block, 4, constant.cc({.type = 1, .values = {7, 0}}));
    break;
  }
  files.emplace_back("frames-constant", constant);
  return files;
}

// Blocks that many lead to: a compressed one that inflates to a multiple of the file, read as the
// data of several groups and channels, as invalidation bytes and as payloads in disorder.
FileBuilder sharedFile() {
  constexpr std::size_t kInflated = 1 << 16;
  FileBuilder file;
  const Link data = file.dz(Bytes(kInflated));
  const Link name = file.tx("CAN_DataFrame");
  const auto group = [&] {
    std::vector<Link> channels = {file.cn({.type = 2, .sync = 1, .dataType = 4, .bitCount = 64}),
                                  file.cn({}), file.cn({})};
    file.setLink(channels[1], 2, name);
    return file.cg({.channels = channels, .records = 64, .dataBytes = 1024});
  };
  file.dg({.groups = {group(), group()}, .data = data});
  file.dg({.groups = {group()}, .data = file.hl(file.dl({data, data}))});

  const Link marks = file.dz(Bytes(kInflated), "DI");
  const Link columns = file.ld({file.dv(packed(1.0)), file.dv(packed(2.0))}, {marks, marks});
  file.signalGroup({kCounter}, {.records = 2, .dataBytes = 8, .invalBytes = 1}, columns);

  BusLayout layout = loggerFrames();
  layout.fields = {{"ID", 8, 3, 29}, {"DataBytes", 14, 0, 64, 10}};
  std::vector<Bytes> frames;
  for (int i = 0; i < 8; ++i) {
    frames.push_back(busRecord(layout, i, {{"DataBytes", i % 2 == 0 ? kInflated : 0}}));
  }
  file.busLog(layout, frames,
              file.dl({file.dz(Bytes(kInflated), "SD"), file.dz(Bytes(kInflated), "SD")}));
  return file;
}

// A file of unsorted records, as `form` says.
class UnsortedWriter {
 public:
  explicit UnsortedWriter(const UnsortedForm& form)
      : form_(form),
        file_({.id = form.unfinalized != 0 ? "UnFinMF " : "MDF     ", .version = 411}),
        firstId_(form.idSize == 8   ? 0x0102030405060708
                 : form.idSize == 1 ? 7
                                    : 258) {
    file_.setByte(60, form.unfinalized);
  }

  // Frames with their payload outside, and records of two variable-length channels and a counter.
  void addMixed() {
    for (std::uint8_t i = 0; i < form_.records; ++i) {
      appendFrame(i, 2.0 * i);
      if (i % 2 != 0) appendTexts(i);
    }
    Link values[kValues];
    for (std::size_t i = 0; i < kValues; ++i) values[i] = valueGroup(i);
    const Link dg = framesGroup(values[0]);
    const Link time = file_.cn({.name = "t", .type = 2, .sync = 1, .dataType = 4, .bitCount = 64});
    const Link text = file_.cn({.name = "text",
                                .type = 1,
                                .dataType = 7,
                                .byteOffset = 8,
                                .bitCount = 64,
                                .data = values[1],
                                .comment = file_.tx("a comment")});
    const Link bytes = file_.cn({.name = "bytes",
                                 .type = 1,
                                 .dataType = 10,
                                 .byteOffset = 16,
                                 .bitCount = 64,
                                 .data = values[2]});
    const std::uint64_t count = stated(counts_[1]);
    const Link texts = file_.cg({.name = "texts",
                                 .channels = {time, text, bytes},
                                 .records = count,
                                 .dataBytes = 24,
                                 .recordId = firstId_ + 1});
    const Link counter = file_.cg({.channels = {file_.cn({.name = "counter", .bitCount = 16})},
                                   .records = count,
                                   .dataBytes = 2,
                                   .recordId = firstId_ + 2,
                                   .comment = file_.tx("counters")});
    file_.chain({values[0], texts, values[1], counter, values[2]});
    file_.setLink(dg, 2, file_.dt(takeRecords()));
  }

  // Frames alone, in the last blocks of the file.
  void addFrames() {
    for (std::uint8_t i = 0; i < form_.records; ++i) appendFrame(i, 2.0 * i + 1);
    const Link dg = framesGroup(valueGroup(0));
    const Bytes all = takeRecords();
    if (form_.listed) {
      addListed(dg, all);
      return;
    }
    const Link data = file_.dt(all);
    if (isOpen(2)) file_.setLength(data, 24);
    file_.setLink(dg, 2, data);
  }

  const FileBuilder& file() const { return file_; }

 private:
  static constexpr std::size_t kValues = 3;  // groups of values: payloads, texts, bytes

  bool isOpen(unsigned flag) const { return (form_.unfinalized >> flag & 1) != 0; }
  std::uint64_t stated(std::uint64_t count) const { return isOpen(0) ? 0 : count; }
  std::uint64_t offset(std::size_t values) const { return isOpen(6) ? 0 : valueBytes_[values]; }

  void append(std::uint64_t id, const Bytes& record) {
    const Bytes idBytes = packed(firstId_ + id);
    parts_.emplace_back(idBytes.begin(), idBytes.begin() + form_.idSize);
    parts_.push_back(record);
    if (id < kValues) ++counts_[id];
  }
  void appendValue(std::size_t values, const Bytes& value) {
    const auto length = static_cast<std::uint32_t>(value.size());
    append(10 + values, joined({packed(length), value}));
    valueBytes_[values] += sizeof length + value.size();
  }

  // Every third one behind its payload.
  void appendFrame(std::uint8_t number, double seconds) {
    const Bytes payload(number % 9, number);
    const Bytes record = busRecord(loggerFrames(), 1e9 * seconds,
                                   {{"BusChannel", 1},
                                    {"ID", 0x100U + number},
                                    {"DLC", payload.size()},
                                    {"DataLength", payload.size()},
                                    {"DataBytes", offset(0)}});
    if (number % 3 == 2) appendValue(0, payload);
    append(0, record);
    if (number % 3 != 2) appendValue(0, payload);
  }
  void appendTexts(std::uint8_t number) {
    append(1, packed(0.5 * number, offset(1), offset(2)));
    appendValue(2, Bytes(number % 3U * 40U, number));
    appendValue(1, {'n', static_cast<std::uint8_t>('a' + number % 26), 0});
    append(2, packed(std::uint16_t{number}));
  }

  Link valueGroup(std::size_t values) {
    const std::uint64_t bytes = isOpen(5) ? 0 : valueBytes_[values];
    return file_.cg({.records = stated(counts_[values == 0 ? 0 : 1]),
                     .dataBytes = static_cast<std::uint32_t>(bytes),
                     .flags = 1,
                     .recordId = firstId_ + 10 + values});
  }
  // A data group of frames in front of their payloads.
  Link framesGroup(Link payloads) {
    const Link dg = file_.busLog(loggerFrames(), stated(counts_[0]), 0, payloads);
    const Link frames = file_.link(dg, 1);
    file_.setByte(file_.dataPosition(dg), form_.idSize);
    file_.setU64(file_.dataPosition(frames), firstId_);
    file_.chain({frames, payloads});
    return dg;
  }
  Bytes takeRecords() {
    Bytes all = joined(parts_);
    parts_.clear();
    std::fill_n(valueBytes_, kValues, 0);
    std::fill_n(counts_, kValues, 0);
    return all;
  }
  // The list first, as by a writer that fills it later.
  void addListed(Link dg, const Bytes& all) {
    const std::uint64_t third = all.size() / 3;
    const Link list = file_.block(
        "DL", {0, 0, 0, 0},
        packed(std::uint32_t{0}, isOpen(4) ? 1U : 3U, std::uint64_t{0}, third, 2 * third));
    file_.setLink(dg, 2, list);
    for (unsigned i = 0; i < 3; ++i) {
      const auto start = all.begin() + static_cast<std::ptrdiff_t>(i * third);
      const auto end = i == 2 ? all.end() : start + static_cast<std::ptrdiff_t>(third);
      const Link block = file_.dt({start, end});
      if (i == 0 || !isOpen(4)) file_.setLink(list, i + 1, block);
      if (i == 2 && isOpen(2)) file_.setLength(block, 24);
    }
  }

  const UnsortedForm form_;
  FileBuilder file_;
  const std::uint64_t firstId_;
  std::vector<Bytes> parts_;  // of the records so far, with their ids
  std::uint64_t valueBytes_[kValues] = {};
  std::uint64_t counts_[kValues] = {};  // of records that are no values
};

}  // namespace

std::span<const DataForm> dataForms() {
  return kDataForms;
}

FileBuilder unsortedFile(const UnsortedForm& form) {
  UnsortedWriter writer(form);
  writer.addMixed();
  writer.addFrames();
  return writer.file();
}

std::vector<std::pair<std::string, FileBuilder>> sampleFiles() {
  auto files = busLogFiles();
  for (const DataForm& form : kDataForms) {
    files.emplace_back(std::string("data-") + form.name, dataFormFile(form));
  }
  files.emplace_back("conversions", conversionsFile());
  files.emplace_back("values", valuesFile());
  files.emplace_back("kinds", kindsFile());
  files.emplace_back("shared", sharedFile());
  files.emplace_back("empty", FileBuilder());
  files.emplace_back("old", FileBuilder({.version = 300}));
  files.emplace_back("unfinalized", FileBuilder({.id = "UnFinMF "}));
  files.emplace_back("unsorted", unsortedFile({}));
  files.emplace_back("unsorted-unfinalized", unsortedFile({.idSize = 2, .unfinalized = 0x25}));
  files.emplace_back("unsorted-offsets",
                     unsortedFile({.idSize = 4, .unfinalized = 0x65, .records = 9}));
  files.emplace_back("unsorted-lists",
                     unsortedFile({.idSize = 8, .unfinalized = 0x35, .listed = true}));
  return files;
}

}  // namespace tolvex::test
