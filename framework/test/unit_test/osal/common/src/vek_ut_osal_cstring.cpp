// OsalStrlcpy into a 7-byte buffer from sources shorter than, exactly
// filling, and longer than it.
#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "osal/vek_osal.h"

namespace zov_vek_unit_test {

using zov_vek::OsalStrlcpy;

TEST(StrlcpyTest, SrcSizeSmallerThanDstSize) {
  char dst[7] = {};
  const char src[] = "abcde";
  EXPECT_EQ(OsalStrlcpy(dst, src, sizeof(dst)), strlen(src));
  EXPECT_EQ(strcmp(dst, src), 0);
}

TEST(StrlcpyTest, SrcSizeEqualDstSize) {
  char dst[7] = {};
  const char src[] = "abcdef";
  EXPECT_EQ(OsalStrlcpy(dst, src, sizeof(dst)), strlen(src));
  EXPECT_EQ(strcmp(dst, src), 0);
}

TEST(StrlcpyTest, SrcSizeGreaterThanDstSize) {
  char dst[7] = {};
  const char src[] = "abcdefgh";
  EXPECT_EQ(OsalStrlcpy(dst, src, sizeof(dst)), strlen(src));
  EXPECT_NE(strcmp(dst, src), 0);
  // Cut to what fits with the NUL, and terminated all the same.
  const std::string src_substr = std::string(src).substr(0, sizeof(dst) - 1);
  EXPECT_EQ(strcmp(dst, src_substr.c_str()), 0);
  EXPECT_EQ(dst[sizeof(dst) - 1], '\0');
}

}  // namespace zov_vek_unit_test
