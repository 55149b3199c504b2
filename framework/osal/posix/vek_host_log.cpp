// Host builds only. On a device logd keeps every priority and the level
// masks alone decide what is written; liblog on a host drops verbose and
// debug lines by default. Lowering its threshold when the library loads
// makes stderr show exactly the lines that pass the framework's masks.
//
// liblog on a host stamps every line with localtime_r, which holds a lock
// of the C library's that fork() copies as it is and that glibc does not
// reset in the child. A child forked while another thread wrote a line
// would hang in its own first line. So every line goes through a writer
// that fork waits for: the forking thread lets the lines being written
// finish and holds back new ones until the fork is done.
#include <android/log.h>

#include <pthread.h>

#include <atomic>
#include <cstdint>

#include "osal/posix/vek_futex.h"

namespace {

using zov_vek::posix::FutexWait;
using zov_vek::posix::FutexWake;
using zov_vek::posix::kFutexWakeAll;

// The number of lines being written, and whether a fork is under way.
// Writers and forking threads sleep on the word while it changes.
std::atomic<uint32_t> line_writes{0};
constexpr uint32_t kForking = uint32_t{1} << 31;

// Adds `add` to the word once no fork is under way.
uint32_t EnterOutsideFork(uint32_t add) {
  uint32_t word = line_writes.load(std::memory_order_relaxed);
  for (;;) {
    if ((word & kForking) != 0) {
      FutexWait(&line_writes, word);
      word = line_writes.load(std::memory_order_relaxed);
    } else if (line_writes.compare_exchange_weak(word, word + add,
                                                 std::memory_order_acquire,
                                                 std::memory_order_relaxed)) {
      return word + add;
    }
  }
}

void WriteLine(const __android_logger_data* data, const char* message) {
  EnterOutsideFork(1);
  __android_log_stderr_logger(data, message);
  // The last line out wakes a fork that waits for it.
  if (line_writes.fetch_sub(1, std::memory_order_release) == (kForking | 1)) {
    FutexWake(&line_writes, kFutexWakeAll);
  }
}

void HoldLinesForFork() {
  uint32_t word = EnterOutsideFork(kForking);
  while (word != kForking) {
    FutexWait(&line_writes, word);
    word = line_writes.load(std::memory_order_acquire);
  }
}

// In the parent the held-back writers and forks go on; in the child there
// are none, and the word starts over.
void ReleaseLinesAfterFork() {
  line_writes.store(0, std::memory_order_release);
  FutexWake(&line_writes, kFutexWakeAll);
}

__attribute__((constructor)) void LetMasksDecideOnHost() {
  __android_log_set_minimum_priority(ANDROID_LOG_VERBOSE);
  // Without the handlers (no memory at load time) lines are still written,
  // only a fork while another thread writes one is unprotected.
  if (pthread_atfork(&HoldLinesForFork, &ReleaseLinesAfterFork,
                     &ReleaseLinesAfterFork) == 0) {
    __android_log_set_logger(&WriteLine);
  }
}

}  // namespace
