// make_corpus OUTDIR: writes the inputs that the fuzz targets start from, each target's into a
// folder that bears its name without "fuzz_".
#include <cstdio>
#include <exception>
#include <filesystem>
#include <fstream>
#include <memory>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "Mdf4/MdfRecorder.h"
#include "fuzz/FuzzInput.h"
#include "tests/support/FileBuilder.h"
#include "tests/support/SampleFiles.h"

namespace tolvex::fuzz {
namespace {

using namespace test;
namespace fs = std::filesystem;

class Corpus {
 public:
  explicit Corpus(fs::path dir) : dir_(std::move(dir)) {}

  void writeFiles() {
    std::uint8_t command = 0;
    for (const auto& [name, file] : samples()) {
      addFile("copy", name, file, packed(std::uint8_t{1}, std::uint8_t{7}));
      for (int i = 0; i < 2; ++i, ++command) {
        addFile("commands", name + "-" + std::to_string(command % 6), file,
                packed(command, static_cast<std::uint8_t>(command / 6), std::uint8_t{128},
                       std::uint8_t{128}));
      }
      addFile("doctor", name, file, {});
      addFile("doctor", name + "-in-steps", file, packed(std::uint8_t{40}));
      addFile("recover", name, file, packed(std::uint8_t{1}));
      addFile("recover", name + "-twice", file,
              packed(std::uint8_t{0}, std::uint8_t{1}, std::uint8_t{40}));
      addFile("open", name, file, packed(std::uint8_t{1}));
      addFile("signals", name, file,
              packed(std::uint8_t{1}, std::uint8_t{2}, std::int32_t{2}, std::int32_t{5}, 1.25,
                     std::uint8_t{1}));
      addFile("columns", name, file, packed(std::uint8_t{0}, std::uint16_t{1}, std::uint16_t{3}));
      addFile("columns", name + "-twice", file,
              packed(std::uint8_t{1}, std::uint16_t{0}, std::uint16_t{9}));
      addFile("batches", name, file, packed(std::uint8_t{6}, std::uint8_t{3}, std::uint8_t{1}));
      addFile("frames", name, file, packed(std::uint8_t{0}));
      addFile("frames", name + "-switched", file,
              packed(std::uint8_t{3}, std::uint8_t{1}, std::uint8_t{1}, std::uint8_t{2}));
      addFile("frames", name + "-logger", file, packed(std::uint8_t{7}));
    }
    for (const auto& entry : fs::directory_iterator(TOLVEX_TEST_DATA)) {
      const std::string extension = entry.path().extension().string();
      if (extension == ".mf4" || extension == ".MF4") addRecording(entry.path());
    }
  }

  // A recording that was never stopped: blocks of two groups, of which the lists name some.
  void writeKilled() {
    MdfRecorder recorder;
    const std::string path = (folder("recover") / "killed").string();
    if (recorder.startRecord(path, 1) != 0) throw std::runtime_error(recorder.firstError());
    ChannelInfo byte;
    byte.name = "byte";
    byte.byteCount = 1;
    std::unique_ptr<RecordData> records[2];
    for (auto& record : records) {
      const int group = recorder.addDataGroup("bytes");
      if (group == 0) recorder.addChannel(group, timeChannel());
      recorder.addChannel(group, byte);
      record = recorder.createRecordData(group);
    }
    for (unsigned i = 0; i < 2100; ++i) {
      records[0]->setTime(i);
      if (i % 4 == 0) recorder.insertRecord(*records[0], 0);
      recorder.insertRecord(*records[1], 1);
    }
  }

  void writeStreams() {
    for (const DataForm& form : dataForms()) {
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

  void writeLogs() {
    const std::string log =
        "(1436509052.249713) can0 123#DEADBEEF\n(1436509052.25) can1 12345678#R4 T\n"
        "(1436509052.249714) vcan0 123##1DEADBEEF00112233445566\n(0.1) can2 20000080#00 R\r\n"
        "(1436509052.249713) can0 7FF#0011223344556677_F\n(1.2) can300 1#\n\nnothing";
    const Bytes bytes(log.begin(), log.end());
    add("candump", "log", bytes);
    for (std::size_t size = bytes.size(); size > bytes.size() - 16; --size) {
      const Bytes part(bytes.begin(), bytes.begin() + static_cast<std::ptrdiff_t>(size));
      add("commands", "log-" + std::to_string(size), part);
      add("lines", "log-" + std::to_string(size),
          joined(
              {packed(static_cast<std::uint8_t>(size), std::uint16_t{9}, std::uint8_t{1}), part}));
    }
  }

  // Steps as fuzz_handles and fuzz_async take them.
  void writeSteps() {
    const Bytes channel = {'a', 0, 8, 0, 0, 1, 0, 1, 2, 3, 4, 5, 6, 7, 8, 9};
    for (std::uint8_t kind = 0; kind < 12; ++kind) {
      const Bytes formula = {1, kind, 3, 1, 2, 3, 4, 5, 6, 7, 8, 1, 't', 0, 1, 2,   3,
                             4, 5,    6, 7, 8, 2, 1, 2, 3, 4, 5, 6, 7,   8, 3, 'u', 0};
      const Bytes parameters = {1, 2, 3, 4, 5, 6, 7, 8, 9, 48, 't', 0, 3, 0, 4, 1, 2, 3, 4};
      add("handles", std::to_string(kind),
          joined(
              {{3, kind, 1, 2, 3, 4, 4, 5, 1, 2, 3, 4, 5, 2, 9, 2}, channel, formula, parameters}));
    }
    const Bytes group = {0, 'g', 0};
    const Bytes channels = {1, 0, 0, 1, 0, 9, 1, 0, 18};  // time, "j" and "c"
    const Bytes record = {3, 0, 0, 0, 128, 63, 9, 4, 1, 2, 3, 4};
    const Bytes frame = {8, 1, 0x23, 1, 0, 0, 0, 1, 8, 1, 2, 3, 4, 5, 6, 7, 8, 9, 9, 0, 0};
    Bytes error = frame;
    error[0] = 11;
    error.push_back(1);
    const Bytes split = {13, 4};
    const Bytes again = {15};
    add("async", "records", joined({group, channels, record, record, again, frame}));
    add("async", "frames", joined({frame, error, group, channels, frame, record, again, error}));
    add("async", "split", joined({split, group, channels, record, frame, record, frame}));
    add("async", "few-tasks",
        joined({{14, 0, 1, 0, 'c', 0, 0, 'n', 0, 15},
                group,
                channels,
                record,
                record,
                record,
                record}));
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
  // Records that are stored column by column, and so wide that they are turned in tiles.
  static FileBuilder wideFile() {
    constexpr std::uint32_t kColumns = 40;
    constexpr std::uint32_t kRows = 50;
    Bytes records;
    for (std::uint32_t row = 0; row < kRows; ++row) {
      const Bytes time = packed(0.5 * row);
      records.insert(records.end(), time.begin(), time.end());
      records.resize(records.size() + kColumns - time.size(), static_cast<std::uint8_t>(row));
    }
    FileBuilder file;
    file.signalGroup({{.name = "row", .byteOffset = 39}},
                     {.name = "wide", .records = kRows, .dataBytes = kColumns},
                     file.dz(records, "DT", 1, kColumns));
    return file;
  }

  // A bus log whose times are integers, with and without a conversion.
  static FileBuilder ticksFile() {
    FileBuilder file;
    for (const std::uint8_t dataType : {std::uint8_t{0}, std::uint8_t{2}}) {
      BusLayout layout = dataFrames();
      layout.time = {"time", 0, 0, 64, dataType, {}};
      layout.time.linear = {0.5, 1e-6};
      file.busLog(layout, {busRecord(layout, 1000, {{"ID", 1}}), busRecord(layout, 2000, {})});
      layout.time.linear = {};
      layout.timeUnit = "ns";
      file.busLog(layout, {busRecord(layout, 1000, {{"ID", 1}}), busRecord(layout, 2000, {})});
    }
    return file;
  }

  // Those of the tests, and a sequence of records that is longer than what is looked at in one go.
  static std::vector<std::pair<std::string, FileBuilder>> samples() {
    std::vector<std::pair<std::string, FileBuilder>> files = sampleFiles();
    constexpr std::uint32_t kBytes = 700'000;
    for (const bool sorted : {true, false}) {
      Bytes records;
      for (std::uint32_t i = 0; records.size() < kBytes; ++i) {
        if (!sorted) records.push_back(static_cast<std::uint8_t>(1 + i % 2));
        const Bytes record = packed(0.001 * i, i, std::uint32_t{0});
        records.insert(records.end(), record.begin(), record.end());
      }
      FileBuilder file;
      std::vector<Link> groups;
      for (std::uint64_t id = 1; id <= (sorted ? 1U : 2U); ++id) {
        const Link time =
            file.cn({.name = "time", .type = 2, .sync = 1, .dataType = 4, .bitCount = 64});
        const Link count = file.cn({.name = "count", .byteOffset = 8, .bitCount = 32});
        groups.push_back(file.cg({.name = "long",
                                  .channels = {time, count},
                                  .records = records.size() / (sorted ? 16 : 34),
                                  .dataBytes = 16,
                                  .recordId = sorted ? 0 : id}));
      }
      const std::uint8_t idSize = sorted ? 0 : 1;
      file.dg({.groups = groups, .data = file.dt(records), .recordIdSize = idSize});
      files.emplace_back(sorted ? "long-sorted" : "long-unsorted", file);
    }
    files.emplace_back("wide", wideFile());
    files.emplace_back("ticks", ticksFile());
    return files;
  }

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
    for (const std::string target : {"open", "signals", "columns", "frames", "batches", "doctor",
                                     "recover", "commands", "copy"}) {
      const fs::path copy = folder(target) / path.filename();
      fs::copy_file(path, copy, fs::copy_options::overwrite_existing);
      const bool isJudged = target == "doctor" || target == "recover";
      if (isJudged || target == "columns" || target == "batches") continue;
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
    corpus.writeKilled();
    corpus.writeStreams();
    corpus.writeConversions();
    corpus.writeRecordings();
    corpus.writeLogs();
    corpus.writeSteps();
  } catch (const std::exception& error) {
    std::fprintf(stderr, "make_corpus: %s\n", error.what());
    return 1;
  }
  return 0;
}
