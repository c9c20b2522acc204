// A queue of tasks and the thread that works it off.
#pragma once

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <memory>
#include <new>
#include <thread>
#include <utility>

#include "Mdf4/base/Mutex.h"
#include "Mdf4/base/System.h"

namespace tolvex {

// What a thread of the library waits for. In a child process (fork), which does not have that
// thread, destroying this would wait for ever, so it is leaked there.
template <class State>
class ThreadState {
 public:
  ThreadState() = default;
  ThreadState(const ThreadState&) = delete;
  ThreadState& operator=(const ThreadState&) = delete;
  ~ThreadState() {
    if (inherited()) static_cast<void>(state_.release());
  }

  State* operator->() const { return state_.get(); }
  State& operator*() const { return *state_; }
  // Whether this process is a child of the one that made it, or adopted it last.
  bool inherited() const {
    return generation_.load(std::memory_order_relaxed) != processGeneration();
  }
  // While no thread waits; others may call inherited() meanwhile.
  void adopt() { generation_.store(processGeneration(), std::memory_order_relaxed); }

 private:
  std::atomic<unsigned> generation_ = processGeneration();
  std::unique_ptr<State> state_ = std::make_unique<State>();
};

// Tasks wait in a `Batch`, a container with empty() and clear(), whose count the caller keeps:
// under mutex_, push into queued_ and call count(), then announce() without it. One worker, started
// by the first task, takes whole batches.
//
// While tasks keep coming the worker naps between batches and is not woken, so a producer makes a
// system call only for the first task after a pause and when many wait. Derived classes stop the
// worker before they are destroyed.
template <class Batch>
class WorkerThread {
 public:
  WorkerThread() = default;
  WorkerThread(const WorkerThread&) = delete;
  WorkerThread& operator=(const WorkerThread&) = delete;
  virtual ~WorkerThread() = default;

 protected:
  // The thread's body: take batches until there are no more.
  virtual void doWork() = 0;
  virtual void notify() { thread_->condition.notifyAll(); }

  struct Counted {
    std::uint64_t pending;  // tasks, with the one just counted
    bool wake;              // the worker sleeps
  };
  // Counts a task that the caller has just pushed and starts the worker when there is none. Throws
  // std::system_error when there can be no thread; the task stays queued. Without memory for one
  // the next task tries again.
  [[nodiscard]] Counted count() TOLVEX_REQUIRES(mutex_) {
    const std::uint64_t pending = pending_.fetch_add(1, std::memory_order_relaxed) + 1;
    const bool wake = sleeping_ && (idle_ || pending >= kWakeAt);
    if (wake) sleeping_ = false;
    if (!thread_->worker.joinable()) startWorker();
    return {pending, wake};
  }
  void announce(const Counted& task) TOLVEX_EXCLUDES(mutex_) {
    if (task.wake) notify();
  }
  // Tasks queued or taken and not yet done.
  std::uint64_t pending() const { return pending_.load(std::memory_order_relaxed); }
  void done(std::uint64_t tasks) { pending_.fetch_sub(tasks, std::memory_order_relaxed); }

  // For the worker: all tasks that wait, into `batch`. Waits for the first. False, with an empty
  // batch, when none waits and the worker is to stop.
  [[nodiscard]] bool take(Batch& batch) TOLVEX_EXCLUDES(mutex_) {
    batch.clear();
    const MutexLock lock(mutex_);
    if (!stopping() && pending() < kWakeAt) {
      sleeping_ = true;
      const auto end = std::chrono::steady_clock::now() + kNap;
      while (!stopping() && sleeping_ && thread_->condition.waitUntil(mutex_, end)) {
      }
    }
    if (queued_.empty()) {
      sleeping_ = idle_ = true;
      while (!stopping() && queued_.empty()) thread_->condition.wait(mutex_);
      idle_ = false;
    }
    sleeping_ = false;
    std::swap(batch, queued_);
    return !batch.empty();
  }

  // For a new recording: no task is queued and no worker runs.
  void allow() {
    stop_ = false;
    thread_.adopt();
  }
  // Whether the worker is a thread of the parent process. mutex_ may then be locked for ever.
  bool inherited() const { return thread_.inherited(); }
  // Lets the worker finish what is queued and waits for its end. Tasks that no worker could be
  // started for stay queued.
  void stop() TOLVEX_EXCLUDES(mutex_) {
    {
      const MutexLock lock(mutex_);
      stop_ = true;
    }
    notify();
    if (thread_->worker.joinable()) thread_->worker.join();
  }
  bool stopping() const { return stop_.load(std::memory_order_relaxed); }

  // Guards the worker too, until stop, and what derived classes add.
  mutable Mutex mutex_;
  Batch queued_ TOLVEX_GUARDED_BY(mutex_);

 private:
  void startWorker() TOLVEX_REQUIRES(mutex_) {
    try {
      thread_->worker = std::thread([this] { doWork(); });
    } catch (const std::bad_alloc&) {
    }
  }

  // With this many pending tasks a nap ends. Far below any sensible limit of the queue, and enough
  // to make waking cheap.
  static constexpr std::uint64_t kWakeAt = 1024;
  static constexpr std::chrono::milliseconds kNap{1};

  struct Thread {
    Condition condition;
    std::thread worker;
  };

  ThreadState<Thread> thread_;
  std::atomic<bool> stop_ = false;
  std::atomic<std::uint64_t> pending_ = 0;
  bool sleeping_ TOLVEX_GUARDED_BY(mutex_) = false;  // the worker waits for the condition
  bool idle_ TOLVEX_GUARDED_BY(mutex_) = false;      // without an end to its nap
};

}  // namespace tolvex
