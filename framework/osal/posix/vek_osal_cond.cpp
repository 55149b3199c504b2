// Condition variables on a futex word that counts signals.
//
// A waiter reads the counter while it still holds the mutex, registers,
// releases the mutex and sleeps only while the counter is unchanged; a
// signal or broadcast sent by a thread that took the mutex after that read
// changes the counter first, so it cannot be lost between the release and
// the sleep. Signals and broadcasts with nobody blocked return after one
// load, without entering the kernel.
//
// A wake-up may be spurious (a signal can release a waiter that registered
// after the signal was decided, a signal handler can end a sleep): the
// caller's predicate loop absorbs it, as POSIX allows.
//
// Destruction follows POSIX's rule: a variable may be destroyed once no
// thread is blocked on it, also right after a broadcast that has woken
// threads which are still on their way out of OsalCondWait. So the
// variable tells the two apart: a signal moves one waiter from "blocked" to
// "released", a broadcast moves them all, and a leaving waiter's last touch
// of the variable is taking itself off those counts. Destroy refuses while
// any is blocked and otherwise waits out the released ones, which need
// only to be scheduled, never another signal.
#include <sched.h>

#include <atomic>
#include <cstdint>
#include <new>

#include "osal/posix/vek_futex.h"
#include "osal/posix/vek_futex_mutex.h"
#include "osal/vek_osal.h"

namespace zov_vek {

namespace {

// Both counts in one word, so that a signal's "one is blocked, release it"
// and a leaving waiter's "take myself off" are single atomic steps that see
// each other.
constexpr uint64_t kOneBlocked = 1;
constexpr uint64_t kOneReleased = uint64_t{1} << 32;
constexpr uint64_t kBlockedMask = kOneReleased - 1;

uint64_t Blocked(uint64_t waiters) { return waiters & kBlockedMask; }
uint64_t Released(uint64_t waiters) { return waiters >> 32; }

static_assert(std::atomic<uint64_t>::is_always_lock_free,
              "the waiter counts must be one lock-free word");

struct Cond {
  Cond() { VEK_SYNC_CREATED(this); }
  ~Cond() { VEK_SYNC_DESTROYED(this); }

  // The futex word: changes on every signal and broadcast that finds a
  // waiter. Wrap-around is harmless: a waiter would have to sleep through
  // exactly 2^32 signals to miss one.
  std::atomic<uint32_t> sequence{0};
  // Low half: waiters not yet released by a signal or broadcast. High half:
  // released waiters that have not yet left OsalCondWait. Which thread a
  // count stands for does not matter; only that, outside a signal or
  // broadcast under way, no thread can sleep on `sequence` unwoken while the
  // low half is 0.
  std::atomic<uint64_t> waiters{0};
};

Cond* AsCond(void* handle) { return static_cast<Cond*>(handle); }

// Releases one blocked waiter, or all of them, given the counts last seen
// with at least one blocked. The registration was made under the mutex, so
// a caller that changed the predicate under the same mutex sees it.
//
// The counts change before the counter does: a waiter woken by the counter
// must find itself already released, or a waiter still asleep would be
// taken for released and destroy would wait for it forever. Acquire pairs
// with the waiter's registration, so the counter it read comes before the
// change made here.
//
// Out of line, so that signal and broadcast keep only the one load that
// finds nobody blocked.
__attribute__((noinline)) void ReleaseBlocked(Cond* c, uint64_t waiters,
                                              bool all) {
  uint64_t released;
  do {
    const uint64_t blocked = Blocked(waiters);
    if (blocked == 0) return;
    released = all ? (Released(waiters) + blocked) * kOneReleased
                   : waiters - kOneBlocked + kOneReleased;
  } while (!c->waiters.compare_exchange_weak(
      waiters, released, std::memory_order_acquire, std::memory_order_relaxed));
  c->sequence.fetch_add(1, std::memory_order_release);
  posix::FutexWake(&c->sequence, all ? posix::kFutexWakeAll : 1);
}

void Wake(Cond* c, bool all) {
  const uint64_t waiters = c->waiters.load(std::memory_order_relaxed);
  if (__builtin_expect(Blocked(waiters) != 0, 0)) {
    ReleaseBlocked(c, waiters, all);
  }
}

// A waiter's last touch of the variable. It takes a released count if there
// is one, else its own blocked one: a waiter back without a release (a
// signal handler, a counter changed before it slept) was never released,
// and one that was released may find its count already taken by such a
// waiter, whose blocked count it then takes instead. Either way the blocked
// count never falls below the number of threads that can still sleep.
void Leave(Cond* c) {
  VEK_SYNC_HAPPENS_BEFORE(c);
  uint64_t waiters = c->waiters.load(std::memory_order_relaxed);
  while (!c->waiters.compare_exchange_weak(
      waiters,
      Released(waiters) != 0 ? waiters - kOneReleased : waiters - kOneBlocked,
      std::memory_order_release, std::memory_order_relaxed)) {
  }
}

}  // namespace

VekError OsalCondInit(void** cond) {
  if (cond == nullptr) return VekError::kErrParam;
  auto* created = new (std::nothrow) Cond;
  if (created == nullptr) return VekError::kErrNoResource;
  *cond = created;
  return VekError::kOk;
}

VekError OsalCondDestroy(void* cond) {
  if (cond == nullptr) return VekError::kErrParam;
  Cond* c = AsCond(cond);
  // A blocked thread would sleep on freed memory: refuse, and the variable
  // stays usable. Released threads are already awake (or never slept) and
  // leave after a few instructions; the yield lets them run on a busy
  // machine.
  for (;;) {
    const uint64_t waiters = c->waiters.load(std::memory_order_acquire);
    if (Blocked(waiters) != 0) return VekError::kErrBusy;
    if (Released(waiters) == 0) break;
    sched_yield();
  }
  VEK_SYNC_HAPPENS_AFTER(c);
  delete c;
  return VekError::kOk;
}

VekError OsalCondWait(void* cond, void* mutex) {
  if (cond == nullptr || mutex == nullptr) return VekError::kErrParam;
  Cond* c = AsCond(cond);
  auto* m = static_cast<posix::FutexMutex*>(mutex);
  const uint32_t sequence = c->sequence.load(std::memory_order_relaxed);
  // Release: the counter read above comes before any signal that sees this
  // registration.
  c->waiters.fetch_add(kOneBlocked, std::memory_order_release);
  // A mutex that nobody holds cannot be waited on; it stays free.
  if (!m->Unlock()) {
    Leave(c);
    return VekError::kErrParam;
  }
  posix::FutexWait(&c->sequence, sequence);
  Leave(c);
  // From here on the variable may already be destroyed.
  m->Lock();
  return VekError::kOk;
}

VekError OsalCondSignal(void* cond) {
  if (cond == nullptr) return VekError::kErrParam;
  Wake(AsCond(cond), false);
  return VekError::kOk;
}

VekError OsalCondBroadcast(void* cond) {
  if (cond == nullptr) return VekError::kErrParam;
  Wake(AsCond(cond), true);
  return VekError::kOk;
}

}  // namespace zov_vek
