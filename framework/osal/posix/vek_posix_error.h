// Maps the error numbers of pthreads and POSIX calls to framework codes.
#ifndef OSAL_POSIX_VEK_POSIX_ERROR_H_
#define OSAL_POSIX_VEK_POSIX_ERROR_H_

#include <cerrno>

#include "osal/vek_error.h"

namespace zov_vek {
namespace posix {

inline VekError FromErrno(int rc) {
  // Success first and on its own: every lock, unlock, post and signal
  // passes through here, and a switch of this size compiles to an indirect
  // jump through a table.
  if (__builtin_expect(rc == 0, 1)) return VekError::kOk;
  switch (rc) {
    case 0:
      return VekError::kOk;
    case EINVAL:
      return VekError::kErrParam;
    case EBUSY:
    case EAGAIN:
      return VekError::kErrBusy;
    case ENOMEM:
      return VekError::kErrNoResource;
    case ENOSYS:
    case ENOTSUP:
      return VekError::kErrNotSupported;
    default:
      return VekError::kErr;
  }
}

}  // namespace posix
}  // namespace zov_vek

#endif  // OSAL_POSIX_VEK_POSIX_ERROR_H_
