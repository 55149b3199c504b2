// The library's own locks across fork(): each is held by the forking
// thread while the process is copied and released in both processes, so
// that a child finds them free (logging/vek_logger_fork.h says why).
//
// The handlers are registered when the library loads, so that a program's
// own handlers, registered later, run their prepare step before ours and
// their parent and child steps after ours: they may log.
#include <pthread.h>

#include "logging/vek_logger_fork.h"

namespace {

// pthread_atfork fails only for want of memory at load time; the library
// still works then, only a fork while another thread logs is unprotected.
__attribute__((constructor)) void HoldLibraryLocksAcrossFork() {
  pthread_atfork(&zov_vek::log_internal::HoldLoggerForFork,
                 &zov_vek::log_internal::ReleaseLoggerAfterFork,
                 &zov_vek::log_internal::ReleaseLoggerAfterFork);
}

}  // namespace
