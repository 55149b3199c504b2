// Sleeping and waking on a 32-bit word through the kernel's futex call, the
// mechanism glibc's and bionic's own mutexes, semaphores and condition
// variables sit on. The port's synchronisation objects use it directly so
// that an uncontended lock, post or signal is one atomic instruction on a
// word of ours, with nothing of the platform library's bookkeeping (mutex
// kinds, owners, cancellation points, errno) on the way.
//
// Built with VEK_OSAL_VALGRIND_ANNOTATIONS, the objects also tell valgrind's
// DRD which of their steps order memory: DRD knows pthreads' objects, not
// ours. Without it the annotations compile to nothing.
#ifndef OSAL_POSIX_VEK_FUTEX_H_
#define OSAL_POSIX_VEK_FUTEX_H_

#include <linux/futex.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <climits>
#include <cstdint>

#ifdef VEK_OSAL_VALGRIND_ANNOTATIONS
#include <valgrind/drd.h>
#endif

namespace zov_vek {
namespace posix {

// The kernel reads the word as a plain aligned uint32_t.
static_assert(sizeof(std::atomic<uint32_t>) == sizeof(uint32_t) &&
                  alignof(std::atomic<uint32_t>) == alignof(uint32_t),
              "a futex word must be a bare 32-bit integer");
static_assert(std::atomic<uint32_t>::is_always_lock_free,
              "a futex word must be lock-free");

inline uint32_t* FutexAddress(std::atomic<uint32_t>* word) {
  return reinterpret_cast<uint32_t*>(word);
}

// Sleeps while `*word` still holds `expected`: the kernel compares and
// queues the caller in one step, so a wake sent after the caller read the
// word cannot be lost. Returns at once if the word differs, and may return
// for no reason (a signal handler ran): callers re-test their condition.
// errno is the caller's and stays as it was.
inline void FutexWait(std::atomic<uint32_t>* word, uint32_t expected) {
  const int saved_errno = errno;
  syscall(SYS_futex, FutexAddress(word), FUTEX_WAIT_PRIVATE, expected, nullptr,
          nullptr, 0);
  errno = saved_errno;
}

// Wakes up to `count` threads sleeping on `word`.
inline void FutexWake(std::atomic<uint32_t>* word, int count) {
  const int saved_errno = errno;
  syscall(SYS_futex, FutexAddress(word), FUTEX_WAKE_PRIVATE, count, nullptr,
          nullptr, 0);
  errno = saved_errno;
}

// A count for FutexWake that wakes every sleeper.
constexpr int kFutexWakeAll = INT_MAX;

// Tells the processor that the caller spins: the sibling hyperthread gets
// the core and the loop's exit does not pay for a mis-speculated order.
inline void CpuRelax() {
#if defined(__x86_64__) || defined(__i386__)
  __builtin_ia32_pause();
#elif defined(__aarch64__) || defined(__arm__)
  asm volatile("yield" ::: "memory");
#endif
}

// What DRD is told. An object's futex words are read and written by many
// threads at once, by design; the memory its users hand over through it is
// ordered from each "happens before" point to every later "happens after"
// point of the same object. The point made at creation lets the first taker
// of a lock or of an initial count pass without a complaint.
#ifdef VEK_OSAL_VALGRIND_ANNOTATIONS
#define VEK_SYNC_CREATED(object)                                          \
  do {                                                                    \
    ANNOTATE_BENIGN_RACE_SIZED(object, sizeof(*(object)), "futex words"); \
    ANNOTATE_HAPPENS_BEFORE(object);                                      \
  } while (0)
#define VEK_SYNC_DESTROYED(object) DRD_STOP_IGNORING_VAR(*(object))
#define VEK_SYNC_HAPPENS_BEFORE(object) ANNOTATE_HAPPENS_BEFORE(object)
#define VEK_SYNC_HAPPENS_AFTER(object) ANNOTATE_HAPPENS_AFTER(object)
#else
#define VEK_SYNC_CREATED(object) ((void)0)
#define VEK_SYNC_DESTROYED(object) ((void)0)
#define VEK_SYNC_HAPPENS_BEFORE(object) ((void)0)
#define VEK_SYNC_HAPPENS_AFTER(object) ((void)0)
#endif

}  // namespace posix
}  // namespace zov_vek

#endif  // OSAL_POSIX_VEK_FUTEX_H_
