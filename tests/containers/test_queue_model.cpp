// Long random operation sequences against std::deque. Every result, every
// fall-back value and every log line (exactly one per misuse, none
// otherwise) must match what the deque says the queue should do.
#include <gtest/gtest.h>

#include <cstddef>
#include <cstdint>
#include <deque>
#include <limits>
#include <ostream>
#include <random>
#include <string>
#include <vector>

#include "container_test_util.h"
#include "osal/vek_error.h"
#include "utils/vek_queue.h"

namespace vek_test {
namespace {

using zov_vek::Queue;
using zov_vek::VekError;

struct Record {
  uint32_t number;
  bool flag;
  char letter;

  bool operator==(const Record& other) const {
    return number == other.number && flag == other.flag &&
           letter == other.letter;
  }
};

void PrintTo(const Record& record, std::ostream* os) {
  *os << "{" << record.number << ", " << record.flag << ", '" << record.letter
      << "'}";
}

// How to make the default object and random elements of each type.
template <typename T>
struct Values;

template <>
struct Values<unsigned int> {
  static unsigned int Default() { return 0xdeadu; }
  static unsigned int Make(std::mt19937& rng) {
    return static_cast<unsigned int>(rng());
  }
};

template <>
struct Values<std::string> {
  static std::string Default() { return "<default>"; }
  // Lengths on both sides of the short-string buffer, so slots alternate
  // between inline and heap storage.
  static std::string Make(std::mt19937& rng) {
    std::string text(rng() % 40, ' ');
    for (char& c : text) c = static_cast<char>('a' + rng() % 26);
    return text;
  }
};

template <>
struct Values<Record> {
  static Record Default() { return Record{0, true, 'a'}; }
  static Record Make(std::mt19937& rng) {
    return Record{static_cast<uint32_t>(rng()), rng() % 2 == 0,
                  static_cast<char>(rng())};
  }
};

template <typename T>
class QueueModelTest : public OsalErrorLogTest {
 protected:
  // Runs `steps` random operations on a queue of `capacity` slots. Phases
  // of mostly enqueues and mostly removals take the queue to full and to
  // empty again and again, across many wrap-arounds.
  void RunModel(uint32_t capacity, size_t steps, uint32_t stream) {
    std::mt19937 rng(stream);
    const T fallback = Values<T>::Default();
    Queue<T> queue(capacity, fallback);
    std::deque<T> model;
    bool filling = true;
    TakeLines();

    for (size_t step = 0; step < steps; ++step) {
      if (rng() % 48 == 0) filling = !filling;
      const unsigned int roll = rng() % 100;
      const unsigned int enqueue_share = filling ? 60 : 20;
      std::vector<LogLine> expected;

      if (roll < enqueue_share) {
        const T element = Values<T>::Make(rng);
        const VekError err = queue.Enqueue(element);
        if (model.size() < capacity) {
          ASSERT_EQ(VekError::kOk, err) << "step " << step;
          model.push_back(element);
        } else {
          ASSERT_EQ(VekError::kErrNoResource, err) << "step " << step;
          expected.push_back(OsalError(StringPrintf(
              "Enqueue() Enqueue: queue overflow, occupied_count=%zu, "
              "queue_size=%u",
              model.size(), capacity)));
        }
      } else if (roll < enqueue_share + 20) {
        const T element = queue.Dequeue();
        if (model.empty()) {
          ASSERT_EQ(fallback, element) << "step " << step;
          expected.push_back(OsalError(StringPrintf(
              "Dequeue() Dequeue: queue underflow, occupied_count=0, "
              "queue_size=%u",
              capacity)));
        } else {
          ASSERT_EQ(model.front(), element) << "step " << step;
          model.pop_front();
        }
      } else if (roll < enqueue_share + 27) {
        queue.Pop();
        if (model.empty()) {
          expected.push_back(OsalError(StringPrintf(
              "Pop() Pop: queue underflow, occupied_count=0, queue_size=%u",
              capacity)));
        } else {
          model.pop_front();
        }
      } else if (roll < enqueue_share + 32) {
        const T& front = queue.Front();
        ASSERT_EQ(model.empty() ? fallback : model.front(), front)
            << "step " << step;
        if (model.empty()) {
          expected.push_back(OsalError(
              StringPrintf("Front() Front: queue is empty, occupied_count=0, "
                           "queue_size=%u",
                           capacity)));
        }
      } else if (roll < enqueue_share + 37) {
        const T& back = queue.Back();
        ASSERT_EQ(model.empty() ? fallback : model.back(), back)
            << "step " << step;
        if (model.empty()) {
          expected.push_back(OsalError(StringPrintf(
              "Back() Back: queue is empty, occupied_count=0, queue_size=%u",
              capacity)));
        }
      } else {
        // Mostly valid indices, some just past the end, a few far off.
        size_t index = rng() % (model.size() + 3);
        if (rng() % 16 == 0) index = std::numeric_limits<size_t>::max();
        const T& element = queue[index];
        if (index < model.size()) {
          ASSERT_EQ(model[index], element) << "step " << step;
        } else {
          ASSERT_EQ(fallback, element) << "step " << step;
          expected.push_back(OsalError(StringPrintf(
              "operator[]() operator[]: attempting to access invalid "
              "index=%zu, occupied_count=%zu, queue_size=%u",
              index, model.size(), capacity)));
        }
      }

      ASSERT_EQ(expected, TakeLines()) << "step " << step;
      ASSERT_EQ(model.size(), queue.Size()) << "step " << step;
      ASSERT_EQ(model.empty(), queue.Empty()) << "step " << step;
      ASSERT_EQ(capacity, queue.Capacity()) << "step " << step;

      // Now and then the whole content, oldest first.
      if (step % 101 == 0) {
        for (size_t i = 0; i < model.size(); ++i) {
          ASSERT_EQ(model[i], queue[i]) << "step " << step << " index " << i;
        }
        if (!model.empty()) {
          ASSERT_EQ(model.front(), queue.Front()) << "step " << step;
          ASSERT_EQ(model.back(), queue.Back()) << "step " << step;
        }
        ASSERT_TRUE(TakeLines().empty()) << "step " << step;
      }
    }
  }
};

using ElementTypes = testing::Types<Record, std::string, unsigned int>;
TYPED_TEST_SUITE(QueueModelTest, ElementTypes);

// Small capacities wrap often and hit the full and empty edges constantly;
// 0 is full and empty at once; 64 and 255 take longer runs between edges.
TYPED_TEST(QueueModelTest, MatchesDequeAcrossCapacities) {
  const uint32_t capacities[] = {0, 1, 2, 3, 5, 16, 64, 255};
  uint32_t stream = 1;
  for (const uint32_t capacity : capacities) {
    SCOPED_TRACE(testing::Message() << "capacity " << capacity);
    this->RunModel(capacity, 20000, stream++);
    if (this->HasFatalFailure()) return;
  }
}

}  // namespace
}  // namespace vek_test
