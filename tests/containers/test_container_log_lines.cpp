// The exact lines the containers write: priority, tag and text of each
// misuse, that valid operations write nothing, and that the kOsal mask
// alone decides whether a line is written while the outcome stays the
// same. The last case runs the conformance queue suite and reads what host
// liblog printed on its stderr.
#include <gtest/gtest.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <limits>
#include <map>
#include <new>
#include <regex>
#include <string>
#include <vector>

#include "container_test_util.h"
#include "osal/vek_error.h"
#include "utils/vek_queue.h"
#include "utils/vek_vector_map.h"

namespace vek_test {
namespace {

using zov_vek::Logger;
using zov_vek::Queue;
using zov_vek::VectorMap;
using zov_vek::VekError;

using ContainerLogTest = OsalErrorLogTest;

TEST_F(ContainerLogTest, EachQueueMisuseWritesItsOneLine) {
  Queue<unsigned int> queue(2, 99u);

  EXPECT_EQ(99u, queue.Dequeue());
  queue.Pop();
  EXPECT_EQ(99u, queue.Front());
  EXPECT_EQ(99u, queue.Back());
  EXPECT_EQ(99u, queue[0]);
  EXPECT_EQ(
      (std::vector<LogLine>{
          OsalError("Dequeue() Dequeue: queue underflow, occupied_count=0, "
                    "queue_size=2"),
          OsalError("Pop() Pop: queue underflow, occupied_count=0, "
                    "queue_size=2"),
          OsalError("Front() Front: queue is empty, occupied_count=0, "
                    "queue_size=2"),
          OsalError("Back() Back: queue is empty, occupied_count=0, "
                    "queue_size=2"),
          OsalError("operator[]() operator[]: attempting to access invalid "
                    "index=0, occupied_count=0, queue_size=2"),
      }),
      TakeLines());

  EXPECT_EQ(VekError::kOk, queue.Enqueue(5u));
  EXPECT_EQ(VekError::kOk, queue.Enqueue(6u));
  EXPECT_EQ(5u, queue.Front());
  EXPECT_EQ(6u, queue.Back());
  EXPECT_EQ(6u, queue[1]);
  EXPECT_TRUE(TakeLines().empty());

  EXPECT_EQ(VekError::kErrNoResource, queue.Enqueue(7u));
  EXPECT_EQ(99u, queue[2]);
  EXPECT_EQ(99u, queue[std::numeric_limits<size_t>::max()]);
  EXPECT_EQ(
      (std::vector<LogLine>{
          OsalError("Enqueue() Enqueue: queue overflow, occupied_count=2, "
                    "queue_size=2"),
          OsalError("operator[]() operator[]: attempting to access invalid "
                    "index=2, occupied_count=2, queue_size=2"),
          OsalError(StringPrintf(
              "operator[]() operator[]: attempting to access invalid "
              "index=%zu, occupied_count=2, queue_size=2",
              std::numeric_limits<size_t>::max())),
      }),
      TakeLines());

  // The refused element did not replace anything.
  EXPECT_EQ(2u, queue.Size());
  EXPECT_EQ(5u, queue.Dequeue());
  EXPECT_EQ(6u, queue.Dequeue());
  EXPECT_TRUE(TakeLines().empty());
}

TEST_F(ContainerLogTest, QueueOfSizeZeroRefusesEverything) {
  Queue<std::string> queue(0, "none");
  EXPECT_EQ(0u, queue.Capacity());
  EXPECT_TRUE(queue.Empty());
  EXPECT_EQ(VekError::kErrNoResource, queue.Enqueue("a"));
  EXPECT_EQ(VekError::kErrNoResource, queue.Enqueue("b"));
  EXPECT_EQ("none", queue.Dequeue());
  queue.Pop();
  EXPECT_EQ("none", queue.Front());
  EXPECT_EQ("none", queue.Back());
  EXPECT_EQ("none", queue[0]);
  const LogLine overflow = OsalError(
      "Enqueue() Enqueue: queue overflow, occupied_count=0, queue_size=0");
  EXPECT_EQ(
      (std::vector<LogLine>{
          overflow,
          overflow,
          OsalError("Dequeue() Dequeue: queue underflow, occupied_count=0, "
                    "queue_size=0"),
          OsalError(
              "Pop() Pop: queue underflow, occupied_count=0, queue_size=0"),
          OsalError("Front() Front: queue is empty, occupied_count=0, "
                    "queue_size=0"),
          OsalError(
              "Back() Back: queue is empty, occupied_count=0, queue_size=0"),
          OsalError("operator[]() operator[]: attempting to access invalid "
                    "index=0, occupied_count=0, queue_size=0"),
      }),
      TakeLines());
  EXPECT_EQ(0u, queue.Size());
}

// With the error bit clear the same misuse fails the same way, silently.
TEST_F(ContainerLogTest, ClearedErrorBitSilencesTheQueueOnly) {
  SetOsalMask(LevelBit(Logger::kWarning));
  Queue<unsigned int> queue(1, 42u);
  EXPECT_EQ(42u, queue.Dequeue());
  queue.Pop();
  EXPECT_EQ(42u, queue.Front());
  EXPECT_EQ(42u, queue.Back());
  EXPECT_EQ(42u, queue[3]);
  EXPECT_EQ(VekError::kOk, queue.Enqueue(1u));
  EXPECT_EQ(VekError::kErrNoResource, queue.Enqueue(2u));
  EXPECT_EQ(1u, queue.Size());
  EXPECT_EQ(1u, queue.Front());
  EXPECT_TRUE(TakeLines().empty());
}

struct Slot {
  uint32_t value;
};

TEST_F(ContainerLogTest, MapRemovalOfAnAbsentKeyWritesItsLine) {
  auto map = VectorMap<uint32_t, Slot>::Create(4);
  ASSERT_NE(nullptr, map);
  map->RemoveWithKey(3);
  ASSERT_EQ(VekError::kOk, map->Insert(3).first);
  map->RemoveWithKey(4);
  EXPECT_EQ(1u, map->Size());
  map->RemoveWithKey(3);
  EXPECT_EQ(0u, map->Size());
  map->RemoveWithKey(3);
  const LogLine line = OsalError(
      "RemoveWithKey() VectorMap failed to remove, failed to find key");
  EXPECT_EQ((std::vector<LogLine>{line, line, line}), TakeLines());
}

// A value type whose allocation can be refused, to make Create fail.
struct RefusedValue {
  static void* operator new(std::size_t size,
                            const std::nothrow_t& tag) noexcept {
    return refuse ? nullptr : ::operator new(size, tag);
  }
  static void operator delete(void* memory) noexcept {
    ::operator delete(memory);
  }
  static bool refuse;
  uint32_t value = 0;
};
bool RefusedValue::refuse = false;

TEST_F(ContainerLogTest, FailedMapCreateWritesItsLine) {
  RefusedValue::refuse = true;
  auto map = VectorMap<uint32_t, RefusedValue>::Create(4);
  RefusedValue::refuse = false;
  EXPECT_EQ(nullptr, map);
  EXPECT_EQ((std::vector<LogLine>{
                OsalError("Create() Failed to init vector map, err=4")}),
            TakeLines());

  // A map of no slots needs no value objects and is made.
  RefusedValue::refuse = true;
  map = VectorMap<uint32_t, RefusedValue>::Create(0);
  RefusedValue::refuse = false;
  EXPECT_NE(nullptr, map);
  EXPECT_TRUE(TakeLines().empty());
}

using ContainerInfoLogTest = OsalInfoLogTest;

// The doubling line is info level: written with the info bit only, and
// nothing else is written on the way.
TEST_F(ContainerInfoLogTest, MapGrowthWritesTheExpandLineAtInfoLevel) {
  auto map = VectorMap<uint32_t, Slot>::Create(16);
  ASSERT_NE(nullptr, map);
  for (uint32_t key = 0; key < 16; ++key) {
    ASSERT_EQ(VekError::kOk, map->Insert(key).first);
  }
  EXPECT_TRUE(map->IsFull());
  EXPECT_TRUE(TakeLines().empty());
  EXPECT_EQ(VekError::kErrExists, map->Insert(5).first);
  EXPECT_TRUE(TakeLines().empty());
  EXPECT_EQ(VekError::kOk, map->Insert(16).first);
  EXPECT_EQ((std::vector<LogLine>{OsalInfo(
                "expand() is called, old capacity=16, new capacity=32")}),
            TakeLines());
  EXPECT_EQ(32u, map->Capacity());

  SetOsalMask(LevelBit(Logger::kError));
  for (uint32_t key = 17; key < 33; ++key) {
    ASSERT_EQ(VekError::kOk, map->Insert(key).first);
  }
  EXPECT_EQ(64u, map->Capacity());
  EXPECT_TRUE(TakeLines().empty());
}

#ifdef VEK_UT_OSAL_COMMON_PATH

// One line of host liblog's stderr: "<tag> <priority letter> <date> <time>
// <pid> <tid> <text>".
struct StderrLine {
  std::string tag;
  char priority;
  std::string text;
};

std::vector<StderrLine> RunAndReadStderr(const std::string& arguments,
                                         int* status) {
  // On a cross build the test preset names the emulator that runs the
  // build's programs (VEK_TEST_EMULATOR); natively it is unset.
  const char* emulator = std::getenv("VEK_TEST_EMULATOR");
  const std::string command = std::string(emulator != nullptr ? emulator : "") +
                              " '" + VEK_UT_OSAL_COMMON_PATH + "' " +
                              arguments + " 2>&1 >/dev/null";
  std::vector<StderrLine> lines;
  FILE* pipe = popen(command.c_str(), "r");
  if (pipe == nullptr) {
    *status = -1;
    return lines;
  }
  static const std::regex kLine(
      R"(^(\S+) ([VDIWEF]) \d\d-\d\d \d\d:\d\d:\d\d\s+\d+\s+\d+ (.*)$)");
  std::string current;
  char buffer[512];
  while (fgets(buffer, sizeof(buffer), pipe) != nullptr) {
    current += buffer;
    if (current.empty() || current.back() != '\n') continue;
    current.pop_back();
    std::smatch match;
    if (std::regex_match(current, match, kLine)) {
      lines.push_back(StderrLine{match[1], match[2].str()[0], match[3]});
    } else {
      lines.push_back(StderrLine{"", '?', current});
    }
    current.clear();
  }
  *status = pclose(pipe);
  return lines;
}

// The conformance queue suite passes and writes, for each element type,
// exactly one overflow, one underflow and two empty-queue lines, at error
// priority under "vek-osal", and nothing else.
TEST(ConformanceQueueSuiteLog,
     WritesOneOverflowUnderflowAndTwoEmptyLinesPerType) {
  int status = 0;
  const std::vector<StderrLine> lines =
      RunAndReadStderr("--gtest_filter='QueueTests/*'", &status);
  EXPECT_EQ(0, status);

  std::map<std::string, int> counts;
  for (const StderrLine& line : lines) {
    EXPECT_EQ("vek-osal", line.tag) << line.text;
    EXPECT_EQ('E', line.priority) << line.text;
    ++counts[line.text];
  }
  std::map<std::string, int> expected;
  for (const unsigned int size : {64u, 32u, 256u}) {
    expected[StringPrintf(
        "Enqueue() Enqueue: queue overflow, "
        "occupied_count=%u, queue_size=%u",
        size, size)] = 1;
    expected[StringPrintf(
        "Dequeue() Dequeue: queue underflow, "
        "occupied_count=0, queue_size=%u",
        size)] = 1;
    expected[StringPrintf(
        "Front() Front: queue is empty, "
        "occupied_count=0, queue_size=%u",
        size)] = 1;
    expected[StringPrintf(
        "Back() Back: queue is empty, "
        "occupied_count=0, queue_size=%u",
        size)] = 1;
  }
  EXPECT_EQ(expected, counts);
}

#endif  // VEK_UT_OSAL_COMMON_PATH

}  // namespace
}  // namespace vek_test
