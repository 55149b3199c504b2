// Synchronisation under load: mutual exclusion that must leave an
// unsynchronised counter exact, semaphore tokens that must be neither lost
// nor duplicated, and broadcasts that must leave no waiter behind.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <vector>

#include "osal/vek_error.h"
#include "osal/vek_osal.h"
#include "osal/vek_scoped_mutex.h"
#include "stress_support.h"

namespace vek_stress {
namespace {

using namespace std::chrono_literals;
using zov_vek::VekError;

constexpr unsigned int kLockThreads = 8;
constexpr unsigned int kLocksPerThread = 100000;

// Written only under the mutex and deliberately not atomic: a lost update
// shows as a short count (and, under ThreadSanitizer, as a race whatever
// the timing).
struct Counter {
  void* mutex = nullptr;
  uint64_t value = 0;

  // Read, wait a moment, write back one more: a lock that fails to exclude
  // loses updates here even when the threads overlap only briefly.
  void Increment() {
    volatile uint64_t* const cell = &value;
    const uint64_t read = *cell;
    for (volatile int i = 0; i < 16; i = i + 1) {
    }
    *cell = read + 1;
  }
};

class MutexStressTest : public testing::Test {
 protected:
  void SetUp() override {
    ASSERT_EQ(VekError::kOk, zov_vek::OsalMutexInit(&counter_.mutex));
  }
  void TearDown() override {
    EXPECT_EQ(VekError::kOk, zov_vek::OsalMutexDestroy(counter_.mutex));
  }
  Counter counter_;
};

TEST_F(MutexStressTest, LockUnlockKeepsUnsynchronisedCounterExact) {
  Deadline deadline("mutex lock/unlock", 120s);
  std::atomic<unsigned int> failures{0};
  RunOsalThreads(kLockThreads, [&](unsigned int) {
    for (unsigned int i = 0; i < kLocksPerThread; ++i) {
      if (zov_vek::OsalMutexLock(counter_.mutex) != VekError::kOk) {
        failures++;
        continue;
      }
      counter_.Increment();
      if (zov_vek::OsalMutexUnlock(counter_.mutex) != VekError::kOk) {
        failures++;
      }
    }
  });
  EXPECT_EQ(0u, failures.load());
  EXPECT_EQ(uint64_t{kLockThreads} * kLocksPerThread, counter_.value);
}

TEST_F(MutexStressTest, ScopedMutexKeepsUnsynchronisedCounterExact) {
  Deadline deadline("ScopedMutex", 120s);
  RunOsalThreads(kLockThreads, [&](unsigned int) {
    for (unsigned int i = 0; i < kLocksPerThread; ++i) {
      zov_vek::ScopedMutex lock(counter_.mutex);
      counter_.Increment();
    }
  });
  EXPECT_EQ(uint64_t{kLockThreads} * kLocksPerThread, counter_.value);
}

// Try-lock mixed with blocking locks: a successful try-lock must exclude
// exactly like a lock, and a failed one must leave the holder's hold alone.
TEST_F(MutexStressTest, TryLockExcludesLikeLock) {
  Deadline deadline("mutex try-lock", 120s);
  std::atomic<uint64_t> taken{0};
  std::atomic<unsigned int> failures{0};
  RunOsalThreads(kLockThreads, [&](unsigned int index) {
    for (unsigned int i = 0; i < kLocksPerThread / 4; ++i) {
      VekError err;
      if (index % 2 == 0) {
        err = zov_vek::OsalMutexTryLock(counter_.mutex);
        if (err == VekError::kErrBusy) continue;
      } else {
        err = zov_vek::OsalMutexLock(counter_.mutex);
      }
      if (err != VekError::kOk) {
        failures++;
        continue;
      }
      counter_.Increment();
      taken++;
      if (zov_vek::OsalMutexUnlock(counter_.mutex) != VekError::kOk) {
        failures++;
      }
    }
  });
  EXPECT_EQ(0u, failures.load());
  EXPECT_EQ(taken.load(), counter_.value);
  EXPECT_GE(counter_.value, uint64_t{kLockThreads / 2} * (kLocksPerThread / 4));
}

// A bounded buffer built from two counting semaphores (free slots, filled
// slots) and a mutex for the ring indices. Every token carries its own
// number, so a lost or duplicated post or wait shows as a number seen zero
// times or twice, or as a count left over at the end.
constexpr unsigned int kTokens = 1000000;
constexpr unsigned int kProducers = 2;
constexpr unsigned int kConsumers = 2;
constexpr unsigned int kRingSize = 256;
constexpr uint32_t kStopToken = UINT32_MAX;

struct Ring {
  void* free_slots = nullptr;
  void* filled_slots = nullptr;
  void* mutex = nullptr;
  uint32_t slots[kRingSize] = {};
  unsigned int put = 0;
  unsigned int take = 0;
  std::atomic<unsigned int> failures{0};

  void Check(VekError err) {
    if (err != VekError::kOk) failures++;
  }

  void Put(uint32_t token) {
    Check(zov_vek::OsalSemWait(free_slots));
    Check(zov_vek::OsalMutexLock(mutex));
    slots[put] = token;
    put = (put + 1) % kRingSize;
    Check(zov_vek::OsalMutexUnlock(mutex));
    Check(zov_vek::OsalSemPost(filled_slots));
  }

  uint32_t Take() {
    Check(zov_vek::OsalSemWait(filled_slots));
    Check(zov_vek::OsalMutexLock(mutex));
    const uint32_t token = slots[take];
    take = (take + 1) % kRingSize;
    Check(zov_vek::OsalMutexUnlock(mutex));
    Check(zov_vek::OsalSemPost(free_slots));
    return token;
  }
};

int SemValue(void* sem) {
  int value = -1;
  EXPECT_EQ(VekError::kOk, zov_vek::OsalSemGetValue(sem, &value));
  return value;
}

TEST(SemaphoreStressTest, MillionTokensNeitherLostNorDuplicated) {
  Deadline deadline("semaphore tokens", 300s);
  Ring ring;
  ASSERT_EQ(VekError::kOk, zov_vek::OsalSemInit(&ring.free_slots, kRingSize));
  ASSERT_EQ(VekError::kOk, zov_vek::OsalSemInit(&ring.filled_slots, 0));
  ASSERT_EQ(VekError::kOk, zov_vek::OsalMutexInit(&ring.mutex));

  std::vector<std::atomic<uint8_t>> seen(kTokens);
  for (auto& count : seen) count.store(0, std::memory_order_relaxed);
  std::atomic<unsigned int> out_of_range{0};
  std::atomic<unsigned int> consumed{0};

  RunOsalThreads(kProducers + kConsumers, [&](unsigned int index) {
    if (index < kProducers) {
      for (uint32_t token = index; token < kTokens; token += kProducers) {
        ring.Put(token);
      }
      return;
    }
    for (;;) {
      const uint32_t token = ring.Take();
      if (token == kStopToken) return;
      if (token >= kTokens) {
        out_of_range++;
        continue;
      }
      seen[token].fetch_add(1, std::memory_order_relaxed);
      // The last consumer to finish its share sends every consumer its
      // stop token; there is no other way to wake a consumer that waits.
      if (consumed.fetch_add(1) + 1 == kTokens) {
        for (unsigned int i = 0; i < kConsumers; ++i) ring.Put(kStopToken);
      }
    }
  });

  EXPECT_EQ(0u, ring.failures.load());
  EXPECT_EQ(0u, out_of_range.load());
  unsigned int lost = 0;
  unsigned int duplicated = 0;
  for (const auto& count : seen) {
    const uint8_t times = count.load(std::memory_order_relaxed);
    if (times == 0) lost++;
    if (times > 1) duplicated++;
  }
  EXPECT_EQ(0u, lost);
  EXPECT_EQ(0u, duplicated);
  // Every token taken was handed back: the counts are where they started.
  EXPECT_EQ(static_cast<int>(kRingSize), SemValue(ring.free_slots));
  EXPECT_EQ(0, SemValue(ring.filled_slots));
  EXPECT_NE(VekError::kOk, zov_vek::OsalSemTryWait(ring.filled_slots));
  EXPECT_EQ(0, SemValue(ring.filled_slots));

  EXPECT_EQ(VekError::kOk, zov_vek::OsalMutexDestroy(ring.mutex));
  EXPECT_EQ(VekError::kOk, zov_vek::OsalSemDestroy(ring.filled_slots));
  EXPECT_EQ(VekError::kOk, zov_vek::OsalSemDestroy(ring.free_slots));
}

// Plain tokens without a buffer: posters and try-waiters hammer one
// semaphore. Posts past the maximum count are refused, so the posters may
// outrun the takers without breaking anything; the tokens taken plus the
// count left must equal the posts that were accepted.
TEST(SemaphoreStressTest, PostAndTryWaitBalance) {
  Deadline deadline("semaphore post/try-wait", 120s);
  constexpr unsigned int kPostsPerThread = 50000;
  constexpr unsigned int kPosters = 4;
  void* sem = nullptr;
  ASSERT_EQ(VekError::kOk, zov_vek::OsalSemInit(&sem, 0));
  std::atomic<uint64_t> posted{0};
  std::atomic<uint64_t> taken{0};
  std::atomic<unsigned int> failures{0};
  RunOsalThreads(kPosters * 2, [&](unsigned int index) {
    for (unsigned int i = 0; i < kPostsPerThread; ++i) {
      if (index < kPosters) {
        const VekError err = zov_vek::OsalSemPost(sem);
        if (err == VekError::kOk) {
          posted++;
        } else if (err != VekError::kErrOutOfRange) {
          failures++;
        }
      } else {
        const VekError err = zov_vek::OsalSemTryWait(sem);
        if (err == VekError::kOk) {
          taken++;
        } else if (err != VekError::kErrBusy) {
          failures++;
        }
      }
    }
  });
  EXPECT_EQ(0u, failures.load());
  const int left = SemValue(sem);
  EXPECT_GE(left, 0);
  EXPECT_LE(left, static_cast<int>(zov_vek::kOsalSemaphoreMaxValue));
  EXPECT_EQ(posted.load(), taken.load() + static_cast<uint64_t>(left));
  EXPECT_EQ(VekError::kOk, zov_vek::OsalSemDestroy(sem));
}

// Every round the main thread moves a generation number on and broadcasts
// once; it then waits until every waiter has acknowledged that round. A
// waiter that the broadcast missed never acknowledges, and the deadline
// fails the run.
constexpr unsigned int kWaiters = 32;
constexpr unsigned int kRounds = 1000;

struct Broadcast {
  void* mutex = nullptr;
  void* wake = nullptr;      // the generation moved on
  void* all_seen = nullptr;  // every waiter acknowledged
  uint64_t generation = 0;
  unsigned int acknowledged = 0;
  bool stop = false;
  std::atomic<unsigned int> failures{0};

  void Check(VekError err) {
    if (err != VekError::kOk) failures++;
  }
};

TEST(CondStressTest, RepeatedBroadcastsLeaveNoWaiterBehind) {
  Deadline deadline("condition broadcasts", 300s);
  Broadcast b;
  ASSERT_EQ(VekError::kOk, zov_vek::OsalMutexInit(&b.mutex));
  ASSERT_EQ(VekError::kOk, zov_vek::OsalCondInit(&b.wake));
  ASSERT_EQ(VekError::kOk, zov_vek::OsalCondInit(&b.all_seen));
  std::vector<unsigned int> rounds_seen(kWaiters, 0);

  void* broadcaster_thread = nullptr;
  void* attr = nullptr;
  ASSERT_EQ(VekError::kOk, zov_vek::OsalThreadAttrInit(&attr));
  ASSERT_EQ(VekError::kOk, zov_vek::OsalThreadAttrSetName(attr, "broadcaster"));
  ASSERT_EQ(VekError::kOk, zov_vek::OsalThreadAttrSetStackSize(attr, 65536));
  // The broadcaster runs on its own thread so that the waiters below can
  // be started and joined by RunOsalThreads.
  struct Broadcaster {
    Broadcast* b;
    static void Run(void* arg) {
      Broadcast& b = *static_cast<Broadcaster*>(arg)->b;
      for (unsigned int round = 0; round < kRounds; ++round) {
        b.Check(zov_vek::OsalMutexLock(b.mutex));
        // Wait until the previous round (or the start-up) is acknowledged
        // by all, so that every waiter is back at its wait or about to be.
        while (b.acknowledged < kWaiters) {
          b.Check(zov_vek::OsalCondWait(b.all_seen, b.mutex));
        }
        b.acknowledged = 0;
        b.generation++;
        b.Check(zov_vek::OsalCondBroadcast(b.wake));
        b.Check(zov_vek::OsalMutexUnlock(b.mutex));
      }
      b.Check(zov_vek::OsalMutexLock(b.mutex));
      while (b.acknowledged < kWaiters) {
        b.Check(zov_vek::OsalCondWait(b.all_seen, b.mutex));
      }
      b.stop = true;
      b.generation++;
      b.Check(zov_vek::OsalCondBroadcast(b.wake));
      b.Check(zov_vek::OsalMutexUnlock(b.mutex));
    }
  } broadcaster{&b};
  ASSERT_EQ(VekError::kOk,
            zov_vek::OsalThreadCreate(&broadcaster_thread, attr,
                                      &Broadcaster::Run, &broadcaster));

  RunOsalThreads(kWaiters, [&](unsigned int index) {
    b.Check(zov_vek::OsalMutexLock(b.mutex));
    uint64_t seen = 0;
    // Start-up counts as an acknowledged round 0.
    if (++b.acknowledged == kWaiters) {
      b.Check(zov_vek::OsalCondSignal(b.all_seen));
    }
    for (;;) {
      while (b.generation == seen) {
        b.Check(zov_vek::OsalCondWait(b.wake, b.mutex));
      }
      if (b.stop) break;
      seen = b.generation;
      rounds_seen[index]++;
      if (++b.acknowledged == kWaiters) {
        b.Check(zov_vek::OsalCondSignal(b.all_seen));
      }
    }
    b.Check(zov_vek::OsalMutexUnlock(b.mutex));
  });

  EXPECT_EQ(VekError::kOk, zov_vek::OsalThreadJoin(broadcaster_thread));
  EXPECT_EQ(VekError::kOk, zov_vek::OsalThreadAttrDestroy(attr));
  EXPECT_EQ(0u, b.failures.load());
  for (unsigned int i = 0; i < kWaiters; ++i) {
    EXPECT_EQ(kRounds, rounds_seen[i]) << "waiter " << i;
  }
  EXPECT_EQ(VekError::kOk, zov_vek::OsalCondDestroy(b.all_seen));
  EXPECT_EQ(VekError::kOk, zov_vek::OsalCondDestroy(b.wake));
  EXPECT_EQ(VekError::kOk, zov_vek::OsalMutexDestroy(b.mutex));
}

}  // namespace
}  // namespace vek_stress
