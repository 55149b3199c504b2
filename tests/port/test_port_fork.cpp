// A child forked while other threads log, set masks and start threads can
// itself log, lock and start a thread. Each child has a deadline: one stuck
// on a lock that a parent thread held at the fork (the logger's, or one
// taken inside the system log) is killed and fails the test instead of
// blocking it.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <thread>
#include <vector>

#include "logging/vek_log.h"
#include "logging/vek_logger.h"
#include "osal/vek_error.h"
#include "osal/vek_osal.h"

// ThreadSanitizer ends a child that starts a thread after a multi-threaded
// fork unless told otherwise; doing exactly that is the point here.
extern "C" const char* __tsan_default_options() { return "die_after_fork=0"; }

namespace vek_test {
namespace {

using namespace zov_vek;

constexpr int kChildren = 80;
constexpr auto kChildDeadline = std::chrono::seconds(10);
// Short enough for std::string to hold without allocating.
constexpr char kHammerTag[] = "fork-hammer";
constexpr char kMaskTag[] = "fork-mask";
constexpr char kChildTag[] = "fork-child";

// The sanitizers' allocators (clang 14) do not take their locks across
// fork(), so a child hangs in malloc when a parent thread was allocating:
// under them, no parent thread allocates during the forks.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr bool kParentMayAllocate = false;
#elif defined(__has_feature)
constexpr bool kParentMayAllocate =
    !__has_feature(address_sanitizer) && !__has_feature(thread_sanitizer);
#else
constexpr bool kParentMayAllocate = true;
#endif

void Nothing(void*) {}

// Made before the forks, so that a child needs no attribute of its own.
void* thread_attr = nullptr;

VekError StartAndJoinThread() {
  void* thread = nullptr;
  const VekError err = OsalThreadCreate(&thread, thread_attr, Nothing, nullptr);
  return err == VekError::kOk ? OsalThreadJoin(thread) : err;
}

// qemu-user (the aarch64 test preset sets VEK_TEST_EMULATOR) cannot start
// a thread in a child of a multi-threaded program: its own assertion ends
// the child, or the child waits on a lock of the emulator's. Natively it
// is unset.
bool ChildCanStartThreads() {
  return std::getenv("VEK_TEST_EMULATOR") == nullptr;
}

// The child's whole life; its exit status says which step failed. Its line
// goes to the test's own stderr.
[[noreturn]] void RunChild(int child, int stderr_fd, bool start_thread) {
  dup2(stderr_fd, STDERR_FILENO);
  LOG_CUSTOM_WARNING(kChildTag, "forked child %d logs", child);
  void* mutex = nullptr;
  if (OsalMutexInit(&mutex) != VekError::kOk) _exit(2);
  if (OsalMutexLock(mutex) != VekError::kOk) _exit(3);
  if (OsalMutexUnlock(mutex) != VekError::kOk) _exit(4);
  if (OsalMutexDestroy(mutex) != VekError::kOk) _exit(5);
  if (start_thread && StartAndJoinThread() != VekError::kOk) _exit(6);
  _exit(0);
}

TEST(ForkTest, ChildLogsLocksAndStartsThreadsWhileParentThreadsAreBusy) {
  Logger& logger = Logger::GetLogger();
  // One-time allocations (the groups, the time zone) before any fork.
  ASSERT_EQ(VekError::kOk,
            logger.SetLogLevelMask(kHammerTag, 1u << Logger::kError));
  ASSERT_EQ(VekError::kOk, logger.SetLogLevelMask(kMaskTag, 0));
  ASSERT_EQ(VekError::kOk, OsalThreadAttrInit(&thread_attr));
  ASSERT_EQ(VekError::kOk, OsalThreadAttrSetName(thread_attr, "fork_probe"));
  ASSERT_EQ(VekError::kOk, OsalThreadAttrSetStackSize(thread_attr, 65536));
  const int stderr_fd = dup(STDERR_FILENO);
  const int null_fd = open("/dev/null", O_WRONLY);
  ASSERT_NE(-1, stderr_fd);
  ASSERT_NE(-1, null_fd);
  dup2(null_fd, STDERR_FILENO);
  LOG_CUSTOM_ERROR(kHammerTag, "first line");  // loads the time zone
  std::atomic<bool> stop{false};
  std::atomic<size_t> running{0};
  std::vector<std::thread> busy;
  auto keep_busy = [&stop, &running, &busy](void (*step)(unsigned int)) {
    busy.emplace_back([&stop, &running, step] {
      running.fetch_add(1);
      for (unsigned int i = 0; !stop.load(std::memory_order_relaxed); ++i) {
        step(i);
      }
    });
  };
  // Two threads write lines without pause, one through the logger's lock
  // and one without, so that forks also land inside the system log; the
  // lines go to /dev/null.
  keep_busy([](unsigned int i) { LOG_CUSTOM_ERROR(kHammerTag, "line %u", i); });
  keep_busy(
      [](unsigned int i) { LOG_ERROR(PredefinedGroup::kFw, "line %u", i); });
  keep_busy([](unsigned int i) {
    Logger::GetLogger().SetLogLevelMask(kMaskTag, i & 31);
    PredefinedLogGroupManager::SetLogMask(PredefinedGroup::kIpc, i & 31);
  });
  if (kParentMayAllocate) {
    keep_busy([](unsigned int) { StartAndJoinThread(); });
  }
  // Every fork lands in busy threads, none in their start-up.
  while (running.load() < busy.size()) std::this_thread::yield();

  const bool start_thread = ChildCanStartThreads();
  for (int child = 0; child < kChildren; ++child) {
    SCOPED_TRACE(child);
    const pid_t pid = fork();
    if (pid == 0) RunChild(child, stderr_fd, start_thread);
    if (pid == -1) {
      ADD_FAILURE() << "fork failed";
      break;
    }
    const auto deadline = std::chrono::steady_clock::now() + kChildDeadline;
    int status = 0;
    pid_t reaped = 0;
    while ((reaped = waitpid(pid, &status, WNOHANG)) == 0 &&
           std::chrono::steady_clock::now() < deadline) {
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    if (reaped == 0) {
      kill(pid, SIGKILL);
      waitpid(pid, &status, 0);
      ADD_FAILURE() << "child hung";
      break;
    }
    EXPECT_EQ(pid, reaped);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0)
        << "wait status " << status;
  }
  stop.store(true);
  for (std::thread& thread : busy) thread.join();
  dup2(stderr_fd, STDERR_FILENO);
  close(stderr_fd);
  close(null_fd);
  EXPECT_EQ(VekError::kOk, OsalThreadAttrDestroy(thread_attr));
}

}  // namespace
}  // namespace vek_test
