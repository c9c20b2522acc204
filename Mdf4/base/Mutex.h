// Locks that clang's thread-safety analysis understands: members name the mutex that guards them,
// functions the one that they need, and what touches a member without its lock does not compile.
#pragma once

#include <chrono>
#include <condition_variable>
#include <mutex>

#include "Mdf4/base/SystemMacros.h"

// Of a member: its mutex.
#define TOLVEX_GUARDED_BY(mutex) TOLVEX_THREAD_SAFETY(guarded_by(mutex))
// Of a function: a mutex that its callers hold, or do not hold.
#define TOLVEX_REQUIRES(mutex) TOLVEX_THREAD_SAFETY(requires_capability(mutex))
#define TOLVEX_EXCLUDES(mutex) TOLVEX_THREAD_SAFETY(locks_excluded(mutex))
// Of a function that does what the analysis cannot follow.
#define TOLVEX_NOT_ANALYSED TOLVEX_THREAD_SAFETY(no_thread_safety_analysis)

namespace tolvex {

class TOLVEX_THREAD_SAFETY(capability("mutex")) Mutex {
 public:
  Mutex() = default;  // constant, where the standard library's is
  Mutex(const Mutex&) = delete;
  Mutex& operator=(const Mutex&) = delete;

  void lock() TOLVEX_THREAD_SAFETY(acquire_capability()) { mutex_.lock(); }
  void unlock() TOLVEX_THREAD_SAFETY(release_capability()) { mutex_.unlock(); }
  // For the body of a lambda, which runs with the mutex held: the analysis takes it for a function
  // of its own.
  void assumeHeld() const TOLVEX_THREAD_SAFETY(assert_capability(this)) {}

 private:
  friend class Condition;

  std::mutex mutex_;
};

// Holds a mutex until the end of a block, but for the time between unlock and lock.
class TOLVEX_THREAD_SAFETY(scoped_lockable) MutexLock {
 public:
  explicit MutexLock(Mutex& mutex) TOLVEX_THREAD_SAFETY(acquire_capability(mutex)) : mutex_(mutex) {
    mutex_.lock();
  }
  MutexLock(const MutexLock&) = delete;
  MutexLock& operator=(const MutexLock&) = delete;
  ~MutexLock() TOLVEX_THREAD_SAFETY(release_capability()) {
    if (held_) mutex_.unlock();
  }

  void unlock() TOLVEX_THREAD_SAFETY(release_capability()) {
    held_ = false;
    mutex_.unlock();
  }
  void lock() TOLVEX_THREAD_SAFETY(acquire_capability()) {
    mutex_.lock();
    held_ = true;
  }

 private:
  Mutex& mutex_;
  bool held_ = true;
};

// What threads wait for. Both waits release the mutex meanwhile and may end without a reason.
class Condition {
 public:
  void notifyAll() { condition_.notify_all(); }
  void wait(Mutex& mutex) TOLVEX_REQUIRES(mutex) {
    std::unique_lock lock(mutex.mutex_, std::adopt_lock);
    condition_.wait(lock);
    static_cast<void>(lock.release());
  }
  // False when the time is over.
  [[nodiscard]] bool waitUntil(Mutex& mutex, std::chrono::steady_clock::time_point time)
      TOLVEX_REQUIRES(mutex) {
    std::unique_lock lock(mutex.mutex_, std::adopt_lock);
    const std::cv_status status = condition_.wait_until(lock, time);
    static_cast<void>(lock.release());
    return status == std::cv_status::no_timeout;
  }

 private:
  std::condition_variable condition_;
};

}  // namespace tolvex
