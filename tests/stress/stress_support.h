// Helpers shared by the stress tests: a deadline that turns a hang into a
// failure, OSAL threads started in bulk, and the process figures (thread
// count, resident memory, heap in use) that a long run must give back.
#ifndef TESTS_STRESS_STRESS_SUPPORT_H_
#define TESTS_STRESS_STRESS_SUPPORT_H_

#include <gtest/gtest.h>
#include <malloc.h>

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "osal/vek_error.h"
#include "osal/vek_osal.h"

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define VEK_STRESS_SANITIZED 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
#define VEK_STRESS_SANITIZED 1
#endif
#endif
#ifdef VEK_STRESS_SANITIZED
#include <sanitizer/allocator_interface.h>
#endif

namespace vek_stress {

// A lost wake-up or a lost token shows as a wait that never returns. A
// Deadline ends the process with a message naming the stage instead of
// leaving CTest to kill a silent process.
class Deadline {
 public:
  Deadline(const char* what, std::chrono::seconds limit)
      : what_(what), watcher_([this, limit] { Watch(limit); }) {}

  ~Deadline() {
    {
      std::lock_guard<std::mutex> lock(mutex_);
      done_ = true;
    }
    cv_.notify_one();
    watcher_.join();
  }

  Deadline(const Deadline&) = delete;
  Deadline& operator=(const Deadline&) = delete;

 private:
  void Watch(std::chrono::seconds limit) {
    std::unique_lock<std::mutex> lock(mutex_);
    if (!cv_.wait_for(lock, limit, [this] { return done_; })) {
      std::fprintf(stderr, "stress: %s did not finish within %lld s\n", what_,
                   static_cast<long long>(limit.count()));
      std::fflush(stderr);
      std::_Exit(1);
    }
  }

  const char* what_;
  std::mutex mutex_;
  std::condition_variable cv_;
  bool done_ = false;
  std::thread watcher_;
};

// Starts `count` OSAL threads on library stacks, each running fn(index),
// and joins them all. The threads are held at a gate until every one of
// them exists, so that they really run at once rather than one after the
// other as they are created. Creation failures are test failures; the
// threads that did start are still joined.
inline void RunOsalThreads(unsigned int count,
                           const std::function<void(unsigned int)>& fn,
                           unsigned int stack_size = 65536) {
  struct Slot {
    const std::function<void(unsigned int)>* fn;
    void* gate;
    unsigned int index;
    void* thread;
  };
  void* gate = nullptr;
  ASSERT_EQ(zov_vek::VekError::kOk, zov_vek::OsalSemInit(&gate, 0));
  std::vector<Slot> slots(count);
  void* attr = nullptr;
  ASSERT_EQ(zov_vek::VekError::kOk, zov_vek::OsalThreadAttrInit(&attr));
  EXPECT_EQ(zov_vek::VekError::kOk,
            zov_vek::OsalThreadAttrSetName(attr, "vek_stress"));
  EXPECT_EQ(zov_vek::VekError::kOk,
            zov_vek::OsalThreadAttrSetStackSize(attr, stack_size));
  unsigned int started = 0;
  for (unsigned int i = 0; i < count; ++i) {
    slots[i] = {&fn, gate, i, nullptr};
    const zov_vek::VekError err = zov_vek::OsalThreadCreate(
        &slots[i].thread, attr,
        [](void* arg) {
          auto* slot = static_cast<Slot*>(arg);
          zov_vek::OsalSemWait(slot->gate);
          (*slot->fn)(slot->index);
        },
        &slots[i]);
    EXPECT_EQ(zov_vek::VekError::kOk, err);
    if (err == zov_vek::VekError::kOk) started++;
  }
  for (unsigned int i = 0; i < started; ++i) {
    EXPECT_EQ(zov_vek::VekError::kOk, zov_vek::OsalSemPost(gate));
  }
  for (Slot& slot : slots) {
    if (slot.thread != nullptr) {
      EXPECT_EQ(zov_vek::VekError::kOk, zov_vek::OsalThreadJoin(slot.thread));
    }
  }
  EXPECT_EQ(zov_vek::VekError::kOk, zov_vek::OsalThreadAttrDestroy(attr));
  EXPECT_EQ(zov_vek::VekError::kOk, zov_vek::OsalSemDestroy(gate));
}

// A field of /proc/self/status ("Threads", "VmRSS") as a number; -1 when
// it cannot be read.
inline long ProcStatusField(const char* field) {
  FILE* file = std::fopen("/proc/self/status", "r");
  if (file == nullptr) return -1;
  char line[256];
  long value = -1;
  const size_t length = std::strlen(field);
  while (std::fgets(line, sizeof(line), file) != nullptr) {
    if (std::strncmp(line, field, length) == 0 && line[length] == ':') {
      value = std::strtol(line + length + 1, nullptr, 10);
      break;
    }
  }
  std::fclose(file);
  return value;
}

// Bytes of heap in use. Under a sanitizer its own allocator answers (the
// C library's malloc statistics see none of it).
inline uint64_t HeapBytesInUse() {
#ifdef VEK_STRESS_SANITIZED
  return __sanitizer_get_current_allocated_bytes();
#else
  const struct mallinfo2 info = mallinfo2();
  return info.uordblks + info.hblkhd;
#endif
}

}  // namespace vek_stress

#endif  // TESTS_STRESS_STRESS_SUPPORT_H_
