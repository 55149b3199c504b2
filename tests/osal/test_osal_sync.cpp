// Thread attributes and threads of the POSIX port given null handles,
// out-parameters or buffers: kErrParam, nothing written, and the object
// still works afterwards.
#include <gtest/gtest.h>

#include <cstring>

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
using zov_vek::OsalThreadGetName;
using zov_vek::OsalThreadJoin;
using zov_vek::VekError;

void WaitOnSem(void* sem) { EXPECT_EQ(OsalSemWait(sem), VekError::kOk); }

TEST(OsalNullArgumentTest, AttributeAndThreadStayUsable) {
  void* attr = nullptr;
  ASSERT_EQ(OsalThreadAttrInit(&attr), VekError::kOk);
  ASSERT_EQ(OsalThreadAttrSetName(attr, "kept_name"), VekError::kOk);
  ASSERT_EQ(OsalThreadAttrSetStackSize(attr, 65536), VekError::kOk);

  EXPECT_EQ(OsalThreadAttrInit(nullptr), VekError::kErrParam);
  EXPECT_EQ(OsalThreadAttrDestroy(nullptr), VekError::kErrParam);
  EXPECT_EQ(OsalThreadAttrSetStackSize(nullptr, 65536), VekError::kErrParam);
  EXPECT_EQ(OsalThreadAttrSetStack(nullptr, &attr, 65536), VekError::kErrParam);
  EXPECT_EQ(OsalThreadAttrSetName(nullptr, "x"), VekError::kErrParam);
  EXPECT_EQ(OsalThreadAttrSetName(attr, nullptr), VekError::kErrParam);
  EXPECT_EQ(OsalThreadAttrSetName(attr, ""), VekError::kErrParam);
  // Refused pairs: a size without an address, an address without a size.
  EXPECT_EQ(OsalThreadAttrSetStack(attr, nullptr, 65536), VekError::kErrParam);
  EXPECT_EQ(OsalThreadAttrSetStack(attr, &attr, 0), VekError::kErrParam);
  // A size of 0 is no stack.
  EXPECT_EQ(OsalThreadAttrSetStackSize(attr, 0), VekError::kErrParam);

  // Out-parameters of refused reads keep what they held.
  int marker = 0;
  void* addr = &marker;
  unsigned int size = 777;
  EXPECT_EQ(OsalThreadAttrGetStack(attr, nullptr, &size), VekError::kErrParam);
  EXPECT_EQ(OsalThreadAttrGetStack(attr, &addr, nullptr), VekError::kErrParam);
  EXPECT_EQ(OsalThreadAttrGetStack(nullptr, &addr, &size), VekError::kErrParam);
  EXPECT_EQ(addr, &marker);
  EXPECT_EQ(size, 777u);
  char name[kOsalThreadNameLengthMax];
  memset(name, 'c', sizeof(name));
  EXPECT_EQ(OsalThreadAttrGetName(nullptr, name, sizeof(name)),
            VekError::kErrParam);
  EXPECT_EQ(OsalThreadAttrGetName(attr, nullptr, sizeof(name)),
            VekError::kErrParam);
  EXPECT_EQ(name[0], 'c');

  // Nothing of the above changed the attribute.
  EXPECT_EQ(OsalThreadAttrGetStack(attr, &addr, &size), VekError::kOk);
  EXPECT_EQ(addr, nullptr);
  EXPECT_EQ(size, 65536u);
  EXPECT_EQ(OsalThreadAttrGetName(attr, name, sizeof(name)), VekError::kOk);
  EXPECT_STREQ(name, "kept_name");

  // A running thread: refused name reads leave it and the buffer alone.
  void* sem = nullptr;
  ASSERT_EQ(OsalSemInit(&sem, 0), VekError::kOk);
  void* thread = nullptr;
  ASSERT_EQ(OsalThreadCreate(&thread, attr, WaitOnSem, sem), VekError::kOk);
  memset(name, 'c', sizeof(name));
  EXPECT_EQ(OsalThreadGetName(nullptr, name, sizeof(name)),
            VekError::kErrParam);
  EXPECT_EQ(name[0], 'c');
  EXPECT_EQ(OsalThreadGetName(thread, nullptr, sizeof(name)),
            VekError::kErrParam);
  EXPECT_EQ(OsalThreadJoin(nullptr), VekError::kErrParam);
  EXPECT_EQ(OsalThreadGetName(thread, name, sizeof(name)), VekError::kOk);
  EXPECT_STREQ(name, "kept_name");
  EXPECT_EQ(OsalSemPost(sem), VekError::kOk);
  EXPECT_EQ(OsalThreadJoin(thread), VekError::kOk);

  EXPECT_EQ(OsalSemDestroy(sem), VekError::kOk);
  EXPECT_EQ(OsalThreadAttrDestroy(attr), VekError::kOk);
}

}  // namespace
}  // namespace vek_test
