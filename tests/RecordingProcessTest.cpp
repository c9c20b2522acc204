// Whose file a recording is: of one recorder among several, and of one process among its children.
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <csignal>
#include <filesystem>
#include <functional>
#include <iterator>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

#include "Mdf4/MdfAsyncRecorder.h"
#include "tests/kill/MixedRecording.h"
#include "tests/support/Diagnostics.h"
#include "tests/support/FileBuilder.h"
#include "tests/support/RecordedFile.h"
#include "tolvex/Mdf4.h"

namespace tolvex::test {
namespace {

constexpr std::uint64_t kStart = 1'700'000'000'000'000;  // microseconds
constexpr std::size_t kGroup = 2;                        // behind the start and stop time

std::unique_ptr<MdfRecorder> makeRecorder(bool async, FileOpener open = openSystemFile) {
  if (async) return std::make_unique<MdfAsyncRecorder>(std::move(open));
  return std::make_unique<MdfRecorder>(std::move(open));
}

// Starts a recording of one group of 8 bytes. What startRecord gives.
int start(MdfRecorder& recorder, const std::string& path) {
  const int result = recorder.startRecord(path, kStart);
  ChannelInfo number;
  number.name = "number";
  number.byteCount = 8;
  if (result == 0) recorder.addChannel(recorder.addDataGroup("numbers"), number);
  return result;
}

void insert(MdfRecorder& recorder, std::uint64_t first, std::uint64_t end) {
  const auto record = recorder.createRecordData(0);
  for (std::uint64_t number = first; number < end; ++number) {
    record->setData("number", sizeof number, packed(number).data());
    ASSERT_TRUE(recorder.insertRecord(*record, 0)) << number;
  }
}

// The numbers in a file that was completed.
void expectNumbers(const std::string& path, std::uint64_t count) {
  const RecordedFile file(path);
  Bytes expected;
  for (std::uint64_t number = 0; number < count; ++number) {
    const Bytes bytes = packed(number);
    expected.insert(expected.end(), bytes.begin(), bytes.end());
  }
  ASSERT_GT(file.groups.size(), kGroup);
  EXPECT_EQ(file.groups[kGroup].cg.cg_cycle_count, count);
  EXPECT_TRUE(file.groups[kGroup].bytes == expected);
}

// A child process that runs `work` and stays until it is told to go on. It is ended by a signal
// when it hangs.
class Child {
 public:
  explicit Child(const std::function<bool()>& work) {
    if (::pipe(done_) != 0 || ::pipe(goOn_) != 0) throw std::runtime_error("no pipe");
    process_ = ::fork();
    if (process_ != 0) {
      ::close(std::exchange(done_[1], -1));
      ::close(std::exchange(goOn_[0], -1));
      char result = 0;
      good_ = ::read(done_[0], &result, 1) == 1 && result == 1;
      return;
    }
    constexpr unsigned kSeconds = 60;
    ::alarm(kSeconds);
    ::close(goOn_[1]);
    const char result = work() ? 1 : 0;
    if (::write(done_[1], &result, 1) != 1) ::_exit(1);
    char end = 0;
    ::_exit(static_cast<int>(::read(goOn_[0], &end, 1)));
  }
  ~Child() {
    ::close(done_[0]);
    ::close(goOn_[1]);
    ::waitpid(process_, nullptr, 0);
  }
  Child(const Child&) = delete;
  Child& operator=(const Child&) = delete;

  bool good() const { return good_; }  // whether the work came to its end, and gave true
  void kill() const {
    ::kill(process_, SIGKILL);
    ::waitpid(process_, nullptr, 0);
  }

 private:
  int done_[2] = {-1, -1};
  int goOn_[2] = {-1, -1};
  pid_t process_ = -1;
  bool good_ = false;
};

class RecordingProcess : public testing::TestWithParam<bool> {
 protected:
  void TearDown() override { recorderSettings.splitSize = 0; }

  void expectRefused(MdfRecorder& recorder, const std::string& path) {
    EXPECT_EQ(start(recorder, path), 1);
    EXPECT_EQ(recorder.firstError(), path + ": locked by another recorder or program");
    EXPECT_NE(diagnostics_.text().find("startRecord failed!, " + recorder.firstError()),
              std::string::npos);
  }

  const CapturedDiagnostics diagnostics_;
  TempDir dir_;
  std::string path_ = dir_.path("log.mf4");
};

TEST_P(RecordingProcess, ASecondRecorderLeavesTheFileToTheFirst) {
  const auto first = makeRecorder(GetParam());
  const auto second = makeRecorder(GetParam());
  const std::string alias = dir_.path("alias.mf4");
  ASSERT_EQ(start(*first, path_), 0);
  std::filesystem::create_hard_link(path_, alias);
  insert(*first, 0, 600);
  expectRefused(*second, path_);
  expectRefused(*second, alias);
  insert(*first, 600, 1500);
  first->stopRecord(kStart);
  expectNumbers(path_, 1500);

  EXPECT_EQ(start(*second, path_), 0);
  expectRefused(*first, path_);
  second->stopRecord(kStart);
  expectNumbers(path_, 0);
}

TEST_P(RecordingProcess, ASplitLeavesTheNextFileToItsRecorder) {
  const auto first = makeRecorder(false);
  const auto second = makeRecorder(GetParam());
  const std::string next = dir_.path("log_1.mf4");
  ASSERT_EQ(start(*first, next), 0);
  insert(*first, 0, 600);
  ASSERT_EQ(start(*second, path_), 0);
  insert(*second, 0, 1);
  recorderSettings.splitSize = 1;
  const auto record = second->createRecordData(0);
  second->insertRecord(*record, 0);
  while (second->pendingTasks() != 0) std::this_thread::yield();
  recorderSettings.splitSize = 0;
  EXPECT_EQ(second->firstError(), next + ": locked by another recorder or program");
  insert(*first, 600, 1500);
  second->stopRecord(kStart);
  first->stopRecord(kStart);
  expectNumbers(next, 1500);
}

TEST_P(RecordingProcess, AnotherProcessHoldsItsFileUntilItIsDoneOrKilled) {
  const auto recorder = makeRecorder(GetParam());
  for (const bool stops : {true, false}) {
    const Child other([&] {
      auto theirs = makeRecorder(false);
      const bool started = start(*theirs, path_) == 0;
      insert(*theirs, 0, 600);
      if (stops) theirs->stopRecord(kStart);
      return started && (stops || theirs.release() != nullptr);
    });
    EXPECT_TRUE(other.good());
    if (stops) {
      expectNumbers(path_, 600);
    } else {
      expectRefused(*recorder, path_);
      EXPECT_GT(std::filesystem::file_size(path_), 8U * 512);
      other.kill();
    }
    EXPECT_EQ(start(*recorder, path_), 0);
    recorder->stopRecord(kStart);
  }
}

TEST_P(RecordingProcess, AChildThatOutlivesItsParentDoesNotHoldTheFile) {
  int born[2];
  int end[2];
  ASSERT_EQ(::pipe(born), 0);
  ASSERT_EQ(::pipe(end), 0);
  auto theirs = makeRecorder(GetParam());
  const Child parent([&] {
    char byte = 0;
    const bool started = start(*theirs, path_) == 0;
    insert(*theirs, 0, 600);
    if (::fork() != 0) return started && ::read(born[0], &byte, 1) == 1;
    ::close(end[1]);
    const bool told = ::write(born[1], &byte, 1) == 1;
    ::_exit(told ? static_cast<int>(::read(end[0], &byte, 1)) : 1);
  });
  EXPECT_TRUE(parent.good());
  parent.kill();
  const auto recorder = makeRecorder(GetParam());
  EXPECT_EQ(start(*recorder, path_), 0);
  for (const int pipe : {born[0], born[1], end[0], end[1]}) ::close(pipe);
}

// The fork comes while the worker is at the disk, and again while it idles.
TEST_P(RecordingProcess, AChildLeavesTheRecordingToItsParent) {
  std::mutex door;
  std::atomic<bool> knocked = false;
  auto recorder = makeRecorder(GetParam(), observed(openSystemFile, [&](auto...) {
                                 knocked = true;
                                 const std::lock_guard passing(door);
                               }));
  ASSERT_EQ(start(*recorder, path_), 0);
  insert(*recorder, 0, 600);
  while (recorder->pendingTasks() != 0) std::this_thread::yield();
  std::unique_lock closed(door, std::defer_lock);
  if (GetParam()) {
    closed.lock();
    knocked = false;
    insert(*recorder, 600, 1500);
    while (!knocked) std::this_thread::yield();
  } else {
    insert(*recorder, 600, 1500);
  }
  const auto inChild = [&](auto call) {
    return [&, call] {
      const std::string before = contentOf(path_);
      call();
      recorder.reset();
      return contentOf(path_) == before;
    };
  };
  const Child deletes(inChild([] {}));
  const Child stops(inChild([&] { recorder->stopRecord(kStart); }));
  const Child uses(inChild([&] {
    const auto record = std::make_unique<RecordData>(std::make_shared<const RecordLayout>());
    for (int i = 0; i < 2000; ++i) recorder->insertRecord(*record, 0);
    recorder->saveCanMessage(kStart, MdfCanMessage());
    static_cast<void>(recorder->addDataGroup(""));
    recorder->lostRecords();
    recorder->firstError();
  }));
  const Child startsItsOwn([&] {
    MdfRecorder own;
    const bool refused = start(own, path_) == 1;
    const bool started = start(own, dir_.path("own.mf4")) == 0;
    insert(own, 0, 600);
    own.stopRecord(kStart);
    return refused && started;
  });
  for (const Child* child : {&deletes, &stops, &uses, &startsItsOwn}) EXPECT_TRUE(child->good());
  if (closed.owns_lock()) closed.unlock();
  insert(*recorder, 1500, 2000);
  recorder->stopRecord(kStart);
  EXPECT_EQ(recorder->firstError(), "");
  expectNumbers(path_, 2000);
  expectNumbers(dir_.path("own.mf4"), 600);
  // The children still live, and hold nothing.
  EXPECT_EQ(start(*recorder, path_), 0);
}

TEST_P(RecordingProcess, AnIdleRecorderIsTheChildsToUse) {
  const auto recorder = makeRecorder(GetParam());
  ASSERT_EQ(start(*recorder, path_), 0);
  insert(*recorder, 0, 600);
  recorder->stopRecord(kStart);
  const Child child([&] {
    const bool started = start(*recorder, path_) == 0;
    insert(*recorder, 0, 700);
    recorder->stopRecord(kStart);
    return started;
  });
  EXPECT_TRUE(child.good());
  expectNumbers(path_, 700);
}

INSTANTIATE_TEST_SUITE_P(Recorder, RecordingProcess, testing::Bool(), [](const auto& kind) {
  return kind.param ? "Asynchronous" : "Synchronous";
});

}  // namespace
}  // namespace tolvex::test
