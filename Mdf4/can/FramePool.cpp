#include "Mdf4/can/FramePool.h"

#include <cstddef>
#include <memory>
#include <utility>

#include "Mdf4/base/SystemMacros.h"

namespace tolvex {
namespace {

constexpr std::size_t kMostFree = 256;
constexpr std::size_t kTryAgain = 64;
// Of a control block: its table of functions, two counts, the message and the allocator.
constexpr std::size_t kControlBytes = 2 * sizeof(int) + 3 * sizeof(void*);

// A message with the memory that shared pointers to it need. It is free when the last of them is
// gone, weak ones included.
struct PooledMessage {
  MdfCanMessage message;
  union {
    alignas(void*) std::byte control[kControlBytes];
    PooledMessage* next;  // of the free ones
  };
};

// A thread's free messages. Without a destructor, so that it outlives all objects of its thread,
// which may drop messages to the last.
struct FreeMessages {
  PooledMessage* first;
  std::size_t room;  // for how many more; 0 in threads that make no messages
  // Pooled messages are larger than others, which is lost where none comes back: so many may still
  // be allocated. Each one that comes back allows another, and so do kTryAgain of the others.
  std::size_t credit;
  std::size_t others;
  bool isSetUp;
};

constinit thread_local FreeMessages freeMessages = {nullptr, 0, kMostFree, 0, false};

// At the end of a thread, deletes its free messages.
class FreeAtThreadEnd {
 public:
  explicit FreeAtThreadEnd(FreeMessages& messages) : messages_(messages) {}
  FreeAtThreadEnd(const FreeAtThreadEnd&) = delete;
  FreeAtThreadEnd& operator=(const FreeAtThreadEnd&) = delete;
  ~FreeAtThreadEnd() {
    messages_.room = 0;
    while (messages_.first != nullptr) {
      delete std::exchange(messages_.first, messages_.first->next);
    }
  }

 private:
  FreeMessages& messages_;
};

void setUp(FreeMessages& messages) {
  static thread_local const FreeAtThreadEnd atThreadEnd(messages);
  messages.room = kMostFree;
  messages.isSetUp = true;
}

PooledMessage* allocate(FreeMessages& messages) {
  if (!messages.isSetUp) setUp(messages);
  if (messages.credit == 0) {
    if (++messages.others < kTryAgain) return nullptr;
    messages.others = 0;
    ++messages.credit;
  }
  auto* const made = new PooledMessage;
  --messages.credit;
  return made;
}

// Null: one that is not pooled will do.
PooledMessage* take() {
  FreeMessages& messages = freeMessages;
  PooledMessage* const first = messages.first;
  if (first == nullptr) return allocate(messages);
  if (messages.credit < kMostFree) ++messages.credit;
  messages.first = first->next;
  ++messages.room;
  first->message.Reset();
  first->message.Timestamp(0);
  return first;
}

void giveBack(PooledMessage* message) noexcept {
  FreeMessages& messages = freeMessages;
  if (messages.room == 0) {
    delete message;
    return;
  }
  message->next = messages.first;
  messages.first = message;
  --messages.room;
}

// Allocates nothing but the control block of the pointers to one message.
template <class T>
class ControlAllocator {
 public:
  using value_type = T;

  explicit ControlAllocator(PooledMessage* message) : message_(message) {}
  // Allocators convert.
  template <class U>
  ControlAllocator(const ControlAllocator<U>& other)  // NOLINT(google-explicit-constructor)
      : message_(other.message()) {}

  T* allocate(std::size_t) noexcept {
    static_assert(sizeof(T) <= kControlBytes);
    static_assert(alignof(T) <= alignof(void*));  // NOLINT(misc-redundant-expression)
    return reinterpret_cast<T*>(message_->control);
  }
  void deallocate(T*, std::size_t) noexcept { giveBack(message_); }

  PooledMessage* message() const { return message_; }
  template <class U>
  bool operator==(const ControlAllocator<U>& other) const {
    return message_ == other.message();
  }

 private:
  PooledMessage* message_;
};

// The message stays, for its memory to be used again.
struct KeepMessage {
  void operator()(MdfCanMessage*) const {}
};

}  // namespace

MdfFrame makeMessage() {
  PooledMessage* const pooled = kMemoryIsWatched ? nullptr : take();
  if (pooled == nullptr) return std::make_shared<MdfCanMessage>();
  return MdfFrame(std::in_place_index<0>, &pooled->message, KeepMessage(),
                  ControlAllocator<MdfCanMessage>(pooled));
}

}  // namespace tolvex
