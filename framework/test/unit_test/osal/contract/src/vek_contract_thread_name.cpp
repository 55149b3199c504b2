// Thread names: an attribute keeps its own copy of a name of up to 15
// characters and reads it back whole, never past the sixteenth byte of the
// caller's buffer; the operating system carries the name from the thread
// function's first statement on, and OsalThreadGetName reads it from there,
// from any thread.
#include <sys/prctl.h>

#include <algorithm>
#include <atomic>
#include <cstring>
#include <string>

#include "vek_contract.h"
#include "vek_contract_thread.h"

namespace zov_vek_contract {
namespace {

using zov_vek::kOsalThreadNameLengthMax;
using zov_vek::OsalThreadAttrGetName;
using zov_vek::OsalThreadAttrSetName;
using zov_vek::OsalThreadGetName;

constexpr char kFifteen[] = "abcdefghijklmno";
static_assert(sizeof(kFifteen) == kOsalThreadNameLengthMax, "a full name");
// The shortest name, a usual one and the longest.
constexpr const char* kNames[] = {"a", "threadA", kFifteen};

// A buffer twice a name's size, poisoned, so that any byte written shows.
struct Buffer {
  char bytes[2 * kOsalThreadNameLengthMax];
  Buffer() { std::memset(bytes, kPoisonChar, sizeof(bytes)); }
  // The index of the first byte at or past `from` that was written, or -1.
  int WrittenFrom(size_t from) const {
    for (size_t i = from; i < sizeof(bytes); ++i) {
      if (bytes[i] != kPoisonChar) return static_cast<int>(i);
    }
    return -1;
  }
  // Whether it holds exactly `name` and its NUL.
  bool Holds(const char* name) const {
    return std::memchr(bytes, '\0', sizeof(bytes)) != nullptr &&
           std::strcmp(bytes, name) == 0;
  }
};

// Asks `get(buf, len)` for `name` with every length from 0 to 40. Whether
// a length is refused is left to the port, except where the cases say
// otherwise; but an answer is the whole name or a refusal, and no answer
// writes at or past the length given, or past byte `cap`.
template <typename Get>
void ExpectWholeNameOrRefusal(const char* name, unsigned int cap, Get get) {
  for (unsigned int len = 0; len <= 40; ++len) {
    SCOPED_TRACE(testing::Message() << "len " << len);
    Buffer buf;
    const VekError err = get(buf.bytes, len);
    if (err == VekError::kOk) {
      EXPECT_TRUE(buf.Holds(name));
    }
    EXPECT_EQ(buf.WrittenFrom(std::min(len, cap)), -1);
  }
}

TEST(OsalThreadAttrSetName, RefusesANullHandle) {
  EXPECT_NE(OsalThreadAttrSetName(nullptr, "threadA"), VekError::kOk);
}

TEST(OsalThreadAttrSetName, RefusesANullOrEmptyNameWithKErrParamKeepingTheOld) {
  Attr attr;
  ASSERT_EQ(OsalThreadAttrSetName(attr.get(), "kept"), VekError::kOk);
  for (const char* refused : {static_cast<const char*>(nullptr), ""}) {
    EXPECT_EQ(OsalThreadAttrSetName(attr.get(), refused), VekError::kErrParam);
    EXPECT_TRUE(HasName(attr.get(), "kept"));
  }
}

TEST(OsalThreadAttrSetName, ReplacesTheNameAndKeepsFifteenCharactersWhole) {
  Attr attr;
  // Longest first, so that a shorter name must not keep its tail.
  for (const char* name : {kFifteen, "a", "threadA", kFifteen}) {
    EXPECT_EQ(OsalThreadAttrSetName(attr.get(), name), VekError::kOk);
    EXPECT_TRUE(HasName(attr.get(), name));
  }
}

TEST(OsalThreadAttrSetName, StoresACopyOfTheCallersString) {
  Attr attr;
  char name[] = "original";
  ASSERT_EQ(OsalThreadAttrSetName(attr.get(), name), VekError::kOk);
  std::strcpy(name, "changed");
  EXPECT_TRUE(HasName(attr.get(), "original"));
}

TEST(OsalThreadAttrGetName, RefusesNullArgumentsAndWritesNothing) {
  Attr attr;
  ASSERT_EQ(OsalThreadAttrSetName(attr.get(), "threadA"), VekError::kOk);
  Buffer buf;
  EXPECT_NE(OsalThreadAttrGetName(nullptr, buf.bytes, kOsalThreadNameLengthMax),
            VekError::kOk);
  EXPECT_EQ(buf.WrittenFrom(0), -1);
  EXPECT_NE(
      OsalThreadAttrGetName(attr.get(), nullptr, kOsalThreadNameLengthMax),
      VekError::kOk);
  EXPECT_TRUE(HasName(attr.get(), "threadA"));
}

TEST(OsalThreadAttrGetName, RefusesLengths1And26WithKErrOutOfRange) {
  Attr attr;
  ASSERT_EQ(OsalThreadAttrSetName(attr.get(), kFifteen), VekError::kOk);
  for (unsigned int len : {1u, kOsalThreadNameLengthMax + 10}) {
    Buffer buf;
    EXPECT_EQ(OsalThreadAttrGetName(attr.get(), buf.bytes, len),
              VekError::kErrOutOfRange)
        << "len " << len;
    EXPECT_EQ(buf.WrittenFrom(std::min(len, kOsalThreadNameLengthMax)), -1)
        << "len " << len;
  }
  EXPECT_TRUE(HasName(attr.get(), kFifteen));
}

TEST(OsalThreadAttrGetName,
     GivesTheWholeNameOrNothingAndNoBytePastTheSixteenth) {
  for (const char* name : kNames) {
    SCOPED_TRACE(name);
    Attr attr;
    ASSERT_EQ(OsalThreadAttrSetName(attr.get(), name), VekError::kOk);
    ExpectWholeNameOrRefusal(
        name, kOsalThreadNameLengthMax, [&](char* buf, unsigned int len) {
          return OsalThreadAttrGetName(attr.get(), buf, len);
        });
  }
}

// The cases below look at named threads. Caller stacks and library stacks
// alike: a port might name only one kind.
struct StackKind {
  const char* what;
  bool caller;
};
constexpr StackKind kStackKinds[] = {{"caller stack", true},
                                     {"library stack", false}};

TEST(OsalThreadCreate, NamesTheThreadBeforeItsFunctionRuns) {
  for (const StackKind& kind : kStackKinds) {
    for (const char* name : kNames) {
      SCOPED_TRACE(testing::Message() << kind.what << ", " << name);
      NamedAttr attr(name, kind.caller);
      std::string first_seen;
      ASSERT_EQ(RunToEnd(attr.get(), [&] { first_seen = OsThreadName(); }),
                VekError::kOk);
      EXPECT_EQ(first_seen, name);
    }
  }
}

// The operating system's name of a live thread, through the library.
std::string NameOf(void* thread) {
  Buffer buf;
  const VekError err =
      OsalThreadGetName(thread, buf.bytes, kOsalThreadNameLengthMax);
  if (err != VekError::kOk) return "<refused>";
  if (buf.WrittenFrom(kOsalThreadNameLengthMax) != -1) return "<overrun>";
  return std::string(buf.bytes, strnlen(buf.bytes, kOsalThreadNameLengthMax));
}

TEST(OsalThreadCreate, NamesLaterThreadsOnlyWhenTheAttributeIsRenamed) {
  Attr attr("before");
  LiveThread before(attr.get());
  ASSERT_EQ(before.created(), VekError::kOk);
  ASSERT_EQ(OsalThreadAttrSetName(attr.get(), "after"), VekError::kOk);
  LiveThread after(attr.get());
  ASSERT_EQ(after.created(), VekError::kOk);
  EXPECT_EQ(NameOf(before.handle()), "before");
  EXPECT_EQ(NameOf(after.handle()), "after");
}

TEST(OsalThreadGetName, RefusesNullArgumentsAndWritesNothing) {
  Buffer buf;
  EXPECT_NE(OsalThreadGetName(nullptr, buf.bytes, kOsalThreadNameLengthMax),
            VekError::kOk);
  EXPECT_EQ(buf.WrittenFrom(0), -1);
  Attr attr("null_buffer");
  LiveThread thread(attr.get());
  ASSERT_EQ(thread.created(), VekError::kOk);
  EXPECT_NE(
      OsalThreadGetName(thread.handle(), nullptr, kOsalThreadNameLengthMax),
      VekError::kOk);
  EXPECT_EQ(NameOf(thread.handle()), "null_buffer");
}

TEST(OsalThreadGetName, ReadsTheThreadBehindTheHandleFromItAndFromOthers) {
  for (const StackKind& kind : kStackKinds) {
    for (const char* name : kNames) {
      SCOPED_TRACE(testing::Message() << kind.what << ", " << name);
      NamedAttr attr(name, kind.caller);
      std::atomic<void*> own{nullptr};
      std::string from_itself;
      LiveThread thread(attr.get(), [&] {
        WaitFor([&] { return own.load() != nullptr; });
        from_itself = NameOf(own.load());
      });
      ASSERT_EQ(thread.created(), VekError::kOk);
      own = thread.handle();
      EXPECT_EQ(NameOf(thread.handle()), name);
      ASSERT_TRUE(thread.AwaitBody());
      EXPECT_EQ(from_itself, name);
    }
  }
}

TEST(OsalThreadGetName, AnswersTheMomentCreateReturns) {
  // No hand-shake: the thread may not have run at all yet.
  Attr attr("at_once");
  for (int round = 0; round < 5; ++round) {
    LiveThread thread(attr.get());
    ASSERT_EQ(thread.created(), VekError::kOk);
    EXPECT_EQ(NameOf(thread.handle()), "at_once") << "round " << round;
  }
}

TEST(OsalThreadGetName, FollowsTheOperatingSystem) {
  Attr attr("given");
  LiveThread thread(attr.get(), [] { prctl(PR_SET_NAME, "renamed", 0, 0, 0); });
  ASSERT_EQ(thread.created(), VekError::kOk);
  ASSERT_TRUE(thread.AwaitBody());
  EXPECT_EQ(NameOf(thread.handle()), "renamed");
}

TEST(OsalThreadGetName, GivesTheWholeNameOrNothingAndNoBytePastTheLength) {
  Attr attr("threadA");
  LiveThread thread(attr.get());
  ASSERT_EQ(thread.created(), VekError::kOk);
  ExpectWholeNameOrRefusal("threadA", ~0u, [&](char* buf, unsigned int len) {
    return OsalThreadGetName(thread.handle(), buf, len);
  });
}

}  // namespace
}  // namespace zov_vek_contract
