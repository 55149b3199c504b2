// WorkerThreadBase: where OnThreadStarted and ThreadFunction run and in
// which order, the name the operating system sees, a refused second Start,
// what Exit waits for, the exit request across restarts, and work queued
// across many start/exit cycles.
//
// Start's `flag` is always true here: it must start a running worker, and
// whether Start also waits for OnThreadStarted is the port's choice, so
// the cases wait for the worker themselves.
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <cstdint>
#include <deque>
#include <string>
#include <vector>

#include "utils/vek_worker_thread_base.h"
#include "vek_contract.h"

namespace zov_vek_contract {
namespace {

using zov_vek::OsalCondBroadcast;
using zov_vek::OsalCondSignal;
using zov_vek::OsalCondWait;
using zov_vek::OsalMutexLock;
using zov_vek::OsalMutexUnlock;
using zov_vek::WorkerThreadBase;

constexpr unsigned int kStackSize = 16384;

long ThreadId() { return syscall(SYS_gettid); }

// The owner's side: its mutex and condition variable and its work. All but
// the handles, the durations and `abandoned_in_use` are guarded by the
// mutex.
class Owner {
 public:
  Owner() {
    EXPECT_EQ(zov_vek::OsalMutexInit(&mutex), VekError::kOk);
    EXPECT_EQ(zov_vek::OsalCondInit(&cond), VekError::kOk);
  }
  ~Owner() {
    // A worker that never returned may still use them.
    if (!abandoned_in_use) {
      EXPECT_EQ(zov_vek::OsalCondDestroy(cond), VekError::kOk);
      EXPECT_EQ(zov_vek::OsalMutexDestroy(mutex), VekError::kOk);
    }
  }

  void Push(unsigned int value, bool signal) {
    OsalMutexLock(mutex);
    input.push_back(value);
    if (signal) OsalCondSignal(cond);
    OsalMutexUnlock(mutex);
  }

  template <typename Fn>
  auto Locked(Fn fn) {
    OsalMutexLock(mutex);
    auto value = fn();
    OsalMutexUnlock(mutex);
    return value;
  }

  void* mutex = nullptr;
  void* cond = nullptr;
  std::deque<unsigned int> input;
  std::vector<unsigned int> output;
  bool waiting = false;
  // Ends the loop without an exit request, so that a case can stop a
  // worker that a broken Exit left behind.
  bool abandon = false;
  bool abandoned_in_use = false;
  // Time the worker spends holding the mutex between finding no exit
  // request and waiting, and after it has let go of the mutex for good.
  std::chrono::milliseconds pause_before_wait{0};
  std::chrono::milliseconds linger{0};
};

// Drains the owner's input into its output, and leaves when the input is
// empty and exit was requested.
class Worker : public WorkerThreadBase {
 public:
  explicit Worker(Owner* owner) : owner_(owner) {}
  ~Worker() override { Stop(); }

  VekError Start(const char* name, Owner* owner = nullptr) {
    Owner* const target = owner != nullptr ? owner : owner_;
    return WorkerThreadBase::Start(target->mutex, target->cond, name,
                                   kStackSize, true);
  }

  // Waits for the function of the `n`-th start to begin.
  bool AwaitEntries(int n) {
    return WaitFor([&] { return entries.load() >= n; });
  }
  bool AwaitWaiting() {
    return WaitFor(
        [&] { return owner_->Locked([&] { return owner_->waiting; }); });
  }

  // Whatever state the port left the worker in: end the loop, then Exit.
  void Stop() {
    if (entries.load() != returns.load()) {
      owner_->Locked([&] {
        owner_->abandon = true;
        return OsalCondBroadcast(owner_->cond);
      });
      if (!WaitFor([&] { return entries.load() == returns.load(); })) {
        ADD_FAILURE() << "the worker's function never returned";
        owner_->abandoned_in_use = true;
        return;
      }
    }
    EXPECT_EQ(Exit(), VekError::kOk);
  }

  // Counted on the worker thread: OnThreadStarted calls, ThreadFunction
  // entries and returns.
  std::atomic<int> started{0};
  std::atomic<int> entries{0};
  std::atomic<int> returns{0};
  // Of the latest start, written before `entries` counts it.
  std::atomic<long> started_on{0};
  std::atomic<long> function_on{0};
  std::atomic<int> entries_when_started{-1};
  std::string name;
  bool exit_seen_at_entry = false;
  int wait_failures = 0;

 protected:
  void OnThreadStarted() override {
    started_on = ThreadId();
    entries_when_started = entries.load();
    started++;
  }

  void ThreadFunction() override {
    function_on = ThreadId();
    Owner* const owner = owner_;
    OsalMutexLock(owner->mutex);
    exit_seen_at_entry = ThreadShouldExit();
    entries++;
    for (;;) {
      while (owner->input.empty() && !ThreadShouldExit() && !owner->abandon) {
        if (owner->pause_before_wait.count() > 0) {
          owner->waiting = true;
          std::this_thread::sleep_for(owner->pause_before_wait);
        }
        owner->waiting = true;
        if (OsalCondWait(owner->cond, owner->mutex) != VekError::kOk) {
          wait_failures++;
        }
        owner->waiting = false;
      }
      if (owner->input.empty()) break;
      owner->output.push_back(owner->input.front());
      owner->input.pop_front();
    }
    OsalMutexUnlock(owner->mutex);
    // Read late: a port may name the thread from its creator, as long as
    // it has done so by the time Start returns.
    name = OsThreadName();
    std::this_thread::sleep_for(owner->linger);
    returns++;
  }

 private:
  Owner* owner_;
};

class WorkerCase : public testing::Test {
 protected:
  std::vector<unsigned int> Output() {
    return owner_.Locked([&] { return owner_.output; });
  }

  Owner owner_;
  Worker worker_{&owner_};
};

using WorkerThreadBaseStart = WorkerCase;
using WorkerThreadBaseExit = WorkerCase;
using WorkerThreadBaseThreadShouldExit = WorkerCase;

TEST_F(WorkerThreadBaseStart, RunsOnThreadStartedOnceOnTheNewThreadFirst) {
  const long caller = ThreadId();
  for (int round = 1; round <= 3; ++round) {
    SCOPED_TRACE(testing::Message() << "start " << round);
    ASSERT_EQ(worker_.Start("on_started"), VekError::kOk);
    ASSERT_TRUE(worker_.AwaitEntries(round));
    EXPECT_EQ(worker_.started.load(), round);
    EXPECT_NE(worker_.started_on.load(), caller);
    EXPECT_EQ(worker_.started_on.load(), worker_.function_on.load());
    EXPECT_EQ(worker_.entries_when_started.load(), round - 1)
        << "OnThreadStarted ran after ThreadFunction had begun";
    ASSERT_EQ(worker_.Exit(), VekError::kOk);
  }
}

TEST_F(WorkerThreadBaseStart, NamesTheWorkerThreadAsAsked) {
  for (const char* name : {"basic_thread", "abcdefghijklmno", "w"}) {
    ASSERT_EQ(worker_.Start(name), VekError::kOk) << name;
    ASSERT_EQ(worker_.Exit(), VekError::kOk);
    EXPECT_EQ(worker_.name, name);
  }
}

TEST_F(WorkerThreadBaseStart, IsRefusedWhileRunningAndChangesNothing) {
  ASSERT_EQ(worker_.Start("first"), VekError::kOk);
  ASSERT_TRUE(worker_.AwaitEntries(1));
  Owner other;
  EXPECT_NE(worker_.Start("second", &other), VekError::kOk);
  Settle();
  EXPECT_EQ(worker_.started.load(), 1) << "a refused Start started a thread";
  EXPECT_EQ(worker_.entries.load(), 1);
  EXPECT_FALSE(worker_.ThreadShouldExit());

  // Exit still reaches the worker through the first Start's handles.
  owner_.Push(1, false);
  ASSERT_EQ(worker_.Exit(), VekError::kOk);
  EXPECT_EQ(worker_.returns.load(), 1);
  EXPECT_EQ(worker_.name, "first");
  EXPECT_EQ(Output(), std::vector<unsigned int>{1});

  ASSERT_EQ(worker_.Start("third"), VekError::kOk);
  ASSERT_EQ(worker_.Exit(), VekError::kOk);
  EXPECT_EQ(worker_.name, "third");
}

TEST_F(WorkerThreadBaseExit, WakesTheWaitingWorkerAndReturnsAfterItsFunction) {
  // The function takes its time to return once it has seen the request,
  // so that an Exit that does not wait for it shows every time.
  owner_.linger = 2 * kSettle;
  ASSERT_EQ(worker_.Start("exit_wait"), VekError::kOk);
  ASSERT_TRUE(worker_.AwaitWaiting());
  EXPECT_EQ(worker_.Exit(), VekError::kOk);
  EXPECT_EQ(worker_.returns.load(), 1);
}

TEST_F(WorkerThreadBaseExit, DrainsWorkQueuedWithoutAWakeUpFirst) {
  ASSERT_EQ(worker_.Start("exit_drain"), VekError::kOk);
  ASSERT_TRUE(worker_.AwaitWaiting());
  for (unsigned int v = 1; v <= 5; ++v) owner_.Push(v, false);
  EXPECT_EQ(worker_.Exit(), VekError::kOk);
  EXPECT_EQ(Output(), (std::vector<unsigned int>{1, 2, 3, 4, 5}));
}

TEST_F(WorkerThreadBaseExit, ReturnsOkNeverStartedAndTwiceAfterAStart) {
  EXPECT_EQ(worker_.Exit(), VekError::kOk);
  ASSERT_EQ(worker_.Start("exit_twice"), VekError::kOk);
  EXPECT_EQ(worker_.Exit(), VekError::kOk);
  EXPECT_EQ(worker_.Exit(), VekError::kOk);
}

TEST_F(WorkerThreadBaseExit, CannotSlipBetweenTheWorkersTestAndItsWait) {
  // The worker sits between its test of the request and its wait, mutex
  // held: a request or a wake-up sent without the mutex is lost there.
  owner_.pause_before_wait = kSettle;
  for (int round = 1; round <= 2; ++round) {
    ASSERT_EQ(worker_.Start("exit_gap"), VekError::kOk);
    ASSERT_TRUE(WaitFor([&] { return worker_.entries.load() == round; }));
    EXPECT_EQ(worker_.Exit(), VekError::kOk);
    EXPECT_EQ(worker_.returns.load(), round);
  }
}

TEST_F(WorkerThreadBaseExit, ManyStartExitCyclesLoseNoQueuedWork) {
  // A producer queues all along, every other value without a wake-up,
  // while the worker is started and stopped underneath it.
  constexpr int kCycles = 200;
  constexpr size_t kBacklog = 64;
  std::atomic<bool> stop{false};
  unsigned int produced = 0;
  ThreadGroup producer("producer");
  ASSERT_TRUE(producer.Start(1, [&](int) {
    while (!stop.load()) {
      const bool room =
          owner_.Locked([&] { return owner_.input.size() < kBacklog; });
      if (!room) {
        std::this_thread::yield();
        continue;
      }
      owner_.Push(produced, produced % 2 == 0);
      ++produced;
    }
  }));
  ASSERT_TRUE(producer.AwaitArrival());
  producer.Release();
  int cycle = 0;
  while (cycle < kCycles && worker_.Start("cycle") == VekError::kOk &&
         worker_.Exit() == VekError::kOk &&
         worker_.returns.load() == cycle + 1) {
    ++cycle;
  }
  stop = true;
  producer.JoinAll();
  ASSERT_EQ(cycle, kCycles) << "Start, Exit or the return failed";
  // What came after the last exit is taken by one more cycle.
  ASSERT_EQ(worker_.Start("cycle"), VekError::kOk);
  ASSERT_EQ(worker_.Exit(), VekError::kOk);

  const std::vector<unsigned int> output = Output();
  ASSERT_EQ(output.size(), produced);
  for (unsigned int i = 0; i < produced; ++i) {
    ASSERT_EQ(output[i], i) << "lost, repeated or out of order";
  }
  EXPECT_EQ(worker_.wait_failures, 0);
}

TEST_F(WorkerThreadBaseThreadShouldExit, IsTrueFromExitUntilTheNextStart) {
  EXPECT_FALSE(worker_.ThreadShouldExit());
  for (int round = 1; round <= 2; ++round) {
    SCOPED_TRACE(testing::Message() << "start " << round);
    ASSERT_EQ(worker_.Start("should_exit"), VekError::kOk);
    EXPECT_FALSE(worker_.ThreadShouldExit());
    ASSERT_TRUE(worker_.AwaitEntries(round));
    EXPECT_FALSE(worker_.exit_seen_at_entry);
    // Served while no exit is pending: a request left over from the last
    // Exit would end the loop as soon as the input is empty.
    owner_.Push(round, true);
    ASSERT_TRUE(WaitFor([&] { return Output().size() == size_t(round); }));
    ASSERT_TRUE(worker_.AwaitWaiting());
    EXPECT_EQ(worker_.returns.load(), round - 1) << "left without an Exit";
    ASSERT_EQ(worker_.Exit(), VekError::kOk);
    EXPECT_TRUE(worker_.ThreadShouldExit());
  }
}

}  // namespace
}  // namespace zov_vek_contract
