// What the C++ interface takes for the work that bench.py has the Python package do: seconds, the
// best of a number of runs, on the standard output.
#include <fmt/format.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "tolvex/MdfColumnReader.h"
#include "tolvex/MdfColumns.h"
#include "tolvex/MdfEngine.h"
#include "tolvex/MdfFrameReader.h"

namespace {

using namespace tolvex;

using Arguments = std::vector<std::string>;

void require(bool done, const std::string& what) {
  if (!done) throw std::runtime_error(what);
}

// `after` is not timed.
double best(
    int runs, const std::function<void()>& work, const std::function<void()>& after = [] {}) {
  double least = 1e9;
  for (int run = 0; run < runs; ++run) {
    const auto begin = std::chrono::steady_clock::now();
    work();
    least = std::min(
        least, std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count());
    after();
  }
  return least;
}

// FILE GROUP COUNT THREADS: the first columns of a group, float64, into new memory.
double columns(const Arguments& arguments, int runs) {
  MdfColumnReader reader(arguments.at(0));
  require(reader.open(), reader.error());
  const int group = std::stoi(arguments.at(1));
  const auto count = static_cast<std::size_t>(std::stoul(arguments.at(2)));
  MdfReadOptions options;
  options.threads = static_cast<unsigned>(std::stoul(arguments.at(3)));
  const std::uint64_t records = reader.groups().at(static_cast<std::size_t>(group)).records;
  std::vector<std::unique_ptr<double[]>> memory;
  std::vector<std::unique_ptr<std::uint8_t[]>> bits;
  const auto read = [&] {
    std::vector<MdfColumnTarget> targets;
    for (std::size_t i = 0; i < count; ++i) {
      memory.emplace_back(new double[records]);
      bits.emplace_back(new std::uint8_t[records / 8 + 1]);
      const auto channel = static_cast<std::int32_t>(i + 1);  // behind the time
      targets.push_back({.channel = channel, .values = memory[i].get(), .validity = bits[i].get()});
    }
    require(reader.read(group, targets, 0, records, options) == static_cast<std::int64_t>(records),
            "columns: not all records were read");
  };
  return best(runs, read, [&] {
    memory.clear();
    bits.clear();
  });
}

// FILE COUNT MOST: all frames, in batches of at most MOST, the first one in new memory.
double frames(const Arguments& arguments, int runs) {
  MdfFrameReader reader(arguments.at(0));
  require(reader.open(), reader.error());
  const auto most = static_cast<std::size_t>(std::stoull(arguments.at(2)));
  MdfFrameBatch batch;
  const auto read = [&] {
    reader.select({});
    std::uint64_t count = 0;
    while (reader.next(batch, most)) count += batch.count;
    require(count == std::stoull(arguments.at(1)), "frames: not all frames were read");
  };
  return best(runs, read, [&] { batch = {}; });
}

// FILE: opened.
double open(const Arguments& arguments, int runs) {
  return best(runs, [&] {
    MdfColumnReader reader(arguments.at(0));
    require(reader.open(), reader.error());
  });
}

// FILE ROWS COLUMNS: records of a time and doubles, one call each.
double insert(const Arguments& arguments, int runs) {
  setDiagnosticHandler(nullptr, nullptr);
  const auto rows = std::stoull(arguments.at(1));
  const auto count = static_cast<std::size_t>(std::stoul(arguments.at(2)));
  return best(runs, [&] {
    void* const recorder = createRecorder(false);
    require(startRecord(recorder, arguments.at(0).c_str(), 1) == 0, "insert: no file");
    const int group = addDataGroup(recorder, "bench");
    for (std::size_t i = 0; i <= count; ++i) {
      void* const channel = allocChannel();
      const std::uint8_t master = 2;
      const std::uint8_t byTime = 1;
      const std::uint8_t float64 = 4;
      const std::uint32_t bytes = sizeof(double);
      const std::string name = i == 0 ? "time" : std::string("x").append(std::to_string(i));
      setChannelParameter(channel, MDF_CHANNEL_NAME, 0, name.c_str());
      if (i == 0) {
        setChannelParameter(channel, MDF_CHANNEL_TYPE, 1, &master);
        setChannelParameter(channel, MDF_CHANNEL_SYNC_TYPE, 1, &byTime);
      }
      setChannelParameter(channel, MDF_CHANNEL_DATA_TYPE, 1, &float64);
      setChannelParameter(channel, MDF_CHANNEL_BYTE_COUNT, 4, &bytes);
      addChannelToDG(recorder, group, channel);
      freeChannel(channel);
    }
    std::vector<double> record(count + 1);
    for (std::uint64_t row = 0; row < rows; ++row) {
      record[0] = 0.001 * static_cast<double>(row);
      for (std::size_t i = 1; i <= count; ++i) record[i] = static_cast<double>(row + i);
      require(insertDataToDG(recorder, static_cast<unsigned>(group),
                             static_cast<int>(record.size() * sizeof(double)), record.data()) == 0,
              "insert: a record was refused");
    }
    stopRecord(recorder, 0);
    deleteRecorder(recorder);
  });
}

// FOLDER: a summary of each of its files.
double summaries(const Arguments& arguments, int runs) {
  return best(runs, [&] {
    for (const auto& entry : std::filesystem::directory_iterator(arguments.at(0))) {
      tolvex_summary summary = {};
      summary.size = sizeof summary;
      require(tolvex_summarize_file(entry.path().c_str(), &summary, nullptr, 0) == TOLVEX_OK,
              "summaries: a file was refused");
    }
  });
}

}  // namespace

int main(int count, char** values) {
  const std::map<std::string, double (*)(const Arguments&, int)> works = {{"columns", columns},
                                                                          {"frames", frames},
                                                                          {"open", open},
                                                                          {"insert", insert},
                                                                          {"summaries", summaries}};
  const Arguments arguments(values + 1, values + count);
  try {
    const auto work = works.at(arguments.at(0));
    fmt::print("{:.9f}\n",
               work({arguments.begin() + 2, arguments.end()}, std::stoi(arguments.at(1))));
  } catch (const std::exception& error) {
    fmt::print(stderr, "Peer: {}\n", error.what());
    return 1;
  }
}
