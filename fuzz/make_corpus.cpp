// make_corpus OUTDIR: writes the inputs that the fuzz targets start from, each target's into a
// folder that bears its name without "fuzz_".
#include <cstdio>
#include <exception>
#include <filesystem>
#include <fstream>
#include <string>
#include <utility>
#include <vector>

#include "fuzz/FuzzInput.h"
#include "tests/support/FileBuilder.h"

namespace tolvex::fuzz {
namespace {

using namespace test;
namespace fs = std::filesystem;

// `count` records of a time, a counter and a byte that alternates.
constexpr std::uint32_t kRampSize = 11;
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

// The same records in every way that a file may store them.
struct DataForm {
  const char* name;
  Link (*store)(FileBuilder& file);
  bool marked = false;  // with invalidation bytes, one a record, in blocks of their own
};
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

class Corpus {
 public:
  explicit Corpus(fs::path dir) : dir_(std::move(dir)) {}

  void writeFiles() {
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
    for (const auto& [name, file] : files) {
      addFile("open", name, file, packed(std::uint8_t{1}));
      addFile("signals", name, file,
              packed(std::uint8_t{1}, std::uint8_t{2}, std::int32_t{2}, std::int32_t{5}, 1.25,
                     std::uint8_t{1}));
      addFile("frames", name, file, packed(std::uint8_t{0}));
      addFile("frames", name + "-switched", file,
              packed(std::uint8_t{3}, std::uint8_t{1}, std::uint8_t{1}, std::uint8_t{2}));
    }
    for (const auto& entry : fs::directory_iterator(TOLVEX_TEST_DATA)) {
      const std::string extension = entry.path().extension().string();
      if (extension == ".mf4" || extension == ".MF4") addRecording(entry.path());
    }
  }

  void writeStreams() {
    for (const DataForm& form : kDataForms) {
      FileBuilder file;
      const Link link = form.store(file);
      addFile("stream", form.name, file,
              packed(link, std::uint32_t{7}, kRampSize, std::uint16_t{form.marked}));
    }
    FileBuilder file;
    const Bytes values = joined({packed(std::uint32_t{2}), {7, 8}, packed(std::uint32_t{1}), {9}});
    const Link link = file.dl({file.sd(values), file.dz(values, "SD")});
    addFile("stream", "values", file, packed(link));
  }

  void writeConversions() {
    const std::vector<double> values[] = {
        {},
        {1, 0.5},
        {0, 2, 0, 0, 0, 1},
        {},
        {0, 0, 1, 10, 2000, 20},
        {0, 0, 1, 10, 2000, 20},
        {0, 1, 5, 2, 3000, 6, 7},
        {0, 1},
        {0, 1, 2, 3000},
        {4, 5, 6},
        {},
        {1, 1, 2, 2},
    };
    const std::uint8_t textCounts[] = {0, 0, 0, 1, 0, 0, 0, 3, 3, 3, 5, 2};
    for (std::uint8_t type = 0; type < 12; ++type) {
      const std::uint8_t texts = textCounts[type];
      for (std::uint8_t dataType = 0; dataType < 16; ++dataType) {
        const std::uint8_t bits = dataType == 4 ? 64 : dataType == 5 ? 32 : dataType > 5 ? 48 : 13;
        const auto shift = static_cast<std::uint8_t>(dataType < 4 ? dataType : 0);
        std::vector<Bytes> parts = {
            packed(1.0, dataType, shift, bits, type, std::uint32_t{1}, std::uint32_t{2},
                   std::uint32_t{60}, static_cast<std::uint16_t>(values[type].size()),
                   std::uint16_t{texts}, static_cast<std::uint8_t>(values[type].size()), texts,
                   std::uint8_t{2}, std::uint8_t{3}, static_cast<std::uint8_t>(0x3F)),
            Bytes(8 * sizeof(float))};
        for (const double value : values[type]) parts.push_back(packed(value));
        for (std::uint8_t i = 0; i < texts; ++i) {
          parts.push_back({'t', static_cast<std::uint8_t>('0' + i), 0});
        }
        parts.push_back({0, 't', 'e', 'x', 't', 1, 2, 3, 4, 5});
        add("conversion", std::to_string(type) + "-" + std::to_string(dataType), joined(parts));
      }
    }
  }

  // Steps as fuzz_record takes them: a group, a channel of 8 bytes, records; frames.
  void writeRecordings() {
    const Bytes group = {0, 'g', 0};
    Bytes channel = {1, 't', 'i', 'm', 'e', 0, 's', 0, 0, 2, 1, 4, 0, 8, 0};
    channel.resize(channel.size() + 18);  // no mask, no limit, no formula, the first group
    const Bytes record = {4, 0, 8, 1, 2, 3, 4, 5, 6, 7, 8};
    Bytes frame = {5, 1, 0x23, 1, 0, 0, 0, 1, 8, 8, 1, 2, 3, 4, 5, 6, 7, 8};
    frame.resize(frame.size() + 9);  // its time, and that it is no error
    add("record", "signals", joined({group, channel, record, record}));
    add("record", "frames", joined({frame, frame, group, frame}));
  }

 private:
  fs::path folder(const std::string& target) const {
    fs::create_directories(dir_ / target);
    return dir_ / target;
  }

  void addFile(const std::string& target, const std::string& name, FileBuilder file,
               const Bytes& steering) {
    for (std::size_t i = 0; i < steering.size(); ++i) {
      file.setByte(kSteeringOffset + i, steering[i]);
    }
    fs::copy_file(file.write(), folder(target) / name, fs::copy_options::overwrite_existing);
  }

  // A recording of a logger, which claims to be finished even where it is not.
  void addRecording(const fs::path& path) {
    for (const char* target : {"open", "signals", "frames"}) {
      const fs::path copy = folder(target) / path.filename();
      fs::copy_file(path, copy, fs::copy_options::overwrite_existing);
      std::fstream file(copy, std::ios::binary | std::ios::in | std::ios::out);
      if (!file.write("MDF     ", 8).flush())
        throw std::runtime_error("cannot write " + copy.string());
    }
  }

  void add(const std::string& target, const std::string& name, const Bytes& bytes) {
    std::ofstream out(folder(target) / name, std::ios::binary);
    out.write(reinterpret_cast<const char*>(bytes.data()),
              static_cast<std::streamsize>(bytes.size()));
    if (!out.flush()) throw std::runtime_error("cannot write " + name);
  }

  fs::path dir_;
};

}  // namespace
}  // namespace tolvex::fuzz

int main(int argc, char** argv) {
  if (argc != 2) {
    std::fputs("usage: make_corpus OUTDIR\n", stderr);
    return 2;
  }
  try {
    tolvex::fuzz::Corpus corpus(argv[1]);
    corpus.writeFiles();
    corpus.writeStreams();
    corpus.writeConversions();
    corpus.writeRecordings();
  } catch (const std::exception& error) {
    std::fprintf(stderr, "make_corpus: %s\n", error.what());
    return 1;
  }
  return 0;
}
