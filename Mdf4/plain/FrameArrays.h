// Frames from batches into the columns of a caller.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <semaphore>
#include <system_error>
#include <thread>
#include <utility>
#include <vector>

#include "tolvex/MdfColumns.h"
#include "tolvex/MdfFrameReader.h"

namespace tolvex::plain {

// Copies frames behind one another, on a thread of its own if there is one: then the next batch is
// decoded meanwhile.
class FrameArrays {
 public:
  FrameArrays(const tolvex_frame_arrays& to, bool withThread) : to_(to) {
    if (to_.offsets != nullptr) to_.offsets[0] = 0;
    if (withThread) start();
  }
  FrameArrays(const FrameArrays&) = delete;
  FrameArrays& operator=(const FrameArrays&) = delete;
  // When all is copied.
  ~FrameArrays() {
    if (!thread_.joinable()) return;
    done_.acquire();
    job_ = {};
    given_.release();
    thread_.join();
  }

  std::uint64_t count() const { return count_; }
  // Those of the batch from `first` on, as far as there is room. Returns how many. If these are all
  // of them, the batch may hold anything then.
  std::size_t append(MdfFrameBatch& batch, std::size_t first) {
    const std::uint64_t most = std::min<std::uint64_t>(batch.count - first, to_.room - count_);
    Job job = {&batch, first, 0, count_, payloadBytes_};
    job.count = to_.payloads == nullptr ? static_cast<std::size_t>(most)
                                        : withRoomForPayload(batch, first, most);
    count_ += job.count;
    if (!thread_.joinable()) {
      copy(job);
      return job.count;
    }
    await(done_);
    if (first + job.count < batch.count) {
      copy(job);
      done_.release();
      return job.count;
    }
    std::swap(batch, other_);
    job.from = &other_;
    job_ = job;
    given_.release();
    return job.count;
  }

 private:
  // Which frames of a batch belong where.
  struct Job {
    const MdfFrameBatch* from = nullptr;  // null: there are no more
    std::size_t first = 0;
    std::size_t count = 0;
    std::uint64_t at = 0;
    std::uint64_t payloadAt = 0;
  };

  // Waking a thread that sleeps takes longer than the other one mostly does.
  static void await(std::binary_semaphore& semaphore) {
    for (int tries = 0; tries < 500; ++tries) {
      if (semaphore.try_acquire()) return;
      std::this_thread::yield();
    }
    semaphore.acquire();
  }

  void start() {
    try {
      thread_ = std::thread([this] {
        for (await(given_); job_.from != nullptr; await(given_)) {
          copy(job_);
          done_.release();
        }
      });
    } catch (const std::system_error&) {
      // There are no more threads: the caller's does it.
    }
  }

  // How many there are, of at most `most` frames.
  std::size_t withRoomForPayload(const MdfFrameBatch& batch, std::size_t first,
                                 std::uint64_t most) {
    const std::int64_t* const offsets = batch.offsets.data() + first;
    const std::uint64_t room = to_.payload_room - payloadBytes_;
    const auto fits = [&](std::int64_t end) {
      return static_cast<std::uint64_t>(end - offsets[0]) <= room;
    };
    const std::int64_t* const behind = std::partition_point(offsets + 1, offsets + 1 + most, fits);
    const auto count = static_cast<std::size_t>(behind - (offsets + 1));
    payloadBytes_ += static_cast<std::uint64_t>(offsets[count] - offsets[0]);
    return count;
  }

  void copy(const Job& job) const {
    const MdfFrameBatch& from = *job.from;
    put(to_.times, from.timeNs, job);
    put(to_.ids, from.id, job);
    put(to_.buses, from.bus, job);
    put(to_.flags, from.flags, job);
    put(to_.dlcs, from.dlc, job);
    put(to_.kinds, from.kind, job);
    put(to_.rows, from.record, job);
    if (to_.payloads == nullptr) return;
    const std::int64_t* const offsets = from.offsets.data() + job.first;
    std::copy_n(from.bytes.data() + offsets[0], offsets[job.count] - offsets[0],
                to_.payloads + job.payloadAt);
    if (to_.offsets != nullptr) {
      std::int64_t* const ends = to_.offsets + job.at + 1;
      const std::int64_t shift = static_cast<std::int64_t>(job.payloadAt) - offsets[0];
      for (std::size_t i = 0; i < job.count; ++i) ends[i] = offsets[i + 1] + shift;
    }
    if (to_.lengths != nullptr) {
      std::uint8_t* const lengths = to_.lengths + job.at;
      for (std::size_t i = 0; i < job.count; ++i) {
        lengths[i] = static_cast<std::uint8_t>(offsets[i + 1] - offsets[i]);
      }
    }
  }

  template <class Value>
  static void put(Value* to, const std::vector<Value>& from, const Job& job) {
    if (to != nullptr) std::copy_n(from.data() + job.first, job.count, to + job.at);
  }

  const tolvex_frame_arrays to_;
  std::uint64_t count_ = 0;         // frames that were taken
  std::uint64_t payloadBytes_ = 0;  // of them

  // The thread's, while it has work: from given_ to done_.
  Job job_;
  MdfFrameBatch other_;
  std::binary_semaphore given_{0};
  std::binary_semaphore done_{1};
  std::thread thread_;
};

}  // namespace tolvex::plain
