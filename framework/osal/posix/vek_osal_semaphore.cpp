// Counting semaphores on one futex word that holds both the count and the
// number of sleepers.
//
// The low 16 bits are the count, 0 to kOsalSemaphoreMaxValue; the high 16
// bits count the threads that found it at 0 and may sleep. A post is one
// compare-and-swap that tests the maximum and adds one in the same step, so
// the count never exceeds the maximum, also with many posters at once, and
// a port to a platform with 16-bit semaphores behaves the same. The value
// that compare-and-swap replaced tells the poster whether anyone may sleep:
// no second load after the locked instruction, which would have to wait
// for it to complete. A wait takes one with a compare-and-swap while the
// count is above 0; only a wait that finds 0 registers and enters the
// kernel, and a post enters it only for a registered sleeper.
#include <sched.h>

#include <atomic>
#include <cstdint>
#include <new>

#include "osal/posix/vek_futex.h"
#include "osal/vek_osal.h"

namespace zov_vek {

namespace {

static_assert(kOsalSemaphoreMaxValue <= 0xFFFFu,
              "the count must fit the word's low half");

class Semaphore {
 public:
  explicit Semaphore(uint32_t value) : word_(value) { VEK_SYNC_CREATED(this); }
  ~Semaphore() { VEK_SYNC_DESTROYED(this); }

  // Takes one if there is one; never waits.
  bool TryTake() {
    uint32_t word = word_.load(std::memory_order_relaxed);
    while (Count(word) != 0) {
      if (word_.compare_exchange_weak(word, word - 1, std::memory_order_acquire,
                                      std::memory_order_relaxed)) {
        VEK_SYNC_HAPPENS_AFTER(this);
        return true;
      }
    }
    return false;
  }

  // False, with nothing changed, at the maximum.
  bool Post() {
    VEK_SYNC_HAPPENS_BEFORE(this);
    uint32_t word = word_.load(std::memory_order_relaxed);
    do {
      if (Count(word) >= kOsalSemaphoreMaxValue) return false;
    } while (!word_.compare_exchange_weak(
        word, word + 1, std::memory_order_release, std::memory_order_relaxed));
    // Every compare-and-swap on the word reads the latest value: a waiter
    // registered before this post is in `word`, one that registers after
    // it finds the count above 0 and takes instead of sleeping.
    if (__builtin_expect(Sleepers(word) != 0, 0)) {
      posix::FutexWake(&word_, 1);
    }
    return true;
  }

  void Wait() {
    if (__builtin_expect(TryTake(), 1)) return;
    uint32_t word = Register();
    if (word == kTaken) return;
    // The kernel sleeps only while the word is exactly what this thread
    // last saw: a post in between changed it. A wake can find the count
    // taken by a faster thread, and a signal handler can end the sleep
    // early: both just sleep again. Taking a token and leaving the
    // sleepers is one step, the thread's last touch of the semaphore.
    for (;;) {
      posix::FutexWait(&word_, word);
      word = word_.load(std::memory_order_relaxed);
      while (Count(word) != 0) {
        if (word_.compare_exchange_weak(word, word - 1 - kOneSleeper,
                                        std::memory_order_acquire,
                                        std::memory_order_relaxed)) {
          VEK_SYNC_HAPPENS_AFTER(this);
          return;
        }
      }
    }
  }

  uint32_t Value() const {
    return Count(word_.load(std::memory_order_relaxed));
  }

  bool HasSleepers() const {
    return Sleepers(word_.load(std::memory_order_acquire)) != 0;
  }

 private:
  static constexpr uint32_t kCountMask = 0xFFFFu;
  static constexpr uint32_t kOneSleeper = 0x10000u;
  static constexpr uint32_t kMaxSleepers = 0xFFFFu;
  // Register's answer when it took a token instead of registering; no word
  // with a zero count can equal it.
  static constexpr uint32_t kTaken = 1;

  static uint32_t Count(uint32_t word) { return word & kCountMask; }
  static uint32_t Sleepers(uint32_t word) { return word >> 16; }

  // Adds the caller to the sleepers and returns the word it left, or takes
  // a token that arrived meanwhile and returns kTaken.
  uint32_t Register() {
    uint32_t word = word_.load(std::memory_order_relaxed);
    for (;;) {
      if (Count(word) != 0) {
        if (word_.compare_exchange_weak(word, word - 1,
                                        std::memory_order_acquire,
                                        std::memory_order_relaxed)) {
          VEK_SYNC_HAPPENS_AFTER(this);
          return kTaken;
        }
      } else if (Sleepers(word) == kMaxSleepers) {
        // 65535 threads asleep on one semaphore: no room to count this
        // one, so it polls instead of sleeping until a place is free.
        sched_yield();
        word = word_.load(std::memory_order_relaxed);
      } else if (word_.compare_exchange_weak(word, word + kOneSleeper,
                                             std::memory_order_relaxed,
                                             std::memory_order_relaxed)) {
        return word + kOneSleeper;
      }
    }
  }

  std::atomic<uint32_t> word_;
};

Semaphore* AsSemaphore(void* handle) { return static_cast<Semaphore*>(handle); }

}  // namespace

VekError OsalSemInit(void** sem, unsigned int value) {
  if (sem == nullptr) return VekError::kErrParam;
  if (value > kOsalSemaphoreMaxValue) return VekError::kErrOutOfRange;
  auto* created = new (std::nothrow) Semaphore(value);
  if (created == nullptr) return VekError::kErrNoResource;
  *sem = created;
  return VekError::kOk;
}

VekError OsalSemDestroy(void* sem) {
  if (sem == nullptr) return VekError::kErrParam;
  // A thread still inside OsalSemWait would wake on freed memory: refuse,
  // and the semaphore stays usable.
  if (AsSemaphore(sem)->HasSleepers()) return VekError::kErrBusy;
  delete AsSemaphore(sem);
  return VekError::kOk;
}

VekError OsalSemPost(void* sem) {
  if (sem == nullptr) return VekError::kErrParam;
  return AsSemaphore(sem)->Post() ? VekError::kOk : VekError::kErrOutOfRange;
}

VekError OsalSemWait(void* sem) {
  if (sem == nullptr) return VekError::kErrParam;
  AsSemaphore(sem)->Wait();
  return VekError::kOk;
}

VekError OsalSemTryWait(void* sem) {
  if (sem == nullptr) return VekError::kErrParam;
  return AsSemaphore(sem)->TryTake() ? VekError::kOk : VekError::kErrBusy;
}

VekError OsalSemGetValue(void* sem, int* value) {
  if (sem == nullptr || value == nullptr) return VekError::kErrParam;
  *value = static_cast<int>(AsSemaphore(sem)->Value());
  return VekError::kOk;
}

}  // namespace zov_vek
