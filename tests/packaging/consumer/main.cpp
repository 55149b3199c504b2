// Uses the package the way a component does: the OSAL and the logger's
// core from the library, a log statement through liblog, which the package
// brings along, and a container whose errors are logged. Every operation
// itself is the executables' to hold; this proves that they link and load.
#include <cstdint>
#include <cstring>

#include "logging/vek_log.h"
#include "logging/vek_logger.h"
#include "osal/vek_osal.h"

namespace consumer {
int QueueRoundTrip();
}

int main() {
  using zov_vek::VekError;
  constexpr uint32_t kError = 1u << zov_vek::Logger::kError;
  zov_vek::Logger& logger = zov_vek::Logger::GetLogger();
  if (logger.SetLogLevelMask("consumer", kError) != VekError::kOk) return 1;
  LOG_CUSTOM_ERROR("consumer", "package in use");

  char buf[4];
  void* mutex = nullptr;
  const bool ok = consumer::QueueRoundTrip() == 78 &&
                  zov_vek::OsalStrlcpy(buf, "abcdef", sizeof(buf)) == 6 &&
                  std::strcmp(buf, "abc") == 0 &&
                  zov_vek::OsalMutexInit(&mutex) == VekError::kOk &&
                  zov_vek::OsalMutexDestroy(mutex) == VekError::kOk;
  return ok ? 0 : 1;
}
