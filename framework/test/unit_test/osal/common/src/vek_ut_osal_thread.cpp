// Threads: attributes and their stack settings, creation on caller and
// library stacks, join and exit, and thread names through the attribute
// and through the running thread.
//
// The registrations of OsalThreadTest and OsalThreadTestPreallocateStack
// interleave in this file; the framework still runs each suite as one
// group, from its first registration.
#include <gtest/gtest.h>
#include <malloc.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "logging/vek_log.h"
#include "osal/vek_error.h"
#include "osal/vek_osal.h"
#include "vek_ut_osal.h"

namespace zov_vek_unit_test {

using zov_vek::kOsalThreadNameLengthMax;
using zov_vek::OsalSemDestroy;
using zov_vek::OsalSemInit;
using zov_vek::OsalSemPost;
using zov_vek::OsalSemWait;
using zov_vek::OsalThreadAttrGetName;
using zov_vek::OsalThreadAttrGetStack;
using zov_vek::OsalThreadAttrSetStack;
using zov_vek::OsalThreadCreate;
using zov_vek::OsalThreadExit;
using zov_vek::OsalThreadGetName;
using zov_vek::OsalThreadJoin;

namespace {

// The default size of a stack that a case allocates itself.
constexpr unsigned int kDefaultStackSize = 16384;
constexpr uint32_t kExpected = 0xdeadbeef;

}  // namespace

class OsalThreadTest : public testing::Test {
 protected:
  // A 4096-aligned block of `size` bytes (kDefaultStackSize for 0) to run
  // a thread on.
  void AllocateStack(unsigned int size) {
    stack_size_ = size == 0 ? kDefaultStackSize : size;
    stack_ = memalign(4096, stack_size_);
    ASSERT_NE(stack_, nullptr);
    LOG_CUSTOM_DEBUG(kOsalUtLogTag, "allocated stack, addr=%p, size=%u", stack_,
                     stack_size_);
  }

  void FreeStack() {
    if (stack_ != nullptr) free(stack_);
    stack_ = nullptr;
    stack_size_ = 0;
  }

  uint32_t stack_size_ = 0;
  void* stack_ = nullptr;
  void* th_ = nullptr;
  void* attr_ = nullptr;
};

// Every case runs its thread on a 16 KiB stack of its own, made before the
// case and freed after it, once the thread has been joined and the
// attribute destroyed.
class OsalThreadTestPreallocateStack : public OsalThreadTest {
 protected:
  void SetUp() override {
    AllocateStack(0);
    EXPECT_EQ(OsalThreadAttrInit(&attr_), VekError::kOk);
    EXPECT_EQ(OsalThreadAttrSetStack(attr_, stack_, stack_size_),
              VekError::kOk);
    EXPECT_EQ(OsalThreadAttrSetName(attr_, "prealloc_stack"), VekError::kOk);
  }

  void TearDown() override {
    EXPECT_EQ(OsalThreadAttrDestroy(attr_), VekError::kOk);
    if (stack_ != nullptr) free(stack_);
    stack_ = nullptr;
    stack_size_ = 0;
  }
};

namespace {

void DoNothing(void* /*arg*/) {}

// Posts the semaphore whose handle is `arg`.
void ThreadPostSem(void* arg) {
  if (arg == nullptr) {
    FAIL();
  }
  void* sem = arg;
  EXPECT_EQ(OsalSemPost(sem), VekError::kOk);
}

// Runs one thread from `attrs` and waits until it has posted.
void CreateThreadStackTestFunc(void* attrs) {
  void* sem = nullptr;
  void* thread = nullptr;
  EXPECT_EQ(OsalSemInit(&sem, 0), VekError::kOk);
  EXPECT_EQ(OsalThreadCreate(&thread, attrs, ThreadPostSem, sem),
            VekError::kOk);
  EXPECT_EQ(OsalSemWait(sem), VekError::kOk);
  EXPECT_EQ(OsalThreadJoin(thread), VekError::kOk);
  EXPECT_EQ(OsalSemDestroy(sem), VekError::kOk);
}

void CreateThreadWithAllocatedStack(unsigned int size) {
  const char* thread_name = "alloc_stack";
  void* stack = memalign(4096, size);
  ASSERT_NE(stack, nullptr);
  void* attr = nullptr;
  EXPECT_EQ(OsalThreadAttrInit(&attr), VekError::kOk);
  EXPECT_EQ(OsalThreadAttrSetName(attr, thread_name), VekError::kOk);
  EXPECT_EQ(OsalThreadAttrSetStack(attr, stack, size), VekError::kOk);
  CreateThreadStackTestFunc(attr);
  EXPECT_EQ(OsalThreadAttrDestroy(attr), VekError::kOk);
  free(stack);
}

void CreateThreadWithSpecifiedStackSize(unsigned int size) {
  void* attr = nullptr;
  EXPECT_EQ(OsalThreadAttrInit(&attr), VekError::kOk);
  EXPECT_EQ(OsalThreadAttrSetName(attr, "spec_stack_size"), VekError::kOk);
  EXPECT_EQ(OsalThreadAttrSetStackSize(attr, size), VekError::kOk);
  CreateThreadStackTestFunc(attr);
  EXPECT_EQ(OsalThreadAttrDestroy(attr), VekError::kOk);
}

struct ThreadArgs {
  uint32_t expected_value;
};

void ThreadNoArg(void* arg) {
  LOG_CUSTOM_DEBUG(kOsalUtLogTag, "entering thread");
  EXPECT_EQ(arg, nullptr);
  LOG_CUSTOM_DEBUG(kOsalUtLogTag, "exiting thread");
}

void ThreadWithArg(void* arg) {
  LOG_CUSTOM_DEBUG(kOsalUtLogTag, "entering thread");
  ASSERT_NE(arg, nullptr);
  auto* ta = static_cast<ThreadArgs*>(arg);
  EXPECT_EQ(ta->expected_value, kExpected);
  LOG_CUSTOM_DEBUG(kOsalUtLogTag, "exiting thread");
}

void ThreadCallsExit(void* arg) {
  LOG_CUSTOM_DEBUG(kOsalUtLogTag, "entering thread");
  ASSERT_EQ(arg, nullptr);
  OsalThreadExit();
  // Never reached: the thread has ended.
  ADD_FAILURE();
  LOG_CUSTOM_DEBUG(kOsalUtLogTag, "exiting thread");
}

void ThreadEnterExit(void* /*arg*/) {
  LOG_CUSTOM_DEBUG(kOsalUtLogTag, "entering thread");
  LOG_CUSTOM_DEBUG(kOsalUtLogTag, "exiting thread");
}

}  // namespace

TEST_F(OsalThreadTest, ThreadAttrBasic) {
  EXPECT_NE(OsalThreadAttrInit(nullptr), VekError::kOk);
  EXPECT_NE(OsalThreadAttrDestroy(nullptr), VekError::kOk);
  EXPECT_EQ(OsalThreadAttrInit(&attr_), VekError::kOk);
  EXPECT_EQ(OsalThreadAttrDestroy(attr_), VekError::kOk);
}

TEST_F(OsalThreadTest, ThreadAttrStackBasic) {
  void* p = nullptr;
  unsigned int s = 8092;
  EXPECT_EQ(OsalThreadAttrInit(&attr_), VekError::kOk);

  EXPECT_NE(OsalThreadAttrGetStack(nullptr, nullptr, nullptr), VekError::kOk);
  EXPECT_NE(OsalThreadAttrGetStack(nullptr, nullptr, &s), VekError::kOk);
  EXPECT_NE(OsalThreadAttrGetStack(nullptr, &p, nullptr), VekError::kOk);
  EXPECT_NE(OsalThreadAttrGetStack(nullptr, &p, &s), VekError::kOk);
  EXPECT_NE(OsalThreadAttrGetStack(attr_, nullptr, nullptr), VekError::kOk);
  EXPECT_NE(OsalThreadAttrGetStack(attr_, nullptr, &s), VekError::kOk);
  EXPECT_NE(OsalThreadAttrGetStack(attr_, &p, nullptr), VekError::kOk);
  EXPECT_EQ(OsalThreadAttrGetStack(attr_, &p, &s), VekError::kOk);

  // A 4-byte local posing as a stack: setting only records it, and no
  // thread ever runs on it.
  s = 8092;
  p = &s;
  EXPECT_NE(OsalThreadAttrSetStack(nullptr, nullptr, 0), VekError::kOk);
  EXPECT_NE(OsalThreadAttrSetStack(nullptr, nullptr, s), VekError::kOk);
  EXPECT_NE(OsalThreadAttrSetStack(nullptr, p, 0), VekError::kOk);
  EXPECT_NE(OsalThreadAttrSetStack(nullptr, p, s), VekError::kOk);
  EXPECT_EQ(OsalThreadAttrSetStack(attr_, nullptr, 0), VekError::kOk);
  EXPECT_NE(OsalThreadAttrSetStack(attr_, nullptr, s), VekError::kOk);
  EXPECT_NE(OsalThreadAttrSetStack(attr_, p, 0), VekError::kOk);
  EXPECT_EQ(OsalThreadAttrSetStack(attr_, p, s), VekError::kOk);

  EXPECT_EQ(OsalThreadAttrDestroy(attr_), VekError::kOk);
}

TEST_F(OsalThreadTest, CreateJoinInvalidArgs) {
  EXPECT_NE(OsalThreadCreate(nullptr, nullptr, nullptr, nullptr),
            VekError::kOk);
  EXPECT_NE(OsalThreadCreate(&th_, nullptr, nullptr, nullptr), VekError::kOk);
  EXPECT_NE(OsalThreadCreate(nullptr, nullptr, DoNothing, nullptr),
            VekError::kOk);
  EXPECT_NE(OsalThreadJoin(nullptr), VekError::kOk);
}

TEST_F(OsalThreadTestPreallocateStack, CreateThreadNoArg) {
  void* arg = nullptr;
  VekError err = OsalThreadCreate(&th_, attr_, ThreadNoArg, arg);
  EXPECT_EQ(err, VekError::kOk);
  EXPECT_NE(th_, nullptr);
  LOG_CUSTOM_DEBUG(kOsalUtLogTag, "about to join thread");
  OsalThreadJoin(th_);
  LOG_CUSTOM_DEBUG(kOsalUtLogTag, "after join thread");
}

TEST_F(OsalThreadTestPreallocateStack, CreateThreadWithArg) {
  ThreadArgs args = {kExpected};
  void* arg = &args;
  VekError err = OsalThreadCreate(&th_, attr_, ThreadWithArg, arg);
  EXPECT_EQ(err, VekError::kOk);
  EXPECT_NE(th_, nullptr);
  LOG_CUSTOM_DEBUG(kOsalUtLogTag, "about to join thread");
  OsalThreadJoin(th_);
  LOG_CUSTOM_DEBUG(kOsalUtLogTag, "after join thread");
}

TEST_F(OsalThreadTestPreallocateStack, ThreadCallsExit) {
  void* arg = nullptr;
  VekError err = OsalThreadCreate(&th_, attr_, ThreadCallsExit, arg);
  EXPECT_EQ(err, VekError::kOk);
  EXPECT_NE(th_, nullptr);
  LOG_CUSTOM_DEBUG(kOsalUtLogTag, "about to join thread");
  EXPECT_EQ(OsalThreadJoin(th_), VekError::kOk);
  LOG_CUSTOM_DEBUG(kOsalUtLogTag, "after join thread");
}

// Nothing about detaching is set on the attribute: the thread must be
// joinable.
TEST_F(OsalThreadTestPreallocateStack, DefaultDetachStateJoinable) {
  void* arg = nullptr;
  VekError err = OsalThreadCreate(&th_, attr_, ThreadEnterExit, arg);
  EXPECT_EQ(err, VekError::kOk);
  EXPECT_NE(th_, nullptr);
  EXPECT_EQ(OsalThreadJoin(th_), VekError::kOk);
}

TEST_F(OsalThreadTest, AttrGetSetStackSize) {
  EXPECT_EQ(OsalThreadAttrInit(&attr_), VekError::kOk);

  // Non-zero values that a fresh attribute must overwrite.
  unsigned int size = 12345;
  void* addr = &size;
  EXPECT_EQ(OsalThreadAttrGetStack(attr_, &addr, &size), VekError::kOk);
  EXPECT_EQ(addr, nullptr);
  EXPECT_EQ(size, 0u);

  uint32_t fake_stack = 0;
  unsigned int fake_size = 16384;
  EXPECT_EQ(OsalThreadAttrSetStack(attr_, &fake_stack, fake_size),
            VekError::kOk);
  EXPECT_EQ(OsalThreadAttrGetStack(attr_, &addr, &size), VekError::kOk);
  EXPECT_EQ(size, fake_size);
  EXPECT_EQ(addr, &fake_stack);

  EXPECT_EQ(OsalThreadAttrDestroy(attr_), VekError::kOk);
}

TEST_F(OsalThreadTest, CreateThreadWithoutStack) {
  // attr_ was never initialised: no thread may start (ThreadPostSem would
  // fail on its null argument).
  EXPECT_NE(OsalThreadCreate(&th_, attr_, ThreadPostSem, nullptr),
            VekError::kOk);
}

TEST_F(OsalThreadTest, CreateThreadWithStack) {
  CreateThreadWithAllocatedStack(16384);
  CreateThreadWithAllocatedStack(32768);
  CreateThreadWithAllocatedStack(65536);
}

TEST_F(OsalThreadTest, CreateThreadWithStackSize) {
  CreateThreadWithSpecifiedStackSize(16384);
  CreateThreadWithSpecifiedStackSize(32768);
  CreateThreadWithSpecifiedStackSize(65536);
}

TEST_F(OsalThreadTest, ThreadAttrSetStackClears) {
  AllocateStack(kDefaultStackSize);
  EXPECT_EQ(OsalThreadAttrInit(&attr_), VekError::kOk);
  EXPECT_EQ(OsalThreadAttrSetStack(attr_, stack_, stack_size_), VekError::kOk);
  EXPECT_EQ(OsalThreadAttrSetStack(attr_, nullptr, 0), VekError::kOk);
  EXPECT_EQ(OsalThreadAttrSetName(attr_, "thread1"), VekError::kOk);
  // Cleared, and no size either: nothing to run a thread on.
  EXPECT_NE(OsalThreadCreate(&th_, attr_, DoNothing, nullptr), VekError::kOk);

  EXPECT_EQ(OsalThreadAttrSetStack(attr_, stack_, stack_size_), VekError::kOk);
  EXPECT_EQ(OsalThreadAttrSetName(attr_, "thread1_again"), VekError::kOk);
  EXPECT_EQ(OsalThreadCreate(&th_, attr_, DoNothing, nullptr), VekError::kOk);
  EXPECT_EQ(OsalThreadJoin(th_), VekError::kOk);
  EXPECT_EQ(OsalThreadAttrDestroy(attr_), VekError::kOk);
  FreeStack();
}

TEST_F(OsalThreadTest, ThreadAttrSetStackClearSetSize) {
  AllocateStack(kDefaultStackSize);
  EXPECT_EQ(OsalThreadAttrInit(&attr_), VekError::kOk);
  EXPECT_EQ(OsalThreadAttrSetStack(attr_, stack_, stack_size_), VekError::kOk);
  EXPECT_EQ(OsalThreadAttrSetStack(attr_, nullptr, 0), VekError::kOk);
  EXPECT_EQ(OsalThreadAttrSetName(attr_, "thread1"), VekError::kOk);
  EXPECT_NE(OsalThreadCreate(&th_, attr_, DoNothing, nullptr), VekError::kOk);

  // A size alone is enough: the library makes the stack.
  EXPECT_EQ(OsalThreadAttrSetStackSize(attr_, kDefaultStackSize * 2),
            VekError::kOk);
  EXPECT_EQ(OsalThreadAttrSetName(attr_, "thread1_again"), VekError::kOk);
  EXPECT_EQ(OsalThreadCreate(&th_, attr_, DoNothing, nullptr), VekError::kOk);
  EXPECT_EQ(OsalThreadJoin(th_), VekError::kOk);
  EXPECT_EQ(OsalThreadAttrDestroy(attr_), VekError::kOk);
  FreeStack();
}

class OsalThreadNameTest : public OsalThreadTest {
 protected:
  // Length of the read buffers: twice a name, so that writes past the
  // name's 16 bytes would show.
  static constexpr uint32_t kClearBlockLength = 32;

  void SetUp() override {
    EXPECT_EQ(OsalThreadAttrInit(&attr_), VekError::kOk);
  }

  void TearDown() override {
    EXPECT_EQ(OsalThreadAttrDestroy(attr_), VekError::kOk);
  }

  // Starts a thread named `thread_name` on a stack of its own.
  void Prepare(const char* thread_name, void (*thread_func)(void*), void* arg) {
    AllocateStack(kDefaultStackSize);
    EXPECT_EQ(OsalThreadAttrSetStack(attr_, stack_, stack_size_),
              VekError::kOk);
    EXPECT_EQ(OsalThreadAttrSetName(attr_, thread_name), VekError::kOk);
    EXPECT_EQ(OsalThreadCreate(&th_, attr_, thread_func, arg), VekError::kOk);
  }

  // Releases the thread that Prepare started and cleans up after it.
  void End(void* sem) {
    EXPECT_EQ(OsalSemPost(sem), VekError::kOk);
    EXPECT_EQ(OsalThreadJoin(th_), VekError::kOk);
    FreeStack();
    EXPECT_EQ(OsalSemDestroy(sem), VekError::kOk);
  }
};

namespace {

// Stays alive, with its name, until the main thread posts the semaphore
// whose handle `arg` points to.
void WaitForPost(void* arg) {
  ASSERT_NE(arg, nullptr);
  void* sem = *static_cast<void**>(arg);
  EXPECT_EQ(OsalSemWait(sem), VekError::kOk);
}

struct NameArgs {
  void** th;
  const char* thread_name;
  char* read_name;
  void* sem;
};

// Reads its own name through its own handle, once the creator has stored
// that handle.
void ReadOwnName(void* arg) {
  ASSERT_NE(arg, nullptr);
  auto* ta = static_cast<NameArgs*>(arg);
  EXPECT_EQ(OsalSemWait(ta->sem), VekError::kOk);
  void* handle = *ta->th;
  EXPECT_NE(handle, nullptr);
  EXPECT_EQ(OsalThreadGetName(handle, ta->read_name, kOsalThreadNameLengthMax),
            VekError::kOk);
  LOG_CUSTOM_INFO(kOsalUtLogTag, "thread_name = %s", ta->thread_name);
  LOG_CUSTOM_INFO(kOsalUtLogTag, "read_name = %s", ta->read_name);
  EXPECT_EQ(strlen(ta->read_name), strlen(ta->thread_name));
  EXPECT_EQ(strncmp(ta->read_name, ta->thread_name, strlen(ta->read_name)), 0);
}

}  // namespace

TEST_F(OsalThreadNameTest, CreateThreadWithEmptyName) {
  ASSERT_EQ(OsalThreadAttrSetStackSize(attr_, 1200), VekError::kOk);
  const char* thread_name = "";
  EXPECT_EQ(OsalThreadAttrSetName(attr_, thread_name), VekError::kErrParam);
  EXPECT_EQ(OsalThreadCreate(&th_, attr_, DoNothing, nullptr), VekError::kErr);
}

TEST_F(OsalThreadNameTest, CreateThreadWithNullPtr) {
  ASSERT_EQ(OsalThreadAttrSetStackSize(attr_, 1200), VekError::kOk);
  EXPECT_EQ(OsalThreadAttrSetName(attr_, nullptr), VekError::kErrParam);
  EXPECT_EQ(OsalThreadCreate(&th_, attr_, DoNothing, nullptr), VekError::kErr);
}

TEST_F(OsalThreadNameTest, ThreadAttrSetNameGetName) {
  const char* thread_name = "threadA";
  void* sem = nullptr;
  EXPECT_EQ(OsalSemInit(&sem, 0), VekError::kOk);
  Prepare(thread_name, WaitForPost, &sem);

  char read_name[kClearBlockLength] = {};
  EXPECT_EQ(OsalThreadAttrGetName(attr_, read_name, kOsalThreadNameLengthMax),
            VekError::kOk);
  LOG_CUSTOM_INFO(kOsalUtLogTag, "thread_name = %s", thread_name);
  LOG_CUSTOM_INFO(kOsalUtLogTag, "read_name = %s", read_name);
  EXPECT_EQ(strlen(read_name), strlen(thread_name));
  EXPECT_EQ(strncmp(read_name, thread_name, strlen(read_name)), 0);

  End(sem);
}

TEST_F(OsalThreadNameTest, ThreadAttrSetNameAtMaxCharLimit) {
  const char* thread_name = "abcdefghijklmno";
  void* sem = nullptr;
  EXPECT_EQ(OsalSemInit(&sem, 0), VekError::kOk);
  ASSERT_EQ(strlen(thread_name), kOsalThreadNameLengthMax - 1);
  Prepare(thread_name, WaitForPost, &sem);

  char read_name[kClearBlockLength] = {};
  EXPECT_EQ(OsalThreadAttrGetName(attr_, read_name, kOsalThreadNameLengthMax),
            VekError::kOk);
  LOG_CUSTOM_INFO(kOsalUtLogTag, "thread_name = %s", thread_name);
  LOG_CUSTOM_INFO(kOsalUtLogTag, "read_name = %s", read_name);
  EXPECT_EQ(strlen(read_name), strlen(thread_name));
  EXPECT_EQ(strncmp(read_name, thread_name, kOsalThreadNameLengthMax), 0);

  End(sem);
}

TEST_F(OsalThreadNameTest, ThreadAttrGetNameProtectAgainstOverread) {
  const char* thread_name = "abcdefghijklmno";
  void* sem = nullptr;
  EXPECT_EQ(OsalSemInit(&sem, 0), VekError::kOk);
  ASSERT_EQ(strlen(thread_name), kOsalThreadNameLengthMax - 1);
  Prepare(thread_name, WaitForPost, &sem);

  // The same 'c' pattern in both: whatever a call writes into read_name
  // shows against clear_block.
  char read_name[kClearBlockLength];
  char clear_block[kClearBlockLength];
  memset(read_name, 'c', kClearBlockLength - 1);
  read_name[kClearBlockLength - 1] = '\0';
  memset(clear_block, 'c', kClearBlockLength - 1);
  clear_block[kClearBlockLength - 1] = '\0';

  EXPECT_EQ(OsalThreadAttrGetName(attr_, read_name, 1),
            VekError::kErrOutOfRange);
  EXPECT_EQ(
      OsalThreadAttrGetName(attr_, read_name, kOsalThreadNameLengthMax + 10),
      VekError::kErrOutOfRange);
  EXPECT_EQ(OsalThreadAttrGetName(attr_, read_name, kOsalThreadNameLengthMax),
            VekError::kOk);
  LOG_CUSTOM_INFO(kOsalUtLogTag, "thread_name = %s", thread_name);
  LOG_CUSTOM_INFO(kOsalUtLogTag, "read_name   = %s", read_name);

  EXPECT_EQ(strlen(read_name), kOsalThreadNameLengthMax - 1);
  EXPECT_EQ(strncmp(read_name, thread_name, kOsalThreadNameLengthMax), 0);
  EXPECT_EQ(strncmp(read_name, thread_name, kOsalThreadNameLengthMax - 1), 0);
  // The 16th byte is the name's NUL.
  EXPECT_EQ(memcmp(read_name, thread_name, kOsalThreadNameLengthMax), 0);
  if (kClearBlockLength > kOsalThreadNameLengthMax) {
    // Bytes 16 to 31 still hold the pattern after all three calls.
    EXPECT_EQ(memcmp(read_name + kOsalThreadNameLengthMax,
                     clear_block + kOsalThreadNameLengthMax,
                     kClearBlockLength - kOsalThreadNameLengthMax),
              0);
  }

  End(sem);
}

TEST_F(OsalThreadNameTest, GetUnderlyingThreadName) {
  const char* thread_name = "abcdefghijklmno";
  void* sem = nullptr;
  EXPECT_EQ(OsalSemInit(&sem, 0), VekError::kOk);
  ASSERT_EQ(strlen(thread_name), kOsalThreadNameLengthMax - 1);
  Prepare(thread_name, WaitForPost, &sem);

  char read_name[kClearBlockLength] = "ccccccccccccccccccccccccccccccc";
  char read_name2[kClearBlockLength] = "ccccccccccccccccccccccccccccccc";
  EXPECT_EQ(OsalThreadAttrGetName(attr_, read_name, kOsalThreadNameLengthMax),
            VekError::kOk);
  // Asked about the other thread, from the main thread.
  EXPECT_EQ(OsalThreadGetName(th_, read_name2, kOsalThreadNameLengthMax),
            VekError::kOk);
  LOG_CUSTOM_INFO(kOsalUtLogTag, "read_name        = %s", read_name);
  LOG_CUSTOM_INFO(kOsalUtLogTag, "underlying_name  = %s", read_name2);
  EXPECT_EQ(strlen(read_name), strlen(read_name2));
  EXPECT_EQ(strncmp(read_name, read_name2, kOsalThreadNameLengthMax), 0);

  End(sem);
}

TEST_F(OsalThreadNameTest, ThreadAttrGetNameFromThreadFunc) {
  const char* thread_name = "threadA";
  void* sem = nullptr;
  EXPECT_EQ(OsalSemInit(&sem, 0), VekError::kOk);
  char read_name[kClearBlockLength] = {};
  NameArgs arg = {&th_, thread_name, read_name, sem};
  Prepare(thread_name, ReadOwnName, &arg);
  EXPECT_EQ(arg.th, &th_);
  End(sem);
}

}  // namespace zov_vek_unit_test
