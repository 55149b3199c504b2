// A thread on a caller's stack must run on exactly that block, as pthreads
// itself sees it, on every target. glibc on aarch64 refuses caller stacks
// below 128 KiB through its setters, so the port has to hand the block over
// by other means there; declaring a larger stack would let the C library
// size its own stack use (alloca limits, pthread_getattr_np) for memory the
// thread does not have.
#include <malloc.h>
#include <pthread.h>

#include <cstdint>
#include <cstdlib>

#include <gtest/gtest.h>

#include "osal/vek_osal.h"

namespace {

using zov_vek::VekError;

struct StackView {
  bool read = false;
  uintptr_t low = 0;
  size_t size = 0;
  uintptr_t local = 0;
};

void ReadOwnStack(void* arg) {
  auto* view = static_cast<StackView*>(arg);
  // The frame, not the address of a local: under AddressSanitizer a local
  // whose address is taken lives on a fake stack of its own.
  view->local = reinterpret_cast<uintptr_t>(__builtin_frame_address(0));
  pthread_attr_t attr;
  if (pthread_getattr_np(pthread_self(), &attr) != 0) return;
  void* low = nullptr;
  view->read = pthread_attr_getstack(&attr, &low, &view->size) == 0;
  view->low = reinterpret_cast<uintptr_t>(low);
  pthread_attr_destroy(&attr);
}

TEST(CallerStackTest, PthreadsSeesExactlyTheCallersBlock) {
  void* attr = nullptr;
  ASSERT_EQ(VekError::kOk, zov_vek::OsalThreadAttrInit(&attr));
  ASSERT_EQ(VekError::kOk, zov_vek::OsalThreadAttrSetName(attr, "exact_stack"));
  for (unsigned int size : {16384u, 32768u, 65536u, 262144u}) {
    SCOPED_TRACE(size);
    void* stack = memalign(4096, size);
    ASSERT_NE(nullptr, stack);
    ASSERT_EQ(VekError::kOk,
              zov_vek::OsalThreadAttrSetStack(attr, stack, size));
    StackView view;
    void* thread = nullptr;
    ASSERT_EQ(VekError::kOk,
              zov_vek::OsalThreadCreate(&thread, attr, ReadOwnStack, &view));
    ASSERT_EQ(VekError::kOk, zov_vek::OsalThreadJoin(thread));
    const auto low = reinterpret_cast<uintptr_t>(stack);
    ASSERT_TRUE(view.read);
    EXPECT_EQ(low, view.low);
    EXPECT_EQ(size, view.size);
    EXPECT_GE(view.local, low);
    EXPECT_LT(view.local, low + size);
    free(stack);
  }
  EXPECT_EQ(VekError::kOk, zov_vek::OsalThreadAttrDestroy(attr));
}

}  // namespace
