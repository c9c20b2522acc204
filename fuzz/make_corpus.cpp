// make_corpus OUTDIR: writes the inputs that the fuzz targets start from, each target's into a
// folder that bears its name without "fuzz_".
#include <cstdio>
#include <exception>
#include <filesystem>
#include <fstream>
#include <memory>
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
    for (const auto& [name, file] : sampleFiles()) {
      addFile("doctor", name, file, {});
      addFile("recover", name, file, packed(std::uint8_t{1}));
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

  // A recording that was never stopped: blocks of two groups, of which the lists name some.
  void writeKilled() {
    MdfRecorder recorder;
    recorder.startRecord((folder("recover") / "killed").string(), 1);
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
    for (const char* target : {"open", "signals", "frames", "doctor", "recover"}) {
      const fs::path copy = folder(target) / path.filename();
      fs::copy_file(path, copy, fs::copy_options::overwrite_existing);
      if (target == std::string("doctor") || target == std::string("recover")) continue;
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
  } catch (const std::exception& error) {
    std::fprintf(stderr, "make_corpus: %s\n", error.what());
    return 1;
  }
  return 0;
}
