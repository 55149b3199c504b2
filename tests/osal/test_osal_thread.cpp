// Threads of the POSIX port: where they really run, how big their stacks
// really are, when their names are applied, and attributes reused for many
// threads. Each is something the conformance suites take on trust.
#include <alloca.h>
#include <gtest/gtest.h>
#include <malloc.h>
#include <pthread.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <atomic>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>

#include "osal/vek_error.h"
#include "osal/vek_osal.h"

namespace vek_test {
namespace {

using zov_vek::kOsalThreadNameLengthMax;
using zov_vek::OsalSemDestroy;
using zov_vek::OsalSemInit;
using zov_vek::OsalSemPost;
using zov_vek::OsalSemWait;
using zov_vek::OsalThreadAttrDestroy;
using zov_vek::OsalThreadAttrGetName;
using zov_vek::OsalThreadAttrGetStack;
using zov_vek::OsalThreadAttrInit;
using zov_vek::OsalThreadAttrSetName;
using zov_vek::OsalThreadAttrSetStack;
using zov_vek::OsalThreadAttrSetStackSize;
using zov_vek::OsalThreadCreate;
using zov_vek::OsalThreadExit;
using zov_vek::OsalThreadGetName;
using zov_vek::OsalThreadJoin;
using zov_vek::VekError;

constexpr char kFifteen[] = "abcdefghijklmno";

// The name of the calling thread, straight from the kernel.
std::string OwnKernelName() {
  char name[17] = {};
  prctl(PR_GET_NAME, name, 0, 0, 0);
  return name;
}

class ThreadTest : public testing::Test {
 protected:
  void SetUp() override {
    ASSERT_EQ(OsalThreadAttrInit(&attr_), VekError::kOk);
  }
  void TearDown() override {
    if (attr_ != nullptr) {
      EXPECT_EQ(OsalThreadAttrDestroy(attr_), VekError::kOk);
    }
  }

  void* attr_ = nullptr;
};

struct StackProbe {
  uintptr_t local = 0;      // frame address of the thread function
  uintptr_t stack_low = 0;  // the stack as pthreads reports it
  size_t stack_size = 0;
};

void ProbeStack(void* arg) {
  auto* probe = static_cast<StackProbe*>(arg);
  // The frame, not the address of a local: under AddressSanitizer a local
  // whose address is taken lives on a fake stack of its own.
  probe->local = reinterpret_cast<uintptr_t>(__builtin_frame_address(0));
  pthread_attr_t attr;
  if (pthread_getattr_np(pthread_self(), &attr) == 0) {
    void* low = nullptr;
    pthread_attr_getstack(&attr, &low, &probe->stack_size);
    probe->stack_low = reinterpret_cast<uintptr_t>(low);
    pthread_attr_destroy(&attr);
  }
}

TEST_F(ThreadTest, CallerStackIsWhereTheThreadRuns) {
  ASSERT_EQ(OsalThreadAttrSetName(attr_, "on_caller"), VekError::kOk);
  for (unsigned int size : {16384u, 32768u, 65536u, 262144u}) {
    void* stack = memalign(4096, size);
    ASSERT_NE(stack, nullptr);
    ASSERT_EQ(OsalThreadAttrSetStack(attr_, stack, size), VekError::kOk);
    StackProbe probe;
    void* thread = nullptr;
    ASSERT_EQ(OsalThreadCreate(&thread, attr_, ProbeStack, &probe),
              VekError::kOk);
    ASSERT_EQ(OsalThreadJoin(thread), VekError::kOk);
    const auto low = reinterpret_cast<uintptr_t>(stack);
    EXPECT_GE(probe.local, low) << "size " << size;
    EXPECT_LT(probe.local, low + size) << "size " << size;
    free(stack);
  }
}

TEST_F(ThreadTest, CallerStackBelowSixteenKibIsRefusedUntouched) {
  // Too small on some platform we support, so refused on all of them; the
  // refusal must neither run the function nor write to the block.
  constexpr unsigned int kSize = 8192;
  auto* stack = static_cast<unsigned char*>(memalign(4096, kSize));
  ASSERT_NE(stack, nullptr);
  memset(stack, 0xa5, kSize);
  ASSERT_EQ(OsalThreadAttrSetName(attr_, "too_small"), VekError::kOk);
  ASSERT_EQ(OsalThreadAttrSetStack(attr_, stack, kSize), VekError::kOk);
  StackProbe probe;
  void* thread = nullptr;
  EXPECT_EQ(OsalThreadCreate(&thread, attr_, ProbeStack, &probe),
            VekError::kErr);
  EXPECT_EQ(thread, nullptr);
  EXPECT_EQ(probe.local, 0u);
  for (unsigned int i = 0; i < kSize; ++i) {
    ASSERT_EQ(stack[i], 0xa5) << "byte " << i;
  }
  free(stack);
}

TEST_F(ThreadTest, SettingAStackNeverTouchesIt) {
  // Memory that faults on any access: recording it must still work.
  const size_t page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
  void* mapping =
      mmap(nullptr, 4 * page, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  ASSERT_NE(mapping, MAP_FAILED);
  const auto size = static_cast<unsigned int>(4 * page);
  EXPECT_EQ(OsalThreadAttrSetStack(attr_, mapping, size), VekError::kOk);
  void* addr = nullptr;
  unsigned int read_size = 0;
  EXPECT_EQ(OsalThreadAttrGetStack(attr_, &addr, &read_size), VekError::kOk);
  EXPECT_EQ(addr, mapping);
  EXPECT_EQ(read_size, size);
  EXPECT_EQ(OsalThreadAttrDestroy(attr_), VekError::kOk);
  attr_ = nullptr;
  munmap(mapping, 4 * page);
}

// Uses most of `bytes` of stack, so that a stack smaller than asked for
// faults here.
void UseStack(void* arg) {
  const size_t bytes = *static_cast<size_t*>(arg);
  auto* block = static_cast<volatile char*>(alloca(bytes));
  for (size_t i = 0; i < bytes; i += 512) block[i] = static_cast<char>(i);
}

TEST_F(ThreadTest, LibraryStackHasAtLeastTheRequestedSize) {
  ASSERT_EQ(OsalThreadAttrSetName(attr_, "own_stack"), VekError::kOk);
  // 1200 is below every platform's minimum and must be rounded up to it.
  for (unsigned int size : {1200u, 16384u, 65536u, 1u << 20, 4u << 20}) {
    ASSERT_EQ(OsalThreadAttrSetStackSize(attr_, size), VekError::kOk);
    StackProbe probe;
    void* thread = nullptr;
    ASSERT_EQ(OsalThreadCreate(&thread, attr_, ProbeStack, &probe),
              VekError::kOk)
        << "size " << size;
    ASSERT_EQ(OsalThreadJoin(thread), VekError::kOk);
    EXPECT_GE(probe.stack_size, size);
    EXPECT_GE(probe.stack_size, static_cast<size_t>(PTHREAD_STACK_MIN));
    EXPECT_GE(probe.local, probe.stack_low);
    EXPECT_LT(probe.local, probe.stack_low + probe.stack_size);
  }
  // And the room is really there: three quarters of a 1 MiB request.
  size_t bytes = 768u << 10;
  ASSERT_EQ(OsalThreadAttrSetStackSize(attr_, 1u << 20), VekError::kOk);
  void* thread = nullptr;
  ASSERT_EQ(OsalThreadCreate(&thread, attr_, UseStack, &bytes), VekError::kOk);
  EXPECT_EQ(OsalThreadJoin(thread), VekError::kOk);
}

struct NameProbe {
  std::string first_seen;   // the kernel's name at the function's start
  void* release = nullptr;  // semaphore that ends the thread
};

void RecordNameThenWait(void* arg) {
  auto* probe = static_cast<NameProbe*>(arg);
  probe->first_seen = OwnKernelName();
  if (probe->release != nullptr) OsalSemWait(probe->release);
}

TEST_F(ThreadTest, FifteenCharacterNameIsTheKernelsBeforeAnythingRuns) {
  ASSERT_EQ(OsalThreadAttrSetName(attr_, kFifteen), VekError::kOk);
  ASSERT_EQ(OsalThreadAttrSetStackSize(attr_, 65536), VekError::kOk);
  NameProbe probe;
  ASSERT_EQ(OsalSemInit(&probe.release, 0), VekError::kOk);
  void* thread = nullptr;
  ASSERT_EQ(OsalThreadCreate(&thread, attr_, RecordNameThenWait, &probe),
            VekError::kOk);
  // Asked at once, with no hand-shake of the caller's, most likely before
  // the thread has run: the answer is the thread's name all the same.
  char name[kOsalThreadNameLengthMax] = {};
  EXPECT_EQ(OsalThreadGetName(thread, name, sizeof(name)), VekError::kOk);
  EXPECT_STREQ(name, kFifteen);
  EXPECT_EQ(OsalSemPost(probe.release), VekError::kOk);
  EXPECT_EQ(OsalThreadJoin(thread), VekError::kOk);
  // The function's first statement saw all 15 characters.
  EXPECT_EQ(probe.first_seen, kFifteen);
  EXPECT_EQ(OsalSemDestroy(probe.release), VekError::kOk);
}

TEST_F(ThreadTest, NameLongerThanFifteenIsRefusedAndTheOldOneKept) {
  ASSERT_EQ(OsalThreadAttrSetName(attr_, "kept"), VekError::kOk);
  EXPECT_EQ(OsalThreadAttrSetName(attr_, "abcdefghijklmnop"),
            VekError::kErrOutOfRange);
  char name[kOsalThreadNameLengthMax] = {};
  EXPECT_EQ(OsalThreadAttrGetName(attr_, name, sizeof(name)), VekError::kOk);
  EXPECT_STREQ(name, "kept");
}

TEST_F(ThreadTest, GetNameWritesOnlyWhereItMayForEveryLength) {
  // Either the whole name and its NUL, or nothing at all; never a byte at
  // or past min(len, 16).
  ASSERT_EQ(OsalThreadAttrSetName(attr_, "threadA"), VekError::kOk);
  for (unsigned int len = 0; len <= 40; ++len) {
    char buf[48];
    memset(buf, 'c', sizeof(buf));
    const VekError err = OsalThreadAttrGetName(attr_, buf, len);
    if (len >= 8 && len <= kOsalThreadNameLengthMax) {
      EXPECT_EQ(err, VekError::kOk) << "len " << len;
      EXPECT_STREQ(buf, "threadA");
      for (size_t i = 8; i < sizeof(buf); ++i) ASSERT_EQ(buf[i], 'c') << len;
    } else {
      EXPECT_EQ(err, VekError::kErrOutOfRange) << "len " << len;
      for (size_t i = 0; i < sizeof(buf); ++i) ASSERT_EQ(buf[i], 'c') << len;
    }
  }
}

constexpr int kThreads = 4;

struct ReuseShared {
  void* release = nullptr;
  std::atomic<int> ran{0};
};

void CountThenWait(void* arg) {
  auto* shared = static_cast<ReuseShared*>(arg);
  shared->ran.fetch_add(1);
  OsalSemWait(shared->release);
}

TEST_F(ThreadTest, OneAttributeServesManyThreads) {
  ReuseShared shared;
  ASSERT_EQ(OsalSemInit(&shared.release, 0), VekError::kOk);
  ASSERT_EQ(OsalThreadAttrSetName(attr_, "reuse_a"), VekError::kOk);
  ASSERT_EQ(OsalThreadAttrSetStackSize(attr_, 32768), VekError::kOk);
  void* first[kThreads] = {};
  for (void*& thread : first) {
    ASSERT_EQ(OsalThreadCreate(&thread, attr_, CountThenWait, &shared),
              VekError::kOk);
  }
  // Renaming the attribute names later threads, not the running ones.
  ASSERT_EQ(OsalThreadAttrSetName(attr_, "reuse_b"), VekError::kOk);
  void* second = nullptr;
  ASSERT_EQ(OsalThreadCreate(&second, attr_, CountThenWait, &shared),
            VekError::kOk);
  // The threads took what they needed at creation: the attribute may go
  // while they run.
  EXPECT_EQ(OsalThreadAttrDestroy(attr_), VekError::kOk);
  attr_ = nullptr;

  char name[kOsalThreadNameLengthMax] = {};
  for (void* thread : first) {
    EXPECT_EQ(OsalThreadGetName(thread, name, sizeof(name)), VekError::kOk);
    EXPECT_STREQ(name, "reuse_a");
  }
  EXPECT_EQ(OsalThreadGetName(second, name, sizeof(name)), VekError::kOk);
  EXPECT_STREQ(name, "reuse_b");

  for (int i = 0; i < kThreads + 1; ++i) {
    EXPECT_EQ(OsalSemPost(shared.release), VekError::kOk);
  }
  for (void* thread : first) EXPECT_EQ(OsalThreadJoin(thread), VekError::kOk);
  EXPECT_EQ(OsalThreadJoin(second), VekError::kOk);
  EXPECT_EQ(shared.ran.load(), kThreads + 1);
  EXPECT_EQ(OsalSemDestroy(shared.release), VekError::kOk);
}

TEST_F(ThreadTest, OneCallerStackServesThreadsOneAfterAnother) {
  constexpr unsigned int kSize = 32768;
  void* stack = memalign(4096, kSize);
  ASSERT_NE(stack, nullptr);
  ASSERT_EQ(OsalThreadAttrSetName(attr_, "same_stack"), VekError::kOk);
  ASSERT_EQ(OsalThreadAttrSetStack(attr_, stack, kSize), VekError::kOk);
  for (int round = 0; round < 3; ++round) {
    StackProbe probe;
    void* thread = nullptr;
    ASSERT_EQ(OsalThreadCreate(&thread, attr_, ProbeStack, &probe),
              VekError::kOk);
    ASSERT_EQ(OsalThreadJoin(thread), VekError::kOk);
    const auto low = reinterpret_cast<uintptr_t>(stack);
    EXPECT_GE(probe.local, low);
    EXPECT_LT(probe.local, low + kSize);
  }
  free(stack);
}

struct ExitProbe {
  std::atomic<bool> after_exit{false};
};

void ExitEarly(void* arg) {
  OsalThreadExit();
  static_cast<ExitProbe*>(arg)->after_exit = true;
}

TEST_F(ThreadTest, ExitEndsTheThreadOnCallerAndLibraryStacks) {
  constexpr unsigned int kSize = 16384;
  void* stack = memalign(4096, kSize);
  ASSERT_NE(stack, nullptr);
  ASSERT_EQ(OsalThreadAttrSetName(attr_, "exits"), VekError::kOk);
  for (bool caller_stack : {true, false}) {
    if (caller_stack) {
      ASSERT_EQ(OsalThreadAttrSetStack(attr_, stack, kSize), VekError::kOk);
    } else {
      ASSERT_EQ(OsalThreadAttrSetStackSize(attr_, kSize), VekError::kOk);
    }
    ExitProbe probe;
    void* thread = nullptr;
    ASSERT_EQ(OsalThreadCreate(&thread, attr_, ExitEarly, &probe),
              VekError::kOk);
    EXPECT_EQ(OsalThreadJoin(thread), VekError::kOk);
    EXPECT_FALSE(probe.after_exit.load());
  }
  free(stack);
}

void NeverRuns(void* arg) { static_cast<std::atomic<int>*>(arg)->fetch_add(1); }

TEST_F(ThreadTest, RefusedCreationsStartNothingAndWriteNoHandle) {
  std::atomic<int> runs{0};
  void* const kUntouched = &runs;
  void* thread = kUntouched;
  // Null handle pointer or function, with an otherwise usable attribute.
  ASSERT_EQ(OsalThreadAttrSetName(attr_, "refused"), VekError::kOk);
  ASSERT_EQ(OsalThreadAttrSetStackSize(attr_, 16384), VekError::kOk);
  EXPECT_EQ(OsalThreadCreate(nullptr, attr_, NeverRuns, &runs),
            VekError::kErrParam);
  EXPECT_EQ(OsalThreadCreate(&thread, attr_, nullptr, &runs),
            VekError::kErrParam);
  EXPECT_EQ(OsalThreadCreate(&thread, nullptr, NeverRuns, &runs),
            VekError::kErrParam);
  EXPECT_EQ(thread, kUntouched);

  // A fresh attribute has a name but no stack setting yet.
  void* fresh = nullptr;
  ASSERT_EQ(OsalThreadAttrInit(&fresh), VekError::kOk);
  ASSERT_EQ(OsalThreadAttrSetName(fresh, "fresh"), VekError::kOk);
  EXPECT_EQ(OsalThreadCreate(&thread, fresh, NeverRuns, &runs), VekError::kErr);
  EXPECT_EQ(thread, kUntouched);
  EXPECT_EQ(OsalThreadAttrDestroy(fresh), VekError::kOk);
  EXPECT_EQ(runs.load(), 0);

  // The attribute that was offered with the bad arguments still works.
  ASSERT_EQ(OsalThreadCreate(&thread, attr_, NeverRuns, &runs), VekError::kOk);
  EXPECT_EQ(OsalThreadJoin(thread), VekError::kOk);
  EXPECT_EQ(runs.load(), 1);
}

}  // namespace
}  // namespace vek_test
