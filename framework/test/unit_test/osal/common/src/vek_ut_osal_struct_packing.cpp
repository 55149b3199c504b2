// The byte layout that the toolchain gives one record under each maximum
// member alignment. Offsets and sizes are part of the framework's wire and
// shared-memory contracts, so a toolchain that lays records out otherwise
// must fail here.
#include <gtest/gtest.h>

#include <cstddef>
#include <cstdint>

namespace zov_vek_unit_test {

// Declares MyStruct with its 17 members in rank order; each case wraps it
// in its own packing.
#define UT_MY_STRUCT_MEMBERS \
  uint8_t _00_u8;            \
  uint64_t _01_u64;          \
  uint8_t _02_u8;            \
  uint32_t _03_u32;          \
  uint8_t _04_u8;            \
  uint16_t _05_u16;          \
  uint8_t _06_u8;            \
  uint8_t _07_u8;            \
  uint8_t _08_u8;            \
  uint16_t _09_u16;          \
  uint16_t _10_u16;          \
  uint8_t _11_u8;            \
  uint32_t _12_u32;          \
  uint32_t _13_u32;          \
  uint8_t _14_u8;            \
  uint64_t _15_u64;          \
  uint64_t _16_u64;

// The 17 offsets in member order, then the record's size.
#define UT_EXPECT_LAYOUT(o0, o1, o2, o3, o4, o5, o6, o7, o8, o9, o10, o11, \
                         o12, o13, o14, o15, o16, size)                    \
  do {                                                                     \
    EXPECT_EQ(offsetof(MyStruct, _00_u8), o0);                             \
    EXPECT_EQ(offsetof(MyStruct, _01_u64), o1);                            \
    EXPECT_EQ(offsetof(MyStruct, _02_u8), o2);                             \
    EXPECT_EQ(offsetof(MyStruct, _03_u32), o3);                            \
    EXPECT_EQ(offsetof(MyStruct, _04_u8), o4);                             \
    EXPECT_EQ(offsetof(MyStruct, _05_u16), o5);                            \
    EXPECT_EQ(offsetof(MyStruct, _06_u8), o6);                             \
    EXPECT_EQ(offsetof(MyStruct, _07_u8), o7);                             \
    EXPECT_EQ(offsetof(MyStruct, _08_u8), o8);                             \
    EXPECT_EQ(offsetof(MyStruct, _09_u16), o9);                            \
    EXPECT_EQ(offsetof(MyStruct, _10_u16), o10);                           \
    EXPECT_EQ(offsetof(MyStruct, _11_u8), o11);                            \
    EXPECT_EQ(offsetof(MyStruct, _12_u32), o12);                           \
    EXPECT_EQ(offsetof(MyStruct, _13_u32), o13);                           \
    EXPECT_EQ(offsetof(MyStruct, _14_u8), o14);                            \
    EXPECT_EQ(offsetof(MyStruct, _15_u64), o15);                           \
    EXPECT_EQ(offsetof(MyStruct, _16_u64), o16);                           \
    EXPECT_EQ(sizeof(MyStruct), size);                                     \
  } while (0)

TEST(OsalStructPackingTest, Pack1) {
#pragma pack(push, 1)
  struct MyStruct {
    UT_MY_STRUCT_MEMBERS
  };
#pragma pack(pop)
  UT_EXPECT_LAYOUT(0, 1, 9, 10, 14, 15, 17, 18, 19, 20, 22, 24, 25, 29, 33, 34,
                   42, 50);
}

TEST(OsalStructPackingTest, Pack2) {
#pragma pack(push, 2)
  struct MyStruct {
    UT_MY_STRUCT_MEMBERS
  };
#pragma pack(pop)
  UT_EXPECT_LAYOUT(0, 2, 10, 12, 16, 18, 20, 21, 22, 24, 26, 28, 30, 34, 38, 40,
                   48, 56);
}

TEST(OsalStructPackingTest, Pack4) {
#pragma pack(push, 4)
  struct MyStruct {
    UT_MY_STRUCT_MEMBERS
  };
#pragma pack(pop)
  UT_EXPECT_LAYOUT(0, 4, 12, 16, 20, 22, 24, 25, 26, 28, 30, 32, 36, 40, 44, 48,
                   56, 64);
}

TEST(OsalStructPackingTest, Pack8) {
#pragma pack(push, 8)
  struct MyStruct {
    UT_MY_STRUCT_MEMBERS
  };
#pragma pack(pop)
  UT_EXPECT_LAYOUT(0, 8, 16, 20, 24, 26, 28, 29, 30, 32, 34, 36, 40, 44, 48, 56,
                   64, 72);
}

TEST(OsalStructPackingTest, NaturalPacking) {
  struct MyStruct {
    UT_MY_STRUCT_MEMBERS
  };
  UT_EXPECT_LAYOUT(0, 8, 16, 20, 24, 26, 28, 29, 30, 32, 34, 36, 40, 44, 48, 56,
                   64, 72);
}

}  // namespace zov_vek_unit_test
