// The fixture shared by the OSAL synchronisation suites: a thread attribute
// ready for the threads that a case starts.
#ifndef UT_VEK_UT_OSAL_H_
#define UT_VEK_UT_OSAL_H_

#include <gtest/gtest.h>

#include "osal/vek_error.h"
#include "osal/vek_osal.h"

namespace zov_vek_unit_test {

using zov_vek::OsalThreadAttrDestroy;
using zov_vek::OsalThreadAttrInit;
using zov_vek::OsalThreadAttrSetName;
using zov_vek::OsalThreadAttrSetStackSize;
using zov_vek::VekError;

// The custom log group of the OSAL suites.
constexpr char kOsalUtLogTag[] = "vek-ut-osal";

class OsalThreadedTest : public testing::Test {
 protected:
  static constexpr unsigned int kThreadStackSize = 16384;
  static constexpr char kThreadName[] = "osal_thread";

  void SetUp() override {
    const char* thread_name = kThreadName;
    EXPECT_EQ(OsalThreadAttrInit(&attr_), VekError::kOk);
    EXPECT_EQ(OsalThreadAttrSetName(attr_, thread_name), VekError::kOk);
    EXPECT_EQ(OsalThreadAttrSetStackSize(attr_, kThreadStackSize),
              VekError::kOk);
  }

  void TearDown() override {
    EXPECT_EQ(OsalThreadAttrDestroy(attr_), VekError::kOk);
  }

  void* attr_ = nullptr;
};

}  // namespace zov_vek_unit_test

#endif  // UT_VEK_UT_OSAL_H_
