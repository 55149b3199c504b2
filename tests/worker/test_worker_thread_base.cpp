// WorkerThreadBase beyond the conformance suite: refused and restarted
// starts, bad input, start-up confirmation, thread names, destruction of a
// running worker, and long runs of start/exit cycles in which queued work
// must never be lost.
//
// A lost wake-up shows as an Exit() that never returns; such calls run
// under a deadline so that the run fails with a message instead of hanging.
#include <gtest/gtest.h>
#include <pthread.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "osal/vek_error.h"
#include "osal/vek_osal.h"
#include "utils/vek_worker_thread_base.h"

namespace vek_test {
namespace {

using zov_vek::OsalCondBroadcast;
using zov_vek::OsalCondDestroy;
using zov_vek::OsalCondInit;
using zov_vek::OsalCondSignal;
using zov_vek::OsalCondWait;
using zov_vek::OsalMutexDestroy;
using zov_vek::OsalMutexInit;
using zov_vek::OsalMutexLock;
using zov_vek::OsalMutexUnlock;
using zov_vek::VekError;
using zov_vek::WorkerThreadBase;

using namespace std::chrono_literals;

constexpr unsigned int kStackSize = 16384;
constexpr auto kDeadline = 10s;

// Runs `fn` on a thread of its own and gives it kDeadline to return. A call
// that hangs cannot be abandoned safely, so the process ends with a message.
void WithinDeadline(const char* what, const std::function<void()>& fn) {
  std::mutex m;
  std::condition_variable cv;
  bool done = false;
  std::thread runner([&] {
    fn();
    std::lock_guard<std::mutex> lock(m);
    done = true;
    cv.notify_one();
  });
  std::unique_lock<std::mutex> lock(m);
  if (!cv.wait_for(lock, kDeadline, [&] { return done; })) {
    std::fprintf(stderr, "%s did not return within %lld s\n", what,
                 static_cast<long long>(kDeadline.count()));
    std::fflush(stderr);
    std::_Exit(1);
  }
  lock.unlock();
  runner.join();
}

VekError ExitWithinDeadline(WorkerThreadBase& worker) {
  VekError err = VekError::kErr;
  WithinDeadline("Exit()", [&] { err = worker.Exit(); });
  return err;
}

// The owner's side: OSAL mutex and condition variable, the work and the
// results. Everything but the handles is guarded by the mutex.
struct WorkQueue {
  void* mutex = nullptr;
  void* cond = nullptr;
  std::deque<unsigned int> input;
  std::deque<unsigned int> output;
  bool loop_entered = false;
  int loops_returned = 0;
  // When set, the worker sleeps, mutex held, between finding no exit
  // request and waiting, and raises about_to_wait (read without the mutex).
  std::chrono::milliseconds pause_before_wait{0};
  std::atomic<bool> about_to_wait{false};

  void Push(unsigned int value, bool signal) {
    OsalMutexLock(mutex);
    input.push_back(value);
    if (signal) OsalCondSignal(cond);
    OsalMutexUnlock(mutex);
  }

  template <typename T, typename Fn>
  T Read(Fn fn) {
    OsalMutexLock(mutex);
    T value = fn();
    OsalMutexUnlock(mutex);
    return value;
  }

  // Polls until `pred` holds (read under the mutex) or the deadline passes.
  bool WaitFor(const std::function<bool()>& pred) {
    const auto end = std::chrono::steady_clock::now() + kDeadline;
    while (std::chrono::steady_clock::now() < end) {
      if (Read<bool>(pred)) return true;
      std::this_thread::sleep_for(1ms);
    }
    return false;
  }
};

// Drains the owner's queue into its output (v -> v + 1) and leaves only
// when the queue is empty and exit was requested. The loop touches the
// owner's state only, never members of this class, so the base's
// destructor may stop it.
class DrainingWorker : public WorkerThreadBase {
 public:
  explicit DrainingWorker(WorkQueue* queue,
                          std::chrono::milliseconds start_delay = 0ms)
      : queue_(queue), start_delay_(start_delay) {}

  int started_count() const { return started_count_.load(); }
  bool start_finished() const { return start_finished_.load(); }
  void clear_start_finished() { start_finished_ = false; }
  std::string thread_name() const {
    std::lock_guard<std::mutex> lock(info_mutex_);
    return thread_name_;
  }
  std::thread::id thread_id() const {
    std::lock_guard<std::mutex> lock(info_mutex_);
    return thread_id_;
  }
  // What ThreadShouldExit() said when the loop began.
  bool exit_seen_at_loop_start() const { return exit_seen_at_loop_start_; }

 protected:
  void OnThreadStarted() override {
    started_count_++;
    std::this_thread::sleep_for(start_delay_);
    char name[16] = {};
    pthread_getname_np(pthread_self(), name, sizeof(name));
    {
      std::lock_guard<std::mutex> lock(info_mutex_);
      thread_name_ = name;
      thread_id_ = std::this_thread::get_id();
    }
    start_finished_ = true;
  }

  void ThreadFunction() override {
    // Past loop_entered only the base's part of the object is used.
    WorkQueue* const queue = queue_;
    OsalMutexLock(queue->mutex);
    exit_seen_at_loop_start_ = ThreadShouldExit();
    queue->loop_entered = true;
    for (;;) {
      while (queue->input.empty() && !ThreadShouldExit()) {
        if (queue->pause_before_wait > 0ms) {
          queue->about_to_wait = true;
          std::this_thread::sleep_for(queue->pause_before_wait);
        }
        OsalCondWait(queue->cond, queue->mutex);
      }
      if (queue->input.empty()) break;
      queue->output.push_back(queue->input.front() + 1);
      queue->input.pop_front();
    }
    queue->loops_returned++;
    OsalMutexUnlock(queue->mutex);
  }

 private:
  WorkQueue* queue_;
  std::chrono::milliseconds start_delay_;
  std::atomic<int> started_count_{0};
  std::atomic<bool> start_finished_{false};
  mutable std::mutex info_mutex_;
  std::string thread_name_;
  std::thread::id thread_id_;
  bool exit_seen_at_loop_start_ = false;
};

class WorkerThreadBaseProjectTest : public testing::Test {
 protected:
  void SetUp() override {
    ASSERT_EQ(VekError::kOk, OsalMutexInit(&queue_.mutex));
    ASSERT_EQ(VekError::kOk, OsalCondInit(&queue_.cond));
  }
  void TearDown() override {
    EXPECT_EQ(VekError::kOk, OsalCondDestroy(queue_.cond));
    EXPECT_EQ(VekError::kOk, OsalMutexDestroy(queue_.mutex));
  }

  std::deque<unsigned int> Output() {
    return queue_.Read<std::deque<unsigned int>>([&] { return queue_.output; });
  }

  WorkQueue queue_;
};

TEST_F(WorkerThreadBaseProjectTest, StartReturnsOnlyAfterOnThreadStartedRan) {
  DrainingWorker worker(&queue_, 50ms);
  for (int round = 1; round <= 3; ++round) {
    worker.clear_start_finished();
    ASSERT_EQ(VekError::kOk, worker.Start(queue_.mutex, queue_.cond, "started",
                                          kStackSize, true));
    // OnThreadStarted sleeps before it finishes: a Start that does not wait
    // returns while it is still asleep.
    EXPECT_TRUE(worker.start_finished()) << "round " << round;
    EXPECT_EQ(round, worker.started_count());
    EXPECT_NE(std::this_thread::get_id(), worker.thread_id())
        << "OnThreadStarted must run on the new thread";
    EXPECT_EQ(VekError::kOk, ExitWithinDeadline(worker));
  }
}

TEST_F(WorkerThreadBaseProjectTest, StartWithoutWaitStillRunsAndDrains) {
  DrainingWorker worker(&queue_, 20ms);
  ASSERT_EQ(VekError::kOk, worker.Start(queue_.mutex, queue_.cond, "nowait",
                                        kStackSize, false));
  queue_.Push(7, false);
  // Exit may come before the thread has reached its loop; the loop must
  // still run and drain the queue.
  EXPECT_EQ(VekError::kOk, ExitWithinDeadline(worker));
  EXPECT_EQ(1, worker.started_count());
  EXPECT_EQ(std::deque<unsigned int>{8}, Output());
}

TEST_F(WorkerThreadBaseProjectTest, ThreadCarriesTheNameGivenToStart) {
  DrainingWorker worker(&queue_);
  for (const char* name : {"basic_thread", "abcdefghijklmno", "w"}) {
    ASSERT_EQ(VekError::kOk,
              worker.Start(queue_.mutex, queue_.cond, name, kStackSize, true));
    EXPECT_EQ(name, worker.thread_name());
    EXPECT_EQ(VekError::kOk, ExitWithinDeadline(worker));
  }
}

TEST_F(WorkerThreadBaseProjectTest, RefusedStartLeavesTheRunningWorkerAlone) {
  void* other_mutex = nullptr;
  void* other_cond = nullptr;
  ASSERT_EQ(VekError::kOk, OsalMutexInit(&other_mutex));
  ASSERT_EQ(VekError::kOk, OsalCondInit(&other_cond));

  DrainingWorker worker(&queue_);
  ASSERT_EQ(VekError::kOk,
            worker.Start(queue_.mutex, queue_.cond, "first", kStackSize, true));
  EXPECT_EQ(VekError::kErrBusy,
            worker.Start(other_mutex, other_cond, "second", kStackSize, true));
  EXPECT_EQ(1, worker.started_count()) << "a refused Start started a thread";
  EXPECT_EQ("first", worker.thread_name());
  EXPECT_FALSE(worker.ThreadShouldExit());

  // Exit must still wake the worker through the first Start's handles; had
  // the refused call replaced them, the worker would sleep on.
  queue_.Push(1, false);
  EXPECT_EQ(VekError::kOk, ExitWithinDeadline(worker));
  EXPECT_EQ(std::deque<unsigned int>{2}, Output());
  EXPECT_EQ(1, queue_.loops_returned);

  // And the object starts again.
  ASSERT_EQ(VekError::kOk,
            worker.Start(queue_.mutex, queue_.cond, "third", kStackSize, true));
  EXPECT_EQ(2, worker.started_count());
  EXPECT_EQ("third", worker.thread_name());
  queue_.Push(2, true);
  EXPECT_EQ(VekError::kOk, ExitWithinDeadline(worker));
  EXPECT_EQ((std::deque<unsigned int>{2, 3}), Output());

  EXPECT_EQ(VekError::kOk, OsalCondDestroy(other_cond));
  EXPECT_EQ(VekError::kOk, OsalMutexDestroy(other_mutex));
}

TEST_F(WorkerThreadBaseProjectTest, BadStartArgumentsStartNothing) {
  DrainingWorker worker(&queue_);
  EXPECT_EQ(VekError::kOk, worker.Exit()) << "Exit with nothing started";
  EXPECT_FALSE(worker.ThreadShouldExit());

  void* null_handle = nullptr;
  EXPECT_EQ(VekError::kErrParam,
            worker.Start(null_handle, queue_.cond, "n", kStackSize, true));
  EXPECT_EQ(VekError::kErrParam,
            worker.Start(queue_.mutex, null_handle, "n", kStackSize, true));
  EXPECT_NE(VekError::kOk,
            worker.Start(queue_.mutex, queue_.cond, "", kStackSize, true));
  EXPECT_NE(VekError::kOk,
            worker.Start(queue_.mutex, queue_.cond, nullptr, kStackSize, true));
  EXPECT_EQ(0, worker.started_count());
  EXPECT_EQ(VekError::kOk, worker.Exit());

  // None of the refusals left the object believing a worker runs.
  ASSERT_EQ(VekError::kOk,
            worker.Start(queue_.mutex, queue_.cond, "good", kStackSize, true));
  EXPECT_EQ(1, worker.started_count());
  EXPECT_EQ(VekError::kOk, ExitWithinDeadline(worker));
  EXPECT_EQ(1, queue_.loops_returned);
}

TEST_F(WorkerThreadBaseProjectTest, RestartedWorkerRunsUntilTheNextExit) {
  DrainingWorker worker(&queue_);
  ASSERT_EQ(VekError::kOk,
            worker.Start(queue_.mutex, queue_.cond, "one", kStackSize, true));
  EXPECT_EQ(VekError::kOk, ExitWithinDeadline(worker));
  EXPECT_TRUE(worker.ThreadShouldExit());
  queue_.loop_entered = false;

  ASSERT_EQ(VekError::kOk,
            worker.Start(queue_.mutex, queue_.cond, "two", kStackSize, true));
  EXPECT_FALSE(worker.ThreadShouldExit());
  ASSERT_TRUE(queue_.WaitFor([&] { return queue_.loop_entered; }));
  EXPECT_FALSE(worker.exit_seen_at_loop_start())
      << "the restarted worker saw the previous exit request";

  // Served while no Exit is pending: a stale request would have ended the
  // loop as soon as the queue was empty.
  queue_.Push(10, true);
  EXPECT_TRUE(queue_.WaitFor([&] { return queue_.output.size() == 1; }));
  std::this_thread::sleep_for(20ms);
  queue_.Push(20, true);
  EXPECT_TRUE(queue_.WaitFor([&] { return queue_.output.size() == 2; }));
  EXPECT_EQ(1, queue_.Read<int>([&] { return queue_.loops_returned; }))
      << "the loop left without an Exit";

  EXPECT_EQ(VekError::kOk, ExitWithinDeadline(worker));
  EXPECT_EQ((std::deque<unsigned int>{11, 21}), Output());
}

TEST_F(WorkerThreadBaseProjectTest, DestroyingARunningWorkerJoinsIt) {
  auto worker = std::make_unique<DrainingWorker>(&queue_);
  ASSERT_EQ(VekError::kOk, worker->Start(queue_.mutex, queue_.cond, "doomed",
                                         kStackSize, true));
  // Let the worker block in its loop, then queue work it is not woken for.
  ASSERT_TRUE(queue_.WaitFor([&] { return queue_.loop_entered; }));
  queue_.Push(1, false);
  queue_.Push(2, false);

  WithinDeadline("~WorkerThreadBase()", [&] { worker.reset(); });
  // A destructor that left the thread behind would return with the loop
  // still asleep.
  EXPECT_EQ(1, queue_.Read<int>([&] { return queue_.loops_returned; }));
  EXPECT_EQ((std::deque<unsigned int>{2, 3}), Output());
}

// A worker whose loop uses its own members stops itself in its destructor,
// before those members go.
class OwningWorker : public WorkerThreadBase {
 public:
  OwningWorker(void* mutex, void* cond, std::vector<unsigned int>* sink)
      : mutex_(mutex), cond_(cond), sink_(sink) {}
  ~OwningWorker() override { Exit(); }

  VekError StartOwn(const char* name) {
    return Start(mutex_, cond_, name, kStackSize, true);
  }

  void Push(unsigned int value) {
    OsalMutexLock(mutex_);
    pending_.push_back(value);
    OsalMutexUnlock(mutex_);
  }

 protected:
  void ThreadFunction() override {
    OsalMutexLock(mutex_);
    for (;;) {
      while (pending_.empty() && !ThreadShouldExit()) {
        OsalCondWait(cond_, mutex_);
      }
      if (pending_.empty()) break;
      sink_->push_back(pending_.front() * 10);
      pending_.pop_front();
    }
    OsalMutexUnlock(mutex_);
  }

 private:
  void* mutex_;
  void* cond_;
  std::vector<unsigned int>* sink_;
  std::deque<unsigned int> pending_;
};

TEST_F(WorkerThreadBaseProjectTest, SubclassThatExitsInItsDestructor) {
  std::vector<unsigned int> sink;
  auto worker =
      std::make_unique<OwningWorker>(queue_.mutex, queue_.cond, &sink);
  ASSERT_EQ(VekError::kOk, worker->StartOwn("owning"));
  worker->Push(4);
  worker->Push(5);
  WithinDeadline("~OwningWorker()", [&] { worker.reset(); });
  // The worker has been joined, so its writes to `sink` are visible.
  EXPECT_EQ((std::vector<unsigned int>{40, 50}), sink);
}

// Many cycles, alternating waiting and non-waiting starts, with 0 to 4
// values per cycle, some queued with a wake-up, some without, some by a
// second producer thread. Every value queued before Exit() must come out,
// in order, by the time Exit() returns.
TEST_F(WorkerThreadBaseProjectTest, ManyCyclesNeverLoseQueuedWork) {
  constexpr int kCycles = 400;
  DrainingWorker worker(&queue_);
  unsigned int next = 0;
  std::deque<unsigned int> expected;
  for (int cycle = 0; cycle < kCycles; ++cycle) {
    const bool wait_started = (cycle % 2) == 0;
    ASSERT_EQ(VekError::kOk, worker.Start(queue_.mutex, queue_.cond, "cycle",
                                          kStackSize, wait_started))
        << "cycle " << cycle;
    const int count = cycle % 5;
    if (cycle % 3 == 0) {
      std::vector<unsigned int> values;
      for (int i = 0; i < count; ++i) values.push_back(next++);
      std::thread producer([&] {
        for (unsigned int v : values) queue_.Push(v, (v % 2) == 0);
      });
      producer.join();
      for (unsigned int v : values) expected.push_back(v + 1);
    } else {
      for (int i = 0; i < count; ++i) {
        queue_.Push(next, (i % 2) == 1);
        expected.push_back(next + 1);
        ++next;
      }
    }
    ASSERT_EQ(VekError::kOk, ExitWithinDeadline(worker)) << "cycle " << cycle;
    ASSERT_EQ(expected.size(), Output().size()) << "cycle " << cycle;
  }
  EXPECT_EQ(expected, Output());
  EXPECT_EQ(kCycles, worker.started_count());
  EXPECT_EQ(kCycles, queue_.loops_returned);
  EXPECT_TRUE(queue_.input.empty());
}

// Exit() while the worker stands between its test of the exit request and
// its wait: a request set or a wake-up sent without the owner's mutex falls
// into that gap and the worker sleeps for ever.
TEST_F(WorkerThreadBaseProjectTest, ExitCannotSlipBetweenTestAndWait) {
  queue_.pause_before_wait = 20ms;
  DrainingWorker worker(&queue_);
  for (int round = 0; round < 5; ++round) {
    queue_.about_to_wait = false;
    ASSERT_EQ(VekError::kOk,
              worker.Start(queue_.mutex, queue_.cond, "gap", kStackSize, true));
    const auto end = std::chrono::steady_clock::now() + kDeadline;
    while (!queue_.about_to_wait && std::chrono::steady_clock::now() < end) {
      std::this_thread::yield();
    }
    ASSERT_TRUE(queue_.about_to_wait);
    EXPECT_EQ(VekError::kOk, ExitWithinDeadline(worker));
  }
  EXPECT_EQ(5, queue_.loops_returned);
}

// An exit request must also reach a worker that the owner's other waiters
// compete with for wake-ups on the same condition variable.
TEST_F(WorkerThreadBaseProjectTest, ExitWakesTheWorkerAmongOtherWaiters) {
  bool release = false;
  std::atomic<int> waiting{0};
  std::vector<std::thread> others;
  for (int i = 0; i < 3; ++i) {
    others.emplace_back([&] {
      OsalMutexLock(queue_.mutex);
      waiting++;
      while (!release) OsalCondWait(queue_.cond, queue_.mutex);
      OsalMutexUnlock(queue_.mutex);
    });
  }
  DrainingWorker worker(&queue_);
  for (int round = 0; round < 20; ++round) {
    ASSERT_EQ(VekError::kOk, worker.Start(queue_.mutex, queue_.cond, "crowd",
                                          kStackSize, true));
    ASSERT_TRUE(queue_.WaitFor([&] { return waiting.load() == 3; }));
    EXPECT_EQ(VekError::kOk, ExitWithinDeadline(worker));
  }
  OsalMutexLock(queue_.mutex);
  release = true;
  OsalCondBroadcast(queue_.cond);
  OsalMutexUnlock(queue_.mutex);
  for (auto& t : others) t.join();
  EXPECT_EQ(20, queue_.loops_returned);
}

}  // namespace
}  // namespace vek_test
