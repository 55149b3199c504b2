// Semaphores: every count from 0 to kOsalSemaphoreMaxValue is stored, reads
// back and is that many tokens; larger ones are refused and nothing is
// created or written. Post adds exactly one and wakes a sleeper of its own;
// Wait blocks at 0 and takes exactly one; TryWait takes one or fails at once
// and changes nothing. Threads asleep on a semaphore are no tokens, and
// tokens are neither lost nor duplicated among concurrent posters and
// takers. Null handles are refused. Left to the port: which code a refusal
// carries, posting beyond the maximum, GetValue with a null int*,
// destroying a semaphore that threads wait on.
#include <atomic>
#include <climits>
#include <cstdint>
#include <functional>
#include <vector>

#include "vek_contract.h"
#include "vek_contract_sync.h"

namespace zov_vek_contract {
namespace {

using zov_vek::kOsalSemaphoreMaxValue;
using zov_vek::OsalMutexLock;
using zov_vek::OsalMutexUnlock;
using zov_vek::OsalSemDestroy;
using zov_vek::OsalSemGetValue;
using zov_vek::OsalSemInit;
using zov_vek::OsalSemPost;
using zov_vek::OsalSemTryWait;
using zov_vek::OsalSemWait;

constexpr unsigned int kMax = kOsalSemaphoreMaxValue;

int SemValue(void* sem) {
  int value = kPoisonInt;
  EXPECT_EQ(OsalSemGetValue(sem, &value), VekError::kOk);
  return value;
}

// Takes `count` tokens with TryWait and then finds none left.
void ExpectTokens(void* sem, unsigned int count) {
  for (unsigned int i = 0; i < count; ++i) {
    if (OsalSemTryWait(sem) != VekError::kOk) {
      ADD_FAILURE() << "only " << i << " of " << count << " tokens";
      return;
    }
  }
  EXPECT_NE(OsalSemTryWait(sem), VekError::kOk) << "more than " << count;
  EXPECT_EQ(SemValue(sem), 0);
}

// Threads of the port asleep in OsalSemWait, each until it takes a token.
class Sleepers {
 public:
  Sleepers(void* sem, int count) : sem_(sem), count_(count) {
    group_.Start(count, [this](int) {
      ++about_to_wait_;
      EXPECT_EQ(OsalSemWait(sem_), VekError::kOk);
      ++woken_;
    });
    group_.Release();
    EXPECT_TRUE(WaitFor([this] { return about_to_wait_.load() == count_; }));
    // Time enough for every one of them to be asleep in Wait.
    Settle();
  }

  int woken() const { return woken_.load(); }

  // Posts, all at once, one token for each sleeper still asleep; true once
  // every sleeper has left.
  bool PostToEach() {
    for (int i = woken(); i < count_; ++i) {
      EXPECT_EQ(OsalSemPost(sem_), VekError::kOk);
    }
    return WaitFor([this] { return woken() == count_; });
  }

 private:
  void* const sem_;
  const int count_;
  std::atomic<int> about_to_wait_{0};
  std::atomic<int> woken_{0};
  ThreadGroup group_{"sleeper"};
};

// Runs `look` on a semaphore at 0 that threads sleep on; afterwards each
// post must still wake a sleeper.
void WhileThreadsSleep(const std::function<void(void*)>& look) {
  Semaphore sem(0);
  Sleepers sleepers(sem.get(), 3);
  look(sem.get());
  EXPECT_TRUE(sleepers.PostToEach()) << sleepers.woken() << " woken";
  EXPECT_EQ(SemValue(sem.get()), 0);
}

TEST(OsalSemInit, RefusesANullOutParameter) {
  EXPECT_NE(OsalSemInit(nullptr, 0), VekError::kOk);
  EXPECT_NE(OsalSemInit(nullptr, kMax), VekError::kOk);
}

TEST(OsalSemInit, StoresEveryCountUpToTheMaximum) {
  for (unsigned int count : {0u, 1u, 2u, kMax - 1, kMax}) {
    SCOPED_TRACE(testing::Message() << "count " << count);
    Semaphore sem(count);
    EXPECT_EQ(SemValue(sem.get()), static_cast<int>(count));
    ExpectTokens(sem.get(), count);
  }
}

TEST(OsalSemInit, RefusesCountsAboveTheMaximumAndCreatesNothing) {
  for (unsigned int count :
       {kMax + 1, kMax + 2, 2 * kMax, 0x7fffffffu, 0x80000000u, UINT_MAX}) {
    void* sem = kPoisonHandle;
    const VekError err = OsalSemInit(&sem, count);
    EXPECT_NE(err, VekError::kOk) << "count " << count;
    EXPECT_EQ(sem, kPoisonHandle)
        << "a refused Init wrote the handle, count " << count;
    if (err == VekError::kOk) {
      EXPECT_EQ(OsalSemDestroy(sem), VekError::kOk);
    }
  }
}

TEST(OsalSemDestroy, RefusesANullHandle) {
  EXPECT_NE(OsalSemDestroy(nullptr), VekError::kOk);
}

TEST(OsalSemPost, RefusesANullHandle) {
  EXPECT_NE(OsalSemPost(nullptr), VekError::kOk);
}

TEST(OsalSemPost, AddsExactlyOneUpToTheMaximum) {
  Semaphore sem(0);
  for (int expected = 1; expected <= 3; ++expected) {
    EXPECT_EQ(OsalSemPost(sem.get()), VekError::kOk);
    EXPECT_EQ(SemValue(sem.get()), expected);
  }
  ExpectTokens(sem.get(), 3);
  Semaphore almost_full(kMax - 1);
  EXPECT_EQ(OsalSemPost(almost_full.get()), VekError::kOk);
  EXPECT_EQ(SemValue(almost_full.get()), static_cast<int>(kMax));
  ExpectTokens(almost_full.get(), kMax);
}

TEST(OsalSemPost, WakesASleeperOfItsOwnEachTime) {
  constexpr int kSleepers = 4;
  Semaphore sem(0);
  Sleepers sleepers(sem.get(), kSleepers);
  EXPECT_EQ(sleepers.woken(), 0) << "Wait returned at count 0";
  EXPECT_EQ(OsalSemPost(sem.get()), VekError::kOk);
  EXPECT_TRUE(WaitFor([&] { return sleepers.woken() >= 1; }));
  Settle();
  EXPECT_EQ(sleepers.woken(), 1) << "one post let several waiters through";
  // The rest all at once: a post that finds earlier tokens not yet taken
  // must still wake a sleeper of its own.
  EXPECT_TRUE(sleepers.PostToEach())
      << sleepers.woken() << " of " << kSleepers << " woken";
  EXPECT_EQ(SemValue(sem.get()), 0);
}

TEST(OsalSemWait, RefusesANullHandle) {
  EXPECT_NE(OsalSemWait(nullptr), VekError::kOk);
}

TEST(OsalSemWait, TakesExactlyOneAndBlocksAtZero) {
  Semaphore sem(2);
  EXPECT_EQ(OsalSemWait(sem.get()), VekError::kOk);
  EXPECT_EQ(SemValue(sem.get()), 1);
  EXPECT_EQ(OsalSemWait(sem.get()), VekError::kOk);
  EXPECT_EQ(SemValue(sem.get()), 0);
  Sleepers sleeper(sem.get(), 1);
  EXPECT_EQ(sleeper.woken(), 0) << "Wait returned at count 0";
  EXPECT_TRUE(sleeper.PostToEach());
  EXPECT_EQ(SemValue(sem.get()), 0);
}

// A bounded buffer of two semaphores (free slots, filled slots) and a mutex
// over the ring's indices, with few slots so that both sides block often.
// Every token carries its number: one lost or duplicated shows as a number
// taken zero times or twice.
TEST(OsalSemWait, HandsEveryTokenToExactlyOneTaker) {
  constexpr unsigned int kSlots = 8;
  constexpr uint32_t kTokens = 10000;
  constexpr int kEachSide = 2;
  Semaphore free_slots(kSlots);
  Semaphore filled_slots(0);
  Mutex ring_mutex;
  uint32_t ring[kSlots] = {};
  unsigned int put = 0;
  unsigned int take = 0;
  std::vector<std::atomic<uint8_t>> seen(kTokens);
  std::atomic<int> failures{0};
  const auto check = [&](VekError err) {
    if (err != VekError::kOk) ++failures;
  };
  ThreadGroup("ring").Run(2 * kEachSide, [&](int index) {
    const bool producer = index < kEachSide;
    for (uint32_t n = index % kEachSide; n < kTokens; n += kEachSide) {
      check(OsalSemWait(producer ? free_slots.get() : filled_slots.get()));
      check(OsalMutexLock(ring_mutex.get()));
      uint32_t token = n;
      if (producer) {
        ring[put] = token;
        put = (put + 1) % kSlots;
      } else {
        token = ring[take];
        take = (take + 1) % kSlots;
      }
      check(OsalMutexUnlock(ring_mutex.get()));
      check(OsalSemPost(producer ? filled_slots.get() : free_slots.get()));
      if (producer) continue;
      if (token < kTokens) {
        ++seen[token];
      } else {
        ++failures;
      }
    }
  });
  EXPECT_EQ(failures.load(), 0);
  int lost = 0;
  int duplicated = 0;
  for (const auto& times : seen) {
    if (times.load() == 0) ++lost;
    if (times.load() > 1) ++duplicated;
  }
  EXPECT_EQ(lost, 0);
  EXPECT_EQ(duplicated, 0);
  EXPECT_EQ(SemValue(free_slots.get()), static_cast<int>(kSlots));
  EXPECT_EQ(SemValue(filled_slots.get()), 0);
}

TEST(OsalSemTryWait, RefusesANullHandle) {
  EXPECT_NE(OsalSemTryWait(nullptr), VekError::kOk);
}

TEST(OsalSemTryWait, TakesOneOrFailsAtOnceChangingNothing) {
  Semaphore sem(2);
  EXPECT_EQ(OsalSemTryWait(sem.get()), VekError::kOk);
  EXPECT_EQ(SemValue(sem.get()), 1);
  EXPECT_EQ(OsalSemTryWait(sem.get()), VekError::kOk);
  for (int attempt = 0; attempt < 2; ++attempt) {
    EXPECT_EQ(SemValue(sem.get()), 0);
    EXPECT_NE(OsalSemTryWait(sem.get()), VekError::kOk);
  }
  EXPECT_EQ(OsalSemPost(sem.get()), VekError::kOk);
  ExpectTokens(sem.get(), 1);
}

TEST(OsalSemTryWait, FindsNothingToTakeWhileThreadsSleep) {
  WhileThreadsSleep([](void* sem) {
    EXPECT_NE(OsalSemTryWait(sem), VekError::kOk) << "took a sleeper";
  });
}

TEST(OsalSemTryWait, TakesEveryTokenOnceAmongConcurrentTakers) {
  constexpr int kPosters = 2;
  constexpr int kTakers = 2;
  constexpr int kCallsEach = 5000;
  Semaphore sem(0);
  std::atomic<int> refused{0};
  std::atomic<int> taken{0};
  ThreadGroup("balance").Run(kPosters + kTakers, [&](int index) {
    for (int i = 0; i < kCallsEach; ++i) {
      if (index < kPosters) {
        if (OsalSemPost(sem.get()) != VekError::kOk) ++refused;
      } else if (OsalSemTryWait(sem.get()) == VekError::kOk) {
        ++taken;
      }
    }
  });
  EXPECT_EQ(refused.load(), 0);
  const int left = SemValue(sem.get());
  EXPECT_EQ(taken.load() + left, kPosters * kCallsEach)
      << taken.load() << " taken, " << left << " left";
  ExpectTokens(sem.get(), static_cast<unsigned int>(left));
}

TEST(OsalSemGetValue, RefusesANullHandleAndLeavesTheInt) {
  int value = kPoisonInt;
  EXPECT_NE(OsalSemGetValue(nullptr, &value), VekError::kOk);
  EXPECT_EQ(value, kPoisonInt);
}

TEST(OsalSemGetValue, CountsNoSleepers) {
  WhileThreadsSleep(
      [](void* sem) { EXPECT_EQ(SemValue(sem), 0) << "sleepers counted"; });
}

}  // namespace
}  // namespace zov_vek_contract
