// Uses the installed package the way a component would: the OSAL, the
// logger and a container. Exits 0 only when every step worked.
#include <cstdio>
#include <cstring>
#include <string>

#include "logging/vek_log.h"
#include "logging/vek_logger.h"
#include "osal/vek_osal.h"

namespace consumer {
int QueueRoundTrip();
}

namespace {

using zov_vek::VekError;

int failures = 0;

void Check(bool ok, const char* what) {
  if (ok) return;
  std::fprintf(stderr, "consumer: %s failed\n", what);
  ++failures;
}

void Worker(void* arg) { zov_vek::OsalSemPost(arg); }

}  // namespace

int main() {
  zov_vek::Logger& logger = zov_vek::Logger::GetLogger();
  Check(logger.SetLogLevelMask("consumer", 1u << zov_vek::Logger::kError) ==
            VekError::kOk,
        "custom log group");
  Check(logger.GetLogLevelMask(std::string("consumer")) ==
            1u << zov_vek::Logger::kError,
        "custom log mask");
  LOG_CUSTOM_ERROR("consumer", "installed package in use");

  Check(consumer::QueueRoundTrip() == 78, "queue");

  char buf[4];
  Check(zov_vek::OsalStrlcpy(buf, "abcdef", sizeof(buf)) == 6 &&
            std::strcmp(buf, "abc") == 0,
        "OsalStrlcpy");

  void* sem = nullptr;
  void* attr = nullptr;
  void* thread = nullptr;
  Check(zov_vek::OsalSemInit(&sem, 0) == VekError::kOk, "OsalSemInit");
  Check(zov_vek::OsalThreadAttrInit(&attr) == VekError::kOk, "attr");
  Check(zov_vek::OsalThreadAttrSetName(attr, "consumer") == VekError::kOk,
        "thread name");
  Check(zov_vek::OsalThreadAttrSetStackSize(attr, 65536) == VekError::kOk,
        "stack size");
  Check(zov_vek::OsalThreadCreate(&thread, attr, Worker, sem) == VekError::kOk,
        "OsalThreadCreate");
  Check(zov_vek::OsalSemWait(sem) == VekError::kOk, "OsalSemWait");
  Check(zov_vek::OsalThreadJoin(thread) == VekError::kOk, "OsalThreadJoin");
  zov_vek::OsalThreadAttrDestroy(attr);
  zov_vek::OsalSemDestroy(sem);

  return failures == 0 ? 0 : 1;
}
