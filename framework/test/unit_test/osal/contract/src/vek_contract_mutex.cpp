// Mutexes: a new mutex is free and shares nothing with another; Lock
// excludes every other thread, waits while one holds the mutex and takes it
// once it is given up; Unlock hands it to each thread asleep in Lock; TryLock
// never waits, takes only a free mutex and leaves a held one exactly as it
// was, also when the caller holds it. Null handles are refused. Left to the
// port: which code a refusal carries, destroying a held mutex, unlocking one
// the caller does not hold.
#include <atomic>
#include <chrono>
#include <cstdint>
#include <thread>

#include "vek_contract.h"
#include "vek_contract_sync.h"

namespace zov_vek_contract {
namespace {

using zov_vek::OsalMutexDestroy;
using zov_vek::OsalMutexInit;
using zov_vek::OsalMutexLock;
using zov_vek::OsalMutexTryLock;
using zov_vek::OsalMutexUnlock;

TEST(OsalMutexInit, RefusesANullOutParameter) {
  EXPECT_NE(OsalMutexInit(nullptr), VekError::kOk);
}

TEST(OsalMutexInit, CreatesAFreeMutexOfItsOwn) {
  Mutex first;
  Mutex second;
  EXPECT_NE(first.get(), second.get());
  EXPECT_TRUE(FreeForAnotherThread(first.get()));
  ASSERT_EQ(OsalMutexLock(first.get()), VekError::kOk);
  EXPECT_TRUE(FreeForAnotherThread(second.get()))
      << "holding one mutex holds another";
  EXPECT_EQ(OsalMutexUnlock(first.get()), VekError::kOk);
}

TEST(OsalMutexDestroy, RefusesANullHandle) {
  EXPECT_NE(OsalMutexDestroy(nullptr), VekError::kOk);
}

TEST(OsalMutexLock, RefusesANullHandle) {
  EXPECT_NE(OsalMutexLock(nullptr), VekError::kOk);
}

// Written only under the mutex and deliberately not atomic: read, pause,
// write back one more, so that two holders at once lose an update even when
// they overlap only briefly.
struct Counter {
  uint64_t value = 0;

  void Increment() {
    volatile uint64_t* const cell = &value;
    const uint64_t read = *cell;
    for (volatile int i = 0; i < 16; i = i + 1) {
    }
    *cell = read + 1;
  }
};

// Threads released together take the mutex over and over and count under
// it; with `try_half`, every other thread takes it with TryLock only, and
// gives up a round when TryLock fails.
void ExpectExclusion(bool try_half) {
  constexpr int kThreads = 4;
  constexpr int kRoundsEach = 5000;
  Mutex mutex;
  Counter counter;
  std::atomic<uint64_t> taken{0};
  std::atomic<int> failures{0};
  ThreadGroup("contender").Run(kThreads, [&](int index) {
    const bool try_only = try_half && index % 2 == 0;
    for (int round = 0; round < kRoundsEach; ++round) {
      if (try_only) {
        if (OsalMutexTryLock(mutex.get()) != VekError::kOk) continue;
      } else if (OsalMutexLock(mutex.get()) != VekError::kOk) {
        ++failures;
        continue;
      }
      counter.Increment();
      ++taken;
      if (OsalMutexUnlock(mutex.get()) != VekError::kOk) ++failures;
    }
  });
  EXPECT_EQ(failures.load(), 0);
  EXPECT_EQ(counter.value, taken.load())
      << "two threads held the mutex at once";
  const uint64_t lockers = try_half ? kThreads / 2 : kThreads;
  EXPECT_GE(taken.load(), lockers * kRoundsEach);
}

TEST(OsalMutexLock, ExcludesEveryOtherThreadUnderContention) {
  ExpectExclusion(false);
}

// A thread that takes the mutex with Lock and holds it until Release(), or
// for kPatience at most: a call of the main thread that waits for the mutex
// gets it then, and the case fails instead of hanging.
class Holder {
 public:
  explicit Holder(void* mutex) : mutex_(mutex) {
    thread_.Start(1, [this](int) {
      EXPECT_EQ(OsalMutexLock(mutex_), VekError::kOk);
      holding_ = true;
      EXPECT_TRUE(WaitFor([this] { return release_.load(); }));
      EXPECT_EQ(OsalMutexUnlock(mutex_), VekError::kOk);
    });
    EXPECT_TRUE(thread_.AwaitArrival());
    thread_.Release();
  }
  ~Holder() { Release(); }

  bool holding() const { return holding_.load(); }

  // Lets go of the mutex and ends the thread.
  void Release() {
    release_ = true;
    thread_.JoinAll();
  }

 private:
  void* const mutex_;
  std::atomic<bool> holding_{false};
  std::atomic<bool> release_{false};
  ThreadGroup thread_{"holder"};
};

TEST(OsalMutexLock, WaitsWhileAnotherThreadHoldsItThenTakesIt) {
  Mutex mutex;
  ASSERT_EQ(OsalMutexLock(mutex.get()), VekError::kOk);
  Holder locker(mutex.get());
  Settle();
  EXPECT_FALSE(locker.holding())
      << "Lock returned while another thread held it";
  EXPECT_EQ(OsalMutexUnlock(mutex.get()), VekError::kOk);
  EXPECT_TRUE(WaitFor([&] { return locker.holding(); }))
      << "Lock did not return once the mutex was free";
  EXPECT_FALSE(TakeAndGiveBack(mutex.get())) << "Lock returned without it";
  locker.Release();
  EXPECT_TRUE(FreeForAnotherThread(mutex.get()));
}

TEST(OsalMutexUnlock, RefusesANullHandle) {
  EXPECT_NE(OsalMutexUnlock(nullptr), VekError::kOk);
}

TEST(OsalMutexUnlock, HandsTheMutexToEachThreadAsleepInLock) {
  constexpr int kSleepers = 3;
  Mutex mutex;
  std::atomic<int> about_to_lock{0};
  std::atomic<int> holders{0};
  std::atomic<int> passed{0};
  ASSERT_EQ(OsalMutexLock(mutex.get()), VekError::kOk);
  ThreadGroup sleepers("sleeper");
  sleepers.Start(kSleepers, [&](int) {
    ++about_to_lock;
    EXPECT_EQ(OsalMutexLock(mutex.get()), VekError::kOk);
    EXPECT_EQ(holders.fetch_add(1), 0) << "two holders at once";
    std::this_thread::yield();
    --holders;
    ++passed;
    EXPECT_EQ(OsalMutexUnlock(mutex.get()), VekError::kOk);
  });
  sleepers.Release();
  EXPECT_TRUE(WaitFor([&] { return about_to_lock.load() == kSleepers; }));
  // Time enough for every one of them to be asleep in Lock.
  Settle();
  EXPECT_EQ(passed.load(), 0);
  EXPECT_EQ(OsalMutexUnlock(mutex.get()), VekError::kOk);
  EXPECT_TRUE(WaitFor([&] { return passed.load() == kSleepers; }))
      << passed.load() << " of " << kSleepers << " sleepers got the mutex";
}

TEST(OsalMutexTryLock, RefusesANullHandle) {
  EXPECT_NE(OsalMutexTryLock(nullptr), VekError::kOk);
}

TEST(OsalMutexTryLock, TakesAFreeMutex) {
  Mutex mutex;
  ASSERT_EQ(OsalMutexTryLock(mutex.get()), VekError::kOk);
  EXPECT_FALSE(FreeForAnotherThread(mutex.get()));
  EXPECT_EQ(OsalMutexUnlock(mutex.get()), VekError::kOk);
  EXPECT_TRUE(FreeForAnotherThread(mutex.get()));
}

TEST(OsalMutexTryLock, FailsAtOnceOnAMutexAnotherThreadHoldsAndLeavesItHeld) {
  Mutex mutex;
  Holder holder(mutex.get());
  EXPECT_TRUE(WaitFor([&] { return holder.holding(); }));
  for (int attempt = 0; attempt < 3; ++attempt) {
    const auto start = std::chrono::steady_clock::now();
    const VekError err = OsalMutexTryLock(mutex.get());
    EXPECT_LT(std::chrono::steady_clock::now() - start, kPatience)
        << "TryLock waited for the holder";
    EXPECT_NE(err, VekError::kOk) << "attempt " << attempt;
    if (err == VekError::kOk) {
      EXPECT_EQ(OsalMutexUnlock(mutex.get()), VekError::kOk);
    }
  }
  EXPECT_FALSE(FreeForAnotherThread(mutex.get()))
      << "failed attempts released the holder's mutex";
  holder.Release();
  EXPECT_TRUE(FreeForAnotherThread(mutex.get()));
}

TEST(OsalMutexTryLock, FailsOnAMutexTheCallerHoldsAndLeavesItHeldOnce) {
  Mutex mutex;
  for (const bool by_try_lock : {false, true}) {
    SCOPED_TRACE(by_try_lock ? "held by TryLock" : "held by Lock");
    ASSERT_EQ(by_try_lock ? OsalMutexTryLock(mutex.get())
                          : OsalMutexLock(mutex.get()),
              VekError::kOk);
    EXPECT_NE(OsalMutexTryLock(mutex.get()), VekError::kOk);
    EXPECT_NE(OsalMutexTryLock(mutex.get()), VekError::kOk);
    EXPECT_FALSE(FreeForAnotherThread(mutex.get()));
    EXPECT_EQ(OsalMutexUnlock(mutex.get()), VekError::kOk);
    EXPECT_TRUE(FreeForAnotherThread(mutex.get()))
        << "one unlock did not free it: the failed attempts added a hold";
  }
}

TEST(OsalMutexTryLock, ExcludesLikeLockUnderContention) {
  ExpectExclusion(true);
}

}  // namespace
}  // namespace zov_vek_contract
