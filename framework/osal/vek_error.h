// Result codes shared by every operation of the framework's common layer.
#ifndef OSAL_VEK_ERROR_H_
#define OSAL_VEK_ERROR_H_

#include <cstdint>

namespace zov_vek {

// Callers compare results with == and != only; there is deliberately no
// stream operator, so a failed comparison prints the raw bytes of the value.
enum class VekError : uint16_t {
  kOk = 0,
  kErr = 1,              // general failure
  kErrParam = 2,         // a bad argument: null handle, null or empty name, ...
  kErrNotSupported = 3,  // the platform cannot do what was asked
  kErrNoResource = 4,    // a container's capacity or storage is exhausted
  kErrOutOfRange = 5,    // a size or index outside the allowed range
  kErrExists = 6,        // the key is already present
  kErrBusy = 7,          // the object is held or in use; trying would block
};

}  // namespace zov_vek

#endif  // OSAL_VEK_ERROR_H_
