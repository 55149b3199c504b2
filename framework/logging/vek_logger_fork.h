// The logger's part in fork(), for a port to call from its platform's fork
// hooks. Internal to libvekosal: not exported.
//
// fork() copies the logger's mutex as it is. Had another thread of the
// parent held it (a custom-group statement, a mask write), the child's
// first such statement would wait forever for a thread that does not exist
// there, and the custom-group map could be copied halfway through a change.
// So the forking thread holds the mutex across the fork and both processes
// release it after: the copy is always of a free mutex and a whole map.
#ifndef LOGGING_VEK_LOGGER_FORK_H_
#define LOGGING_VEK_LOGGER_FORK_H_

namespace zov_vek {
namespace log_internal {

// Just before the fork, on the forking thread: takes the logger's mutex,
// once the logger exists (before that nobody can hold it).
void HoldLoggerForFork();
// Just after it, in the parent and in the child: releases what
// HoldLoggerForFork took on this thread.
void ReleaseLoggerAfterFork();

}  // namespace log_internal
}  // namespace zov_vek

#endif  // LOGGING_VEK_LOGGER_FORK_H_
