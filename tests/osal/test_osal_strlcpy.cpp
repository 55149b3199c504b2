// OsalStrlcpy must do exactly what BSD strlcpy does: same result, same
// bytes in the destination, nothing written past `size`, and the source
// read no further than its NUL.
#include <bsd/string.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cstring>
#include <string>
#include <vector>

#include "osal/vek_osal.h"

namespace vek_test {
namespace {

using zov_vek::OsalStrlcpy;

constexpr char kCanary = '\x5a';
// Room past the largest size, where nothing may ever be written.
constexpr size_t kSlack = 16;

// A string of `length` characters that differ from each other, from the
// canary and from NUL, with bytes above 0x7f among them.
std::string MakeSource(size_t length) {
  std::string src;
  for (size_t i = 0; i < length; ++i) {
    src.push_back(static_cast<char>(0x21 + (i * 37) % 0xde));
  }
  return src;
}

// Copies with both functions into canary-filled buffers and compares the
// results and every byte, the slack past `size` included.
void ExpectSameAsBsd(const std::string& src, size_t size) {
  std::vector<char> ours(size + kSlack, kCanary);
  std::vector<char> theirs(size + kSlack, kCanary);
  const size_t our_result = OsalStrlcpy(ours.data(), src.c_str(), size);
  const size_t their_result = strlcpy(theirs.data(), src.c_str(), size);
  EXPECT_EQ(our_result, their_result)
      << "length " << src.size() << ", size " << size;
  EXPECT_EQ(ours, theirs) << "length " << src.size() << ", size " << size;
  for (size_t i = size; i < ours.size(); ++i) {
    ASSERT_EQ(ours[i], kCanary) << "byte " << i << " written, size " << size;
  }
}

TEST(OsalStrlcpyTest, MatchesBsdForEveryShortLengthAndSize) {
  // Every pairing around the interesting edges: empty sources, size 0 and
  // 1, sources one shorter, as long as and one longer than the buffer.
  for (size_t length = 0; length <= 40; ++length) {
    const std::string src = MakeSource(length);
    for (size_t size = 0; size <= 48; ++size) {
      ExpectSameAsBsd(src, size);
    }
  }
}

TEST(OsalStrlcpyTest, MatchesBsdForLongStrings) {
  for (size_t length : {255u, 256u, 4095u, 4096u, 65537u}) {
    const std::string src = MakeSource(length);
    for (size_t size : {size_t{0}, size_t{1}, length - 1, length, length + 1,
                        length / 2, size_t{70000}}) {
      ExpectSameAsBsd(src, size);
    }
  }
}

TEST(OsalStrlcpyTest, SizeZeroTakesNoDestination) {
  // As with BSD strlcpy, size 0 may come with no buffer at all.
  EXPECT_EQ(OsalStrlcpy(nullptr, "abc", 0), 3u);
  EXPECT_EQ(strlcpy(nullptr, "abc", 0), 3u);
}

TEST(OsalStrlcpyTest, ReadsNoFurtherThanTheSourceNul) {
  // The source ends at the last byte of a page that is followed by an
  // inaccessible one: any read past its NUL faults.
  const size_t page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
  void* mapping = mmap(nullptr, 2 * page, PROT_READ | PROT_WRITE,
                       MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  ASSERT_NE(mapping, MAP_FAILED);
  char* base = static_cast<char*>(mapping);
  ASSERT_EQ(mprotect(base + page, page, PROT_NONE), 0);

  for (size_t length : {0u, 1u, 5u, 100u}) {
    char* src = base + page - (length + 1);
    memset(src, 'x', length);
    src[length] = '\0';
    for (size_t size :
         {size_t{0}, size_t{1}, length, length + 1, size_t{4096}}) {
      std::vector<char> dst(size + 1, kCanary);
      EXPECT_EQ(OsalStrlcpy(dst.data(), src, size), length);
    }
  }
  munmap(mapping, 2 * page);
}

}  // namespace
}  // namespace vek_test
