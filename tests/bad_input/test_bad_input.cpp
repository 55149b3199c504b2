// Every OSAL operation given null and out-of-range arguments: it must
// return an error code, write nothing through its out-parameters (they are
// poisoned beforehand and must come back untouched), start or create
// nothing, and leave the object it was given usable.
//
// The codes checked are this port's; the README's reliability table lists
// them.
#include <gtest/gtest.h>
#include <malloc.h>

#include <atomic>
#include <climits>
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "osal/vek_error.h"
#include "osal/vek_osal.h"

namespace vek_test {
namespace {

using namespace zov_vek;

void* const kPoisonHandle = reinterpret_cast<void*>(uintptr_t{0x5a5a5a5a});
constexpr unsigned int kPoisonSize = 0xa5a5a5a5u;
constexpr char kPoisonChar = '~';
constexpr size_t kBufferSize = 64;

// A byte buffer filled with kPoisonChar, with a check that it still is.
struct PoisonedBuffer {
  char bytes[kBufferSize];
  PoisonedBuffer() { std::memset(bytes, kPoisonChar, sizeof(bytes)); }
  bool Untouched() const {
    for (char c : bytes) {
      if (c != kPoisonChar) return false;
    }
    return true;
  }
};

long ThreadCount() {
  FILE* file = std::fopen("/proc/self/status", "r");
  if (file == nullptr) return -1;
  char line[256];
  long value = -1;
  while (std::fgets(line, sizeof(line), file) != nullptr) {
    if (std::strncmp(line, "Threads:", 8) == 0) {
      value = std::strtol(line + 8, nullptr, 10);
      break;
    }
  }
  std::fclose(file);
  return value;
}

TEST(BadInputTest, ConditionVariable) {
  void* mutex = nullptr;
  void* cond = nullptr;
  ASSERT_EQ(VekError::kOk, OsalMutexInit(&mutex));
  ASSERT_EQ(VekError::kOk, OsalCondInit(&cond));

  // The variable cannot be destroyed under the thread that waits on it.
  struct Shared {
    void* mutex;
    void* cond;
    bool ready = false;
    VekError destroy_while_waited_on = VekError::kOk;
  } shared{mutex, cond};
  void* attr = nullptr;
  void* thread = nullptr;
  ASSERT_EQ(VekError::kOk, OsalThreadAttrInit(&attr));
  ASSERT_EQ(VekError::kOk, OsalThreadAttrSetName(attr, "bad_input"));
  ASSERT_EQ(VekError::kOk, OsalThreadAttrSetStackSize(attr, 65536));
  // Held before the thread starts, so that the thread gets it only once
  // this thread waits.
  ASSERT_EQ(VekError::kOk, OsalMutexLock(mutex));
  ASSERT_EQ(VekError::kOk, OsalThreadCreate(
                               &thread, attr,
                               [](void* arg) {
                                 auto* s = static_cast<Shared*>(arg);
                                 OsalMutexLock(s->mutex);
                                 // The main thread waits: it registered
                                 // before it let go of the mutex.
                                 s->destroy_while_waited_on =
                                     OsalCondDestroy(s->cond);
                                 s->ready = true;
                                 OsalCondSignal(s->cond);
                                 OsalMutexUnlock(s->mutex);
                               },
                               &shared));
  while (!shared.ready) ASSERT_EQ(VekError::kOk, OsalCondWait(cond, mutex));
  EXPECT_EQ(VekError::kOk, OsalMutexUnlock(mutex));
  EXPECT_EQ(VekError::kOk, OsalThreadJoin(thread));
  EXPECT_EQ(VekError::kErrBusy, shared.destroy_while_waited_on);
  EXPECT_EQ(VekError::kOk, OsalThreadAttrDestroy(attr));
  EXPECT_EQ(VekError::kOk, OsalCondDestroy(cond));
  EXPECT_EQ(VekError::kOk, OsalMutexDestroy(mutex));
}

class ThreadAttrBadInputTest : public testing::Test {
 protected:
  void SetUp() override {
    ASSERT_EQ(VekError::kOk, OsalThreadAttrInit(&attr_));
    ASSERT_EQ(VekError::kOk, OsalThreadAttrSetName(attr_, "kept_name"));
    ASSERT_EQ(VekError::kOk,
              OsalThreadAttrSetStack(attr_, &stack_word_, sizeof(stack_word_)));
  }
  void TearDown() override {
    EXPECT_EQ(VekError::kOk, OsalThreadAttrDestroy(attr_));
  }

  // The stack and name that SetUp recorded are still there.
  void ExpectUnchanged() {
    void* addr = kPoisonHandle;
    unsigned int size = kPoisonSize;
    EXPECT_EQ(VekError::kOk, OsalThreadAttrGetStack(attr_, &addr, &size));
    EXPECT_EQ(static_cast<void*>(&stack_word_), addr);
    EXPECT_EQ(sizeof(stack_word_), size);
    char name[kOsalThreadNameLengthMax];
    EXPECT_EQ(VekError::kOk,
              OsalThreadAttrGetName(attr_, name, kOsalThreadNameLengthMax));
    EXPECT_STREQ("kept_name", name);
  }

  void* attr_ = nullptr;
  uint32_t stack_word_ = 0;
};

TEST_F(ThreadAttrBadInputTest, NullHandles) {
  EXPECT_EQ(VekError::kErrParam, OsalThreadAttrInit(nullptr));
  EXPECT_EQ(VekError::kErrParam, OsalThreadAttrDestroy(nullptr));
  EXPECT_EQ(VekError::kErrParam, OsalThreadAttrSetStack(nullptr, nullptr, 0));
  EXPECT_EQ(VekError::kErrParam,
            OsalThreadAttrSetStack(nullptr, &stack_word_, 4));
  EXPECT_EQ(VekError::kErrParam, OsalThreadAttrSetStackSize(nullptr, 16384));
  EXPECT_EQ(VekError::kErrParam, OsalThreadAttrSetName(nullptr, "x"));
  PoisonedBuffer buffer;
  EXPECT_EQ(VekError::kErrParam,
            OsalThreadAttrGetName(nullptr, buffer.bytes, 16));
  EXPECT_TRUE(buffer.Untouched());
  ExpectUnchanged();
}

TEST_F(ThreadAttrBadInputTest, GetStackWritesNothingWhenRefused) {
  void* addr = kPoisonHandle;
  unsigned int size = kPoisonSize;
  EXPECT_EQ(VekError::kErrParam, OsalThreadAttrGetStack(nullptr, &addr, &size));
  EXPECT_EQ(VekError::kErrParam, OsalThreadAttrGetStack(attr_, nullptr, &size));
  EXPECT_EQ(VekError::kErrParam, OsalThreadAttrGetStack(attr_, &addr, nullptr));
  EXPECT_EQ(VekError::kErrParam,
            OsalThreadAttrGetStack(nullptr, nullptr, nullptr));
  EXPECT_EQ(kPoisonHandle, addr);
  EXPECT_EQ(kPoisonSize, size);
}

TEST_F(ThreadAttrBadInputTest, InconsistentStackAndSizeAreRefused) {
  EXPECT_EQ(VekError::kErrParam, OsalThreadAttrSetStack(attr_, nullptr, 8192));
  EXPECT_EQ(VekError::kErrParam,
            OsalThreadAttrSetStack(attr_, &stack_word_, 0));
  EXPECT_EQ(VekError::kErrParam, OsalThreadAttrSetStackSize(attr_, 0));
  ExpectUnchanged();
}

TEST_F(ThreadAttrBadInputTest, BadNamesAreRefused) {
  EXPECT_EQ(VekError::kErrParam, OsalThreadAttrSetName(attr_, nullptr));
  EXPECT_EQ(VekError::kErrParam, OsalThreadAttrSetName(attr_, ""));
  // Sixteen characters do not fit with their NUL.
  EXPECT_EQ(VekError::kErrOutOfRange,
            OsalThreadAttrSetName(attr_, "abcdefghijklmnop"));
  EXPECT_EQ(VekError::kErrOutOfRange,
            OsalThreadAttrSetName(attr_, "a name far longer than any limit"));
  ExpectUnchanged();
}

TEST_F(ThreadAttrBadInputTest, GetNameWritesNothingWhenRefused) {
  // "kept_name" needs 10 bytes; shorter buffers and buffers declared larger
  // than any name are refused.
  for (unsigned int len : {0u, 1u, 9u, kOsalThreadNameLengthMax + 1,
                           kOsalThreadNameLengthMax + 10, UINT_MAX}) {
    PoisonedBuffer buffer;
    EXPECT_EQ(VekError::kErrOutOfRange,
              OsalThreadAttrGetName(attr_, buffer.bytes, len))
        << "len " << len;
    EXPECT_TRUE(buffer.Untouched()) << "len " << len;
  }
  EXPECT_EQ(VekError::kErrParam,
            OsalThreadAttrGetName(attr_, nullptr, kOsalThreadNameLengthMax));
  // A buffer just large enough is written up to the NUL and no further.
  PoisonedBuffer buffer;
  EXPECT_EQ(VekError::kOk, OsalThreadAttrGetName(attr_, buffer.bytes, 10));
  EXPECT_STREQ("kept_name", buffer.bytes);
  for (size_t i = 10; i < kBufferSize; ++i) {
    EXPECT_EQ(kPoisonChar, buffer.bytes[i]) << "byte " << i;
  }
  ExpectUnchanged();
}

// Thread creation: a refusal writes no handle and starts no thread.
std::atomic<int> g_started{0};
void CountStart(void*) { g_started++; }

class ThreadBadInputTest : public testing::Test {
 protected:
  void SetUp() override {
    g_started = 0;
    ASSERT_EQ(VekError::kOk, OsalThreadAttrInit(&attr_));
    threads_before_ = ThreadCount();
    ASSERT_GT(threads_before_, 0);
  }
  void TearDown() override {
    EXPECT_EQ(VekError::kOk, OsalThreadAttrDestroy(attr_));
  }

  // Refused with `expected`, nothing written, nothing started.
  void ExpectRefused(VekError expected, void* attr, void (*func)(void*)) {
    void* thread = kPoisonHandle;
    EXPECT_EQ(expected, OsalThreadCreate(&thread, attr, func, nullptr));
    EXPECT_EQ(kPoisonHandle, thread);
    EXPECT_EQ(threads_before_, ThreadCount());
    EXPECT_EQ(0, g_started.load());
  }

  // The attribute still starts a thread once it is completed.
  void ExpectUsable() {
    EXPECT_EQ(VekError::kOk, OsalThreadAttrSetName(attr_, "usable"));
    EXPECT_EQ(VekError::kOk, OsalThreadAttrSetStackSize(attr_, 65536));
    void* thread = nullptr;
    ASSERT_EQ(VekError::kOk,
              OsalThreadCreate(&thread, attr_, &CountStart, nullptr));
    EXPECT_EQ(VekError::kOk, OsalThreadJoin(thread));
    EXPECT_EQ(1, g_started.load());
  }

  void* attr_ = nullptr;
  long threads_before_ = 0;
};

TEST_F(ThreadBadInputTest, NullArgumentsAreRefused) {
  ASSERT_EQ(VekError::kOk, OsalThreadAttrSetName(attr_, "never"));
  ASSERT_EQ(VekError::kOk, OsalThreadAttrSetStackSize(attr_, 65536));
  EXPECT_EQ(VekError::kErrParam,
            OsalThreadCreate(nullptr, attr_, &CountStart, nullptr));
  ExpectRefused(VekError::kErrParam, nullptr, &CountStart);
  ExpectRefused(VekError::kErrParam, attr_, nullptr);
  EXPECT_EQ(VekError::kErrParam, OsalThreadJoin(nullptr));
  PoisonedBuffer buffer;
  EXPECT_EQ(VekError::kErrParam, OsalThreadGetName(nullptr, buffer.bytes, 16));
  EXPECT_TRUE(buffer.Untouched());
  ExpectUsable();
}

TEST_F(ThreadBadInputTest, IncompleteAttributesAreRefused) {
  // Fresh: no name, no stack.
  ExpectRefused(VekError::kErr, attr_, &CountStart);
  // A name but no stack.
  ASSERT_EQ(VekError::kOk, OsalThreadAttrSetName(attr_, "no_stack"));
  ExpectRefused(VekError::kErr, attr_, &CountStart);
  // A caller stack below the smallest that every port accepts.
  alignas(16) static char tiny_stack[1200];
  ASSERT_EQ(VekError::kOk,
            OsalThreadAttrSetStack(attr_, tiny_stack, sizeof(tiny_stack)));
  ExpectRefused(VekError::kErr, attr_, &CountStart);
  // A cleared stack.
  ASSERT_EQ(VekError::kOk, OsalThreadAttrSetStack(attr_, nullptr, 0));
  ExpectRefused(VekError::kErr, attr_, &CountStart);
  ExpectUsable();
}

TEST_F(ThreadBadInputTest, GetNameWritesNothingWhenRefused) {
  struct Gate {
    void* sem;
  } gate{nullptr};
  ASSERT_EQ(VekError::kOk, OsalSemInit(&gate.sem, 0));
  ASSERT_EQ(VekError::kOk, OsalThreadAttrSetName(attr_, "named_thread"));
  ASSERT_EQ(VekError::kOk, OsalThreadAttrSetStackSize(attr_, 65536));
  void* thread = nullptr;
  ASSERT_EQ(
      VekError::kOk,
      OsalThreadCreate(
          &thread, attr_,
          [](void* arg) { OsalSemWait(static_cast<Gate*>(arg)->sem); }, &gate));
  // "named_thread" needs 13 bytes.
  for (unsigned int len : {0u, 1u, 12u, kOsalThreadNameLengthMax + 1,
                           kOsalThreadNameLengthMax + 10, UINT_MAX}) {
    PoisonedBuffer buffer;
    EXPECT_EQ(VekError::kErrOutOfRange,
              OsalThreadGetName(thread, buffer.bytes, len))
        << "len " << len;
    EXPECT_TRUE(buffer.Untouched()) << "len " << len;
  }
  EXPECT_EQ(VekError::kErrParam, OsalThreadGetName(thread, nullptr, 16));
  PoisonedBuffer buffer;
  EXPECT_EQ(VekError::kOk,
            OsalThreadGetName(thread, buffer.bytes, kOsalThreadNameLengthMax));
  EXPECT_STREQ("named_thread", buffer.bytes);
  for (size_t i = 13; i < kBufferSize; ++i) {
    EXPECT_EQ(kPoisonChar, buffer.bytes[i]) << "byte " << i;
  }
  EXPECT_EQ(VekError::kOk, OsalSemPost(gate.sem));
  EXPECT_EQ(VekError::kOk, OsalThreadJoin(thread));
  EXPECT_EQ(VekError::kOk, OsalSemDestroy(gate.sem));
}

// A thread cannot join itself; the refusal leaves its handle valid for the
// real joiner.
TEST_F(ThreadBadInputTest, SelfJoinIsRefusedAndHandleStaysValid) {
  struct Self {
    void* thread = nullptr;
    void* handle_ready = nullptr;
    VekError self_join = VekError::kOk;
  } self;
  ASSERT_EQ(VekError::kOk, OsalSemInit(&self.handle_ready, 0));
  ASSERT_EQ(VekError::kOk, OsalThreadAttrSetName(attr_, "self_join"));
  ASSERT_EQ(VekError::kOk, OsalThreadAttrSetStackSize(attr_, 65536));
  ASSERT_EQ(VekError::kOk, OsalThreadCreate(
                               &self.thread, attr_,
                               [](void* arg) {
                                 auto* s = static_cast<Self*>(arg);
                                 OsalSemWait(s->handle_ready);
                                 s->self_join = OsalThreadJoin(s->thread);
                               },
                               &self));
  EXPECT_EQ(VekError::kOk, OsalSemPost(self.handle_ready));
  EXPECT_EQ(VekError::kOk, OsalThreadJoin(self.thread));
  EXPECT_EQ(VekError::kErr, self.self_join);
  EXPECT_EQ(VekError::kOk, OsalSemDestroy(self.handle_ready));
}

TEST(BadInputTest, Strlcpy) {
  // A null source is no string: length 0 and nothing written.
  PoisonedBuffer dst;
  EXPECT_EQ(0u, OsalStrlcpy(dst.bytes, nullptr, sizeof(dst.bytes)));
  EXPECT_TRUE(dst.Untouched());
  // A null destination or size 0 receives nothing; the length still comes
  // back so that the caller sees the truncation.
  EXPECT_EQ(5u, OsalStrlcpy(nullptr, "abcde", 16));
  EXPECT_EQ(5u, OsalStrlcpy(dst.bytes, "abcde", 0));
  EXPECT_TRUE(dst.Untouched());
  // Size 1 holds only the NUL.
  EXPECT_EQ(5u, OsalStrlcpy(dst.bytes, "abcde", 1));
  EXPECT_EQ('\0', dst.bytes[0]);
  for (size_t i = 1; i < kBufferSize; ++i) {
    EXPECT_EQ(kPoisonChar, dst.bytes[i]) << "byte " << i;
  }
}

}  // namespace
}  // namespace vek_test
