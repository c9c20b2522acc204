// CAN frames into what else one would take, those that are installed: every frame one call.
#include <fmt/format.h>

#include "bench/Bench.h"
#include "bench/Recordings.h"
#include "tests/support/FileBuilder.h"

#ifdef TOLVEX_BENCH_HDF5
#include <hdf5.h>
#include <hdf5_hl.h>
#endif
#ifdef TOLVEX_BENCH_SQLITE
#include <sqlite3.h>
#endif

namespace tolvex::bench {
namespace {

// Each recording gives the number of frames that the file holds.
using Record = std::uint64_t (*)(const std::string& path, const Traffic& traffic,
                                 std::uint64_t count);

#ifdef TOLVEX_BENCH_HDF5
// A packet table of the bus log's records.
std::uint64_t recordWithHdf5(const std::string& path, const Traffic& traffic, std::uint64_t count) {
  constexpr hsize_t kPacketsPerChunk = 512;
  const hsize_t payloadSize = 8;
  const hid_t payload = H5Tarray_create(H5T_STD_U8LE, 1, &payloadSize);
  const hid_t type = H5Tcreate(H5T_COMPOUND, kFrameRecordBytes);
  H5Tinsert(type, "time", 0, H5T_IEEE_F64LE);
  H5Tinsert(type, "busChannel", 8, H5T_STD_U8LE);
  H5Tinsert(type, "dlc", 9, H5T_STD_U8LE);
  H5Tinsert(type, "flags", 10, H5T_STD_U8LE);
  H5Tinsert(type, "id", 11, H5T_STD_U32LE);
  H5Tinsert(type, "payload", 15, payload);
  const hid_t file = H5Fcreate(path.c_str(), H5F_ACC_TRUNC, H5P_DEFAULT, H5P_DEFAULT);
  const hid_t table = H5PTcreate(file, "frames", type, kPacketsPerChunk, H5P_DEFAULT);
  for (std::uint64_t i = 0; i < count; ++i) {
    const FrameRecord record(traffic.frame(i), Traffic::timeUs(i));
    H5PTappend(table, 1, record.bytes.data());
  }
  hsize_t stored = 0;
  H5PTget_num_packets(table, &stored);
  H5PTclose(table);
  H5Fclose(file);
  H5Tclose(type);
  H5Tclose(payload);
  return stored;
}
#endif

#ifdef TOLVEX_BENCH_SQLITE
// A row per frame through one prepared statement, 10000 rows in a transaction; nothing waits for
// the disk.
std::uint64_t recordWithSqlite(const std::string& path, const Traffic& traffic,
                               std::uint64_t count) {
  constexpr std::uint64_t kPerTransaction = 10'000;
  sqlite3* database = nullptr;
  if (sqlite3_open(path.c_str(), &database) != SQLITE_OK) return 0;
  const auto execute = [&](const char* sql) {
    sqlite3_exec(database, sql, nullptr, nullptr, nullptr);
  };
  execute("PRAGMA synchronous=OFF");
  execute("CREATE TABLE frames(time REAL, channel INT, dlc INT, flags INT, id INT, payload BLOB)");
  sqlite3_stmt* insert = nullptr;
  sqlite3_prepare_v2(database, "INSERT INTO frames VALUES(?,?,?,?,?,?)", -1, &insert, nullptr);
  std::uint64_t inserted = 0;
  for (std::uint64_t i = 0; i < count; ++i) {
    if (i % kPerTransaction == 0) execute(i == 0 ? "BEGIN" : "COMMIT; BEGIN");
    const PlainFrame& frame = traffic.frame(i);
    sqlite3_bind_double(insert, 1,
                        static_cast<double>(Traffic::timeUs(i) - kStartTimeUs) / 1'000'000);
    sqlite3_bind_int(insert, 2, frame.busChannel);
    sqlite3_bind_int(insert, 3, frame.dlc);
    sqlite3_bind_int(insert, 4, frame.flags);
    sqlite3_bind_int64(insert, 5, frame.id);
    sqlite3_bind_blob(insert, 6, frame.payload.data(), static_cast<int>(frame.payload.size()),
                      SQLITE_STATIC);
    if (sqlite3_step(insert) == SQLITE_DONE) ++inserted;
    sqlite3_reset(insert);
  }
  execute("COMMIT");
  sqlite3_finalize(insert);
  sqlite3_close(database);
  return inserted;
}
#endif

[[maybe_unused]] void addRow(const char* peer, Record record) {
  add(fmt::format("saveCanMessage / {}", peer), [=](benchmark::State& state) {
    constexpr double kGoal = 0.1;
    const test::TempDir folder;
    const Traffic traffic(1);
    const std::uint64_t count = scaled(500'000);
    const auto contestant = [&](const char* name, Record with) {
      return [&, name, with] {
        const std::string path = folder.path(name);
        removeFile(path);
        return timed([&] { return with(path, traffic, count); });
      };
    };
    const auto items = static_cast<double>(count);
    compare(state, {items, items * kFrameRecordBytes, kGoal},
            contestant("frames.mf4", recordFrames), contestant("peer", record));
  });
}

}  // namespace

void addPeerBenches() {
#ifdef TOLVEX_BENCH_HDF5
  addRow("HDF5 packet table", recordWithHdf5);
#endif
#ifdef TOLVEX_BENCH_SQLITE
  addRow("SQLite", recordWithSqlite);
#endif
}

}  // namespace tolvex::bench
