// Condition variables: a wait gives the caller's mutex up while it waits
// and returns holding it again; a refused wait keeps it held; no wake-up is
// lost when the predicate is set under the mutex; Signal wakes at least one
// waiter and Broadcast every waiter, each time; both succeed with nobody
// waiting. Null handles are refused. Every waiter loops on its predicate, so
// spurious wake-ups pass. Left to the port: which code a refusal carries,
// whether Signal wakes more than one, a wait on a mutex the caller does not
// hold, destroying a variable that threads wait on.
//
// The cases that wait for other threads' wake-ups are bounded: when a port
// loses one, the case fails and then broadcasts until every waiter has
// left, so that it ends.
#include <atomic>
#include <cstdint>
#include <vector>

#include "vek_contract.h"
#include "vek_contract_sync.h"

namespace zov_vek_contract {
namespace {

using zov_vek::OsalCondBroadcast;
using zov_vek::OsalCondDestroy;
using zov_vek::OsalCondInit;
using zov_vek::OsalCondSignal;
using zov_vek::OsalCondWait;
using zov_vek::OsalMutexLock;
using zov_vek::OsalMutexTryLock;
using zov_vek::OsalMutexUnlock;

// Broadcasts until `all_left()`; false if that took longer than kPatience.
template <typename Done>
bool BroadcastUntil(void* cond, Done all_left) {
  return WaitFor([&] {
    EXPECT_EQ(OsalCondBroadcast(cond), VekError::kOk);
    return all_left();
  });
}

TEST(OsalCondInit, RefusesANullOutParameter) {
  EXPECT_NE(OsalCondInit(nullptr), VekError::kOk);
}

TEST(OsalCondDestroy, RefusesANullHandle) {
  EXPECT_NE(OsalCondDestroy(nullptr), VekError::kOk);
}

TEST(OsalCondWait, RefusesNullHandlesAndLeavesTheCallerHoldingItsMutex) {
  Mutex mutex;
  Cond cond;
  ASSERT_EQ(OsalMutexLock(mutex.get()), VekError::kOk);
  EXPECT_NE(OsalCondWait(nullptr, nullptr), VekError::kOk);
  EXPECT_NE(OsalCondWait(cond.get(), nullptr), VekError::kOk);
  EXPECT_NE(OsalCondWait(nullptr, mutex.get()), VekError::kOk);
  EXPECT_FALSE(FreeForAnotherThread(mutex.get()))
      << "a refused wait gave the mutex up";
  EXPECT_EQ(OsalMutexUnlock(mutex.get()), VekError::kOk);
}

TEST(OsalCondWait, ReleasesTheMutexWhileItWaitsAndReturnsHoldingIt) {
  Mutex mutex;
  Cond cond;
  std::atomic<bool> ready{false};
  std::atomic<bool> taken_during_wait{false};
  ASSERT_EQ(OsalMutexLock(mutex.get()), VekError::kOk);
  {
    ThreadGroup signaller("signaller");
    signaller.Start(1, [&](int) {
      // The waiter gives the mutex up only inside OsalCondWait. A port
      // that keeps it is still woken after kPatience, and the case fails
      // instead of hanging.
      const bool taken = WaitFor(
          [&] { return OsalMutexTryLock(mutex.get()) == VekError::kOk; });
      taken_during_wait = taken;
      ready = true;
      EXPECT_EQ(OsalCondBroadcast(cond.get()), VekError::kOk);
      if (taken) {
        EXPECT_EQ(OsalMutexUnlock(mutex.get()), VekError::kOk);
      }
    });
    signaller.Release();
    while (!ready.load()) {
      EXPECT_EQ(OsalCondWait(cond.get(), mutex.get()), VekError::kOk);
    }
    EXPECT_TRUE(taken_during_wait.load()) << "the mutex stayed held";
    EXPECT_FALSE(FreeForAnotherThread(mutex.get()))
        << "the wait returned without the mutex";
  }
  EXPECT_EQ(OsalMutexUnlock(mutex.get()), VekError::kOk);
}

// Two threads hand a turn back and forth, each setting it under the mutex
// and signalling: a wake-up lost between a waiter's check and its sleep
// stops both.
TEST(OsalCondWait, LosesNoWakeUpWhenThePredicateIsSetUnderTheMutex) {
  constexpr int kRounds = 500;
  Mutex mutex;
  Cond cond;
  int turn = 0;  // under the mutex
  std::atomic<int> finished{0};
  ThreadGroup players("pingpong");
  players.Start(2, [&](int index) {
    for (int round = 0; round < kRounds; ++round) {
      EXPECT_EQ(OsalMutexLock(mutex.get()), VekError::kOk);
      while (turn != index) {
        EXPECT_EQ(OsalCondWait(cond.get(), mutex.get()), VekError::kOk);
      }
      turn = 1 - index;
      EXPECT_EQ(OsalCondSignal(cond.get()), VekError::kOk);
      EXPECT_EQ(OsalMutexUnlock(mutex.get()), VekError::kOk);
    }
    ++finished;
  });
  players.Release();
  if (!WaitFor([&] { return finished.load() == 2; })) {
    ADD_FAILURE() << "a wake-up was lost";
    BroadcastUntil(cond.get(), [&] { return finished.load() == 2; });
  }
}

TEST(OsalCondSignal, RefusesANullHandle) {
  EXPECT_NE(OsalCondSignal(nullptr), VekError::kOk);
}

TEST(OsalCondSignal, WakesAWaiterEachTimeAndSucceedsWithNobodyWaiting) {
  constexpr int kWaiters = 3;
  Mutex mutex;
  Cond cond;
  EXPECT_EQ(OsalCondSignal(cond.get()), VekError::kOk);
  int tokens = 0;               // under the mutex
  std::atomic<int> waiting{0};  // changed under the mutex only
  std::atomic<int> woken{0};
  ThreadGroup waiters("waiter");
  waiters.Start(kWaiters, [&](int) {
    EXPECT_EQ(OsalMutexLock(mutex.get()), VekError::kOk);
    ++waiting;
    while (tokens == 0) {
      EXPECT_EQ(OsalCondWait(cond.get(), mutex.get()), VekError::kOk);
    }
    --tokens;
    --waiting;
    ++woken;
    EXPECT_EQ(OsalMutexUnlock(mutex.get()), VekError::kOk);
  });
  waiters.Release();
  for (int signal = 1; signal <= kWaiters; ++signal) {
    // Each waiter counted itself under the mutex and gives it up only in
    // OsalCondWait: with the mutex taken after that, all of them wait.
    const int expected_waiting = kWaiters - signal + 1;
    if (!WaitFor([&] { return waiting.load() == expected_waiting; })) {
      ADD_FAILURE() << "waiters did not get to their wait";
      break;
    }
    EXPECT_EQ(OsalMutexLock(mutex.get()), VekError::kOk);
    tokens = 1;
    EXPECT_EQ(OsalCondSignal(cond.get()), VekError::kOk);
    EXPECT_EQ(OsalMutexUnlock(mutex.get()), VekError::kOk);
    if (!WaitFor([&] { return woken.load() == signal; })) {
      ADD_FAILURE() << "signal " << signal << " woke nobody";
      break;
    }
  }
  if (woken.load() != kWaiters) {
    EXPECT_EQ(OsalMutexLock(mutex.get()), VekError::kOk);
    tokens = kWaiters;
    EXPECT_EQ(OsalMutexUnlock(mutex.get()), VekError::kOk);
    BroadcastUntil(cond.get(), [&] { return woken.load() == kWaiters; });
  }
}

TEST(OsalCondBroadcast, RefusesANullHandle) {
  EXPECT_NE(OsalCondBroadcast(nullptr), VekError::kOk);
}

// Round after round, every waiter is back in its wait before the next
// broadcast, and each broadcast must release all of them.
TEST(OsalCondBroadcast, WakesEveryWaiterEachTimeAndSucceedsWithNobodyWaiting) {
  constexpr int kWaiters = 4;
  constexpr int kRounds = 50;
  Mutex mutex;
  Cond cond;
  EXPECT_EQ(OsalCondBroadcast(cond.get()), VekError::kOk);
  uint64_t generation = 0;  // under the mutex
  bool stop = false;        // under the mutex
  std::vector<int> rounds_seen(kWaiters, 0);
  std::atomic<int> waits_begun{0};  // changed under the mutex only
  std::atomic<int> left{0};
  ThreadGroup waiters("waiter");
  waiters.Start(kWaiters, [&](int index) {
    EXPECT_EQ(OsalMutexLock(mutex.get()), VekError::kOk);
    uint64_t seen = 0;
    for (;;) {
      ++waits_begun;
      while (generation == seen && !stop) {
        EXPECT_EQ(OsalCondWait(cond.get(), mutex.get()), VekError::kOk);
      }
      if (stop) break;
      seen = generation;
      ++rounds_seen[index];
    }
    ++left;
    EXPECT_EQ(OsalMutexUnlock(mutex.get()), VekError::kOk);
  });
  waiters.Release();
  for (int round = 1;; ++round) {
    if (!WaitFor([&] { return waits_begun.load() == kWaiters * round; })) {
      ADD_FAILURE() << "broadcast " << round - 1 << " missed "
                    << kWaiters * round - waits_begun.load() << " waiters";
      break;
    }
    if (round > kRounds) break;
    EXPECT_EQ(OsalMutexLock(mutex.get()), VekError::kOk);
    ++generation;
    EXPECT_EQ(OsalCondBroadcast(cond.get()), VekError::kOk);
    EXPECT_EQ(OsalMutexUnlock(mutex.get()), VekError::kOk);
  }
  EXPECT_EQ(OsalMutexLock(mutex.get()), VekError::kOk);
  stop = true;
  EXPECT_EQ(OsalMutexUnlock(mutex.get()), VekError::kOk);
  EXPECT_TRUE(BroadcastUntil(cond.get(), [&] { return left == kWaiters; }));
  waiters.JoinAll();
  for (int index = 0; index < kWaiters; ++index) {
    EXPECT_EQ(rounds_seen[index], kRounds) << "waiter " << index;
  }
}

}  // namespace
}  // namespace zov_vek_contract
