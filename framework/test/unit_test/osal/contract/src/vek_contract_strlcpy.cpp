// OsalStrlcpy: BSD strlcpy. It copies at most size - 1 characters and a
// NUL when size is at least 1, returns strlen(src) whatever it copied, and
// touches no byte of the destination at or past `size` and no byte of the
// source past its NUL. Null arguments are left to the port.
#include <sys/mman.h>
#include <unistd.h>

#include <cstddef>
#include <cstring>
#include <string>

#include "vek_contract.h"

namespace zov_vek_contract {
namespace {

using zov_vek::OsalStrlcpy;

constexpr char kFifteen[] = "abcdefghijklmno";
constexpr char kHundred[] =
    "0123456789abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ"
    "0123456789abcdefghijklmnopqrstuvwxyzAB";
static_assert(sizeof(kHundred) == 101, "a source of 100 characters");

struct CopyRow {
  const char* src;
  size_t size;
  // What the destination holds afterwards; null when size is 0 and
  // nothing may be written at all.
  const char* dst;
  size_t result;
};

// Every row by hand, not computed: the table is the contract.
constexpr CopyRow kCopies[] = {
    // The conformance suites' three rows.
    {"abcde", 7, "abcde", 5},
    {"abcdef", 7, "abcdef", 6},
    {"abcdefgh", 7, "abcdef", 8},
    // Nothing to copy, or no room for more than the NUL.
    {"", 7, "", 0},
    {"", 1, "", 0},
    {"abcdefgh", 1, "", 8},
    {"a", 1, "", 1},
    // One character of room.
    {"a", 2, "a", 1},
    {"ab", 2, "a", 2},
    // Size 0 writes nothing and still measures the source.
    {"", 0, nullptr, 0},
    {"abcdefgh", 0, nullptr, 8},
    {kHundred, 0, nullptr, 100},
    // A thread name's worth, whole and one short.
    {kFifteen, 16, kFifteen, 15},
    {kFifteen, 15, "abcdefghijklmn", 15},
    // Room to spare, and a long source cut short.
    {"abc", 64, "abc", 3},
    {kHundred, 64,
     "0123456789abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0", 100},
    {kHundred, 101, kHundred, 100},
};

constexpr size_t kBufferSize = 128;

TEST(OsalStrlcpy, CopiesTerminatesAndMeasuresAsTheTableSays) {
  for (const CopyRow& row : kCopies) {
    SCOPED_TRACE(testing::Message()
                 << "src \"" << row.src << "\", size " << row.size);
    char dst[kBufferSize];
    std::memset(dst, kPoisonChar, sizeof(dst));
    EXPECT_EQ(OsalStrlcpy(dst, row.src, row.size), row.result);
    if (row.dst != nullptr) {
      EXPECT_STREQ(dst, row.dst);
    }
    // Nothing at or past `size`, and with size 0 nothing at all.
    for (size_t i = row.size; i < sizeof(dst); ++i) {
      ASSERT_EQ(dst[i], kPoisonChar) << "byte " << i << " was written";
    }
  }
}

TEST(OsalStrlcpy, CopiesNothingPastTheSourcesNul) {
  // Bytes after the NUL are not part of the string.
  const char src[] = {'a', 'b', '\0', 'c', 'd', '\0'};
  char dst[8];
  std::memset(dst, kPoisonChar, sizeof(dst));
  EXPECT_EQ(OsalStrlcpy(dst, src, sizeof(dst)), 2u);
  EXPECT_STREQ(dst, "ab");
  EXPECT_NE(dst[3], 'c');
  EXPECT_NE(dst[4], 'd');
}

// A page that can be read and written, followed by one that faults on any
// access.
class GuardedPage {
 public:
  GuardedPage() {
    page_ = static_cast<size_t>(sysconf(_SC_PAGESIZE));
    void* mapping = mmap(nullptr, 2 * page_, PROT_READ | PROT_WRITE,
                         MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (mapping == MAP_FAILED) return;
    base_ = static_cast<char*>(mapping);
    if (mprotect(base_ + page_, page_, PROT_NONE) != 0) {
      munmap(base_, 2 * page_);
      base_ = nullptr;
    }
  }
  ~GuardedPage() {
    if (base_ != nullptr) munmap(base_, 2 * page_);
  }
  GuardedPage(const GuardedPage&) = delete;
  GuardedPage& operator=(const GuardedPage&) = delete;

  bool ok() const { return base_ != nullptr; }
  // The last `bytes` bytes before the guard.
  char* End(size_t bytes) const { return base_ + page_ - bytes; }

 private:
  size_t page_ = 0;
  char* base_ = nullptr;
};

TEST(OsalStrlcpy, ReadsNoFurtherThanTheSourcesNul) {
  // The source ends right before a page that faults, and the destination
  // offers more room than the source needs: reading a byte past the NUL
  // ends the process.
  GuardedPage page;
  ASSERT_TRUE(page.ok());
  for (const char* text : {"", "a", "abcdef", kFifteen, kHundred}) {
    const size_t length = std::strlen(text);
    char* src = page.End(length + 1);
    std::memcpy(src, text, length + 1);
    char dst[kBufferSize];
    EXPECT_EQ(OsalStrlcpy(dst, src, sizeof(dst)), length);
    EXPECT_STREQ(dst, text);
  }
}

TEST(OsalStrlcpy, WritesNoFurtherThanSizeWhenTheBufferEndsThere) {
  // The destination is exactly `size` bytes and ends right before a page
  // that faults.
  GuardedPage page;
  ASSERT_TRUE(page.ok());
  for (size_t size : {1u, 2u, 7u, 16u, 64u}) {
    char* dst = page.End(size);
    EXPECT_EQ(OsalStrlcpy(dst, kHundred, size), 100u) << "size " << size;
    // Read within the buffer only: an unterminated copy must fail here,
    // not fault in the check.
    EXPECT_EQ(dst[size - 1], '\0') << "size " << size;
    EXPECT_EQ(std::string(dst, size - 1), std::string(kHundred, size - 1))
        << "size " << size;
  }
}

}  // namespace
}  // namespace zov_vek_contract
