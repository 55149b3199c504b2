// Condition variables on a futex word that counts signals.
//
// A waiter reads the counter while it still holds the mutex, registers,
// releases the mutex and sleeps only while the counter is unchanged; a
// signal or broadcast sent by a thread that took the mutex after that read
// changes the counter first, so it cannot be lost between the release and
// the sleep. Signals and broadcasts with nobody registered return after
// one load, without entering the kernel.
//
// A wake-up may be spurious (a signal can release a waiter that registered
// after the signal was decided, a signal handler can end a sleep): the
// caller's predicate loop absorbs it, as POSIX allows.
#include <atomic>
#include <cstdint>
#include <new>

#include "osal/posix/vek_futex.h"
#include "osal/posix/vek_futex_mutex.h"
#include "osal/vek_osal.h"

namespace zov_vek {

namespace {

struct Cond {
  Cond() { VEK_SYNC_CREATED(this); }
  ~Cond() { VEK_SYNC_DESTROYED(this); }

  // The futex word: changes on every signal and broadcast that finds a
  // waiter. Wrap-around is harmless: a waiter would have to sleep through
  // exactly 2^32 signals to miss one.
  std::atomic<uint32_t> sequence{0};
  // Threads inside OsalCondWait.
  std::atomic<uint32_t> waiters{0};
};

Cond* AsCond(void* handle) { return static_cast<Cond*>(handle); }

// Wakes up to `count` waiters if any are registered. The registration was
// made under the mutex, so a caller that changed the predicate under the
// same mutex sees it.
void Wake(Cond* c, int count) {
  if (c->waiters.load(std::memory_order_relaxed) == 0) return;
  c->sequence.fetch_add(1, std::memory_order_release);
  posix::FutexWake(&c->sequence, count);
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
  // A thread still inside OsalCondWait, woken or not, touches the variable
  // once more before it returns: refuse, and the variable stays usable.
  if (AsCond(cond)->waiters.load(std::memory_order_acquire) != 0) {
    return VekError::kErrBusy;
  }
  delete AsCond(cond);
  return VekError::kOk;
}

VekError OsalCondWait(void* cond, void* mutex) {
  if (cond == nullptr || mutex == nullptr) return VekError::kErrParam;
  Cond* c = AsCond(cond);
  auto* m = static_cast<posix::FutexMutex*>(mutex);
  const uint32_t sequence = c->sequence.load(std::memory_order_relaxed);
  c->waiters.fetch_add(1, std::memory_order_relaxed);
  // A mutex that nobody holds cannot be waited on; it stays free.
  if (!m->Unlock()) {
    c->waiters.fetch_sub(1, std::memory_order_release);
    return VekError::kErrParam;
  }
  posix::FutexWait(&c->sequence, sequence);
  c->waiters.fetch_sub(1, std::memory_order_release);
  m->Lock();
  return VekError::kOk;
}

VekError OsalCondSignal(void* cond) {
  if (cond == nullptr) return VekError::kErrParam;
  Wake(AsCond(cond), 1);
  return VekError::kOk;
}

VekError OsalCondBroadcast(void* cond) {
  if (cond == nullptr) return VekError::kErrParam;
  Wake(AsCond(cond), posix::kFutexWakeAll);
  return VekError::kOk;
}

}  // namespace zov_vek
