// Thread attributes and their stacks: an attribute records what it is
// given and reads it back exactly; a refused call leaves it as it was and
// writes nothing; recording a stack never touches the caller's memory,
// which stays the caller's; a stack the library makes has at least the
// room asked for.
#include <alloca.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>

#include "vek_contract.h"
#include "vek_contract_thread.h"

namespace zov_vek_contract {
namespace {

using zov_vek::OsalThreadAttrDestroy;
using zov_vek::OsalThreadAttrGetStack;
using zov_vek::OsalThreadAttrInit;
using zov_vek::OsalThreadAttrSetName;
using zov_vek::OsalThreadAttrSetStack;
using zov_vek::OsalThreadAttrSetStackSize;

// Whether `attr` reports exactly this stack, read over poisoned variables
// so that a value never written shows.
testing::AssertionResult HasStack(void* attr, const void* addr,
                                  unsigned int size) {
  void* read_addr = kPoisonHandle;
  unsigned int read_size = kPoisonSize;
  if (OsalThreadAttrGetStack(attr, &read_addr, &read_size) != VekError::kOk) {
    return testing::AssertionFailure() << "OsalThreadAttrGetStack refused";
  }
  if (read_addr != addr || read_size != size) {
    return testing::AssertionFailure()
           << "the attribute reports " << read_addr << ", " << read_size
           << " instead of " << addr << ", " << size;
  }
  return testing::AssertionSuccess();
}

TEST(OsalThreadAttrInit, RefusesANullOutParameter) {
  EXPECT_NE(OsalThreadAttrInit(nullptr), VekError::kOk);
}

TEST(OsalThreadAttrInit, GivesAnAttributeWithNoStack) {
  Attr attr;
  EXPECT_TRUE(HasStack(attr.get(), nullptr, 0));
}

TEST(OsalThreadAttrInit, GivesAttributesIndependentOfEachOther) {
  Attr first;
  Attr second;
  ASSERT_NE(first.get(), second.get());
  // Words posing as stacks: setting only records them.
  uint32_t first_word = 0;
  uint32_t second_word = 0;
  ASSERT_EQ(OsalThreadAttrSetStack(first.get(), &first_word, 16384),
            VekError::kOk);
  ASSERT_EQ(OsalThreadAttrSetName(first.get(), "first"), VekError::kOk);
  ASSERT_EQ(OsalThreadAttrSetStack(second.get(), &second_word, 32768),
            VekError::kOk);
  ASSERT_EQ(OsalThreadAttrSetName(second.get(), "second"), VekError::kOk);
  EXPECT_TRUE(HasStack(first.get(), &first_word, 16384));
  EXPECT_TRUE(HasName(first.get(), "first"));
  EXPECT_TRUE(HasStack(second.get(), &second_word, 32768));
  EXPECT_TRUE(HasName(second.get(), "second"));
}

TEST(OsalThreadAttrDestroy, RefusesANullHandle) {
  EXPECT_NE(OsalThreadAttrDestroy(nullptr), VekError::kOk);
}

// True when the allocator hands out memory within `block`, which it does
// only once somebody has freed the block.
bool HandedOutAgain(const void* block, size_t size) {
  void* probes[2] = {malloc(size), nullptr};
  if (posix_memalign(&probes[1], 4096, size) != 0) probes[1] = nullptr;
  const auto low = reinterpret_cast<uintptr_t>(block);
  bool again = false;
  for (void* probe : probes) {
    const auto at = reinterpret_cast<uintptr_t>(probe);
    if (probe != nullptr && at < low + size && low < at + size) again = true;
    free(probe);
  }
  return again;
}

TEST(OsalThreadAttrDestroy, LeavesTheCallersStackToTheCaller) {
  constexpr unsigned int kSize = 16384;
  for (bool ran_on_it : {false, true}) {
    SCOPED_TRACE(ran_on_it ? "a thread ran on it" : "no thread ran on it");
    void* stack = nullptr;
    ASSERT_EQ(posix_memalign(&stack, 4096, kSize), 0);
    {
      Attr attr;
      ASSERT_EQ(OsalThreadAttrSetName(attr.get(), "stack_kept"), VekError::kOk);
      ASSERT_EQ(OsalThreadAttrSetStack(attr.get(), stack, kSize),
                VekError::kOk);
      if (ran_on_it) {
        EXPECT_EQ(RunToEnd(attr.get(), [] {}), VekError::kOk);
      }
    }
    const bool freed = HandedOutAgain(stack, kSize);
    EXPECT_FALSE(freed) << "destroying the attribute freed the caller's stack";
    if (!freed) free(stack);
  }
}

TEST(OsalThreadAttrGetStack, RefusesNullArgumentsAndWritesNothing) {
  Attr attr;
  uint32_t word = 0;
  ASSERT_EQ(OsalThreadAttrSetStack(attr.get(), &word, 16384), VekError::kOk);
  struct Row {
    bool attr;
    bool addr;
    bool size;
  };
  constexpr Row kRows[] = {{false, false, false}, {false, false, true},
                           {false, true, false},  {false, true, true},
                           {true, false, false},  {true, false, true},
                           {true, true, false}};
  for (const Row& row : kRows) {
    SCOPED_TRACE(testing::Message() << "attr " << row.attr << ", addr "
                                    << row.addr << ", size " << row.size);
    void* addr = kPoisonHandle;
    unsigned int size = kPoisonSize;
    EXPECT_NE(OsalThreadAttrGetStack(row.attr ? attr.get() : nullptr,
                                     row.addr ? &addr : nullptr,
                                     row.size ? &size : nullptr),
              VekError::kOk);
    EXPECT_EQ(addr, kPoisonHandle);
    EXPECT_EQ(size, kPoisonSize);
  }
  EXPECT_TRUE(HasStack(attr.get(), &word, 16384));
}

TEST(OsalThreadAttrSetStack, RefusesANullHandle) {
  uint32_t word = 0;
  EXPECT_NE(OsalThreadAttrSetStack(nullptr, nullptr, 0), VekError::kOk);
  EXPECT_NE(OsalThreadAttrSetStack(nullptr, nullptr, 8092), VekError::kOk);
  EXPECT_NE(OsalThreadAttrSetStack(nullptr, &word, 0), VekError::kOk);
  EXPECT_NE(OsalThreadAttrSetStack(nullptr, &word, 8092), VekError::kOk);
}

// Pages that fault on any access: recording them must not look at them.
class InaccessiblePages {
 public:
  InaccessiblePages() {
    bytes_ = 4 * static_cast<size_t>(sysconf(_SC_PAGESIZE));
    void* mapping =
        mmap(nullptr, bytes_, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (mapping != MAP_FAILED) base_ = mapping;
  }
  ~InaccessiblePages() {
    if (base_ != nullptr) munmap(base_, bytes_);
  }
  InaccessiblePages(const InaccessiblePages&) = delete;
  InaccessiblePages& operator=(const InaccessiblePages&) = delete;

  void* get() const { return base_; }
  unsigned int size() const { return static_cast<unsigned int>(bytes_); }

 private:
  size_t bytes_ = 0;
  void* base_ = nullptr;
};

TEST(OsalThreadAttrSetStack, RecordsEachStackExactlyWithoutTouchingIt) {
  InaccessiblePages pages;
  ASSERT_NE(pages.get(), nullptr);
  uint32_t word = 0;
  struct Row {
    void* addr;
    unsigned int size;
  };
  // Each replaces the one before; no thread ever runs on them.
  const Row rows[] = {
      {&word, 8092}, {pages.get(), pages.size()}, {&word, 16384}};
  Attr attr;
  for (const Row& row : rows) {
    SCOPED_TRACE(testing::Message() << row.addr << ", " << row.size);
    EXPECT_EQ(OsalThreadAttrSetStack(attr.get(), row.addr, row.size),
              VekError::kOk);
    EXPECT_TRUE(HasStack(attr.get(), row.addr, row.size));
  }
}

TEST(OsalThreadAttrSetStack, ClearsWithANullAddressAndSizeZero) {
  Attr attr;
  uint32_t word = 0;
  ASSERT_EQ(OsalThreadAttrSetStack(attr.get(), &word, 16384), VekError::kOk);
  EXPECT_EQ(OsalThreadAttrSetStack(attr.get(), nullptr, 0), VekError::kOk);
  EXPECT_TRUE(HasStack(attr.get(), nullptr, 0));
}

TEST(OsalThreadAttrSetStack, RefusesAnInconsistentPairAndKeepsTheStoredStack) {
  Attr attr;
  uint32_t word = 0;
  uint32_t other_word = 0;
  ASSERT_EQ(OsalThreadAttrSetStack(attr.get(), &word, 16384), VekError::kOk);
  EXPECT_NE(OsalThreadAttrSetStack(attr.get(), nullptr, 8092), VekError::kOk);
  EXPECT_TRUE(HasStack(attr.get(), &word, 16384));
  EXPECT_NE(OsalThreadAttrSetStack(attr.get(), &other_word, 0), VekError::kOk);
  EXPECT_TRUE(HasStack(attr.get(), &word, 16384));
}

TEST(OsalThreadAttrSetStackSize, RefusesANullHandle) {
  EXPECT_NE(OsalThreadAttrSetStackSize(nullptr, 16384), VekError::kOk);
}

TEST(OsalThreadAttrSetStackSize, AcceptsTheSizesTheSuitesSet) {
  // 1200 too, though no thread can be created with it.
  Attr attr;
  for (unsigned int size : {1200u, 16384u, 32768u, 65536u}) {
    EXPECT_EQ(OsalThreadAttrSetStackSize(attr.get(), size), VekError::kOk)
        << "size " << size;
  }
}

// Writes to `bytes` of the calling thread's stack from the top down, so
// that a smaller stack runs into its guard page before anything else.
void UseStack(size_t bytes) {
  auto* block = static_cast<volatile char*>(alloca(bytes));
  for (size_t end = bytes; end >= 256; end -= 256) block[end - 1] = 1;
}

TEST(OsalThreadAttrSetStackSize, GivesTheThreadAtLeastTheRoomAskedFor) {
  Attr attr;
  ASSERT_EQ(OsalThreadAttrSetName(attr.get(), "roomy"), VekError::kOk);
  for (unsigned int size : {65536u, 1u << 20}) {
    ASSERT_EQ(OsalThreadAttrSetStackSize(attr.get(), size), VekError::kOk);
    // Three quarters: the rest is for the C library's own use of the
    // stack and the thread's first frames.
    EXPECT_EQ(RunToEnd(attr.get(), [size] { UseStack(size / 4 * 3); }),
              VekError::kOk)
        << "size " << size;
  }
}

}  // namespace
}  // namespace zov_vek_contract
