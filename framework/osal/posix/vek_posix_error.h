// Maps the error numbers of pthreads and POSIX calls to framework codes.
#ifndef OSAL_POSIX_VEK_POSIX_ERROR_H_
#define OSAL_POSIX_VEK_POSIX_ERROR_H_

#include <cerrno>

#include "osal/vek_error.h"

namespace zov_vek {
namespace posix {

inline VekError FromErrno(int rc) {
  // Compares in order of likelihood rather than a switch, which compiles to
  // an indirect jump through a table: success on every lock, unlock, post
  // and signal, then "would block" on every failed try.
  if (__builtin_expect(rc == 0, 1)) return VekError::kOk;
  if (rc == EBUSY || rc == EAGAIN) return VekError::kErrBusy;
  if (rc == EINVAL) return VekError::kErrParam;
  if (rc == ENOMEM) return VekError::kErrNoResource;
  if (rc == ENOSYS || rc == ENOTSUP) return VekError::kErrNotSupported;
  return VekError::kErr;
}

}  // namespace posix
}  // namespace zov_vek

#endif  // OSAL_POSIX_VEK_POSIX_ERROR_H_
