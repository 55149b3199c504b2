// The ring queue for a record, a string and a number type. Each element
// type brings a parameter set that says how to make a sequence of distinct
// values and how to compare two, so one set of cases serves all three.
#include <gtest/gtest.h>

#include <cstdint>
#include <cstdlib>
#include <deque>
#include <functional>
#include <string>
#include <tuple>

#include "osal/vek_error.h"
#include "utils/vek_queue.h"

namespace zov_vek_unit_test {

using zov_vek::Queue;
using zov_vek::VekError;

struct TestType {
  uint32_t number;
  bool flag;
  char letter;
};

template <typename T>
struct QueueTestObject {
  T default_object;
  T prime_object;
  T increment_object;
  unsigned int queue_size;
  std::deque<T> input_queue;
  std::function<T(T, T)> queue_allocator;
  std::function<bool(T, T)> comparator;
};

// The record's step takes its flag from the increment alone, inverted: with
// the increment's flag set, every generated record has its flag clear.
TestType AllocateTestType(TestType a, TestType b) {
  TestType next;
  next.number = a.number + b.number;
  next.flag = !b.flag;
  next.letter = static_cast<char>(static_cast<uint8_t>(a.letter) +
                                  static_cast<uint8_t>(b.letter));
  return next;
}

bool CompareTestType(TestType a, TestType b) {
  return a.number == b.number && a.flag == b.flag && a.letter == b.letter;
}

const std::tuple<QueueTestObject<unsigned int>, QueueTestObject<std::string>,
                 QueueTestObject<TestType>>
    kQueueTestObjects{
        QueueTestObject<unsigned int>{
            0u,
            11u,
            5u,
            256u,
            {},
            [](unsigned int a, unsigned int b) { return a + b; },
            [](unsigned int a, unsigned int b) { return a == b; }},
        QueueTestObject<std::string>{
            std::string(),
            "aa",
            "zq",
            32u,
            {},
            [](std::string a, std::string b) { return a + b; },
            [](std::string a, std::string b) { return a == b; }},
        QueueTestObject<TestType>{TestType{0, true, 'a'},
                                  TestType{11, false, 'e'},
                                  TestType{5, true, 'b'},
                                  64u,
                                  {},
                                  AllocateTestType,
                                  CompareTestType},
    };

template <typename T>
class QueueTestFixture : public testing::Test {
 protected:
  QueueTestFixture()
      : params_(std::get<QueueTestObject<T>>(kQueueTestObjects)),
        queue_(params_.queue_size, params_.default_object) {}

  void SetUp() override {
    EXPECT_EQ(queue_.Capacity(), params_.queue_size);
    PopulateInputQueue(params_.queue_size);
  }

  // Appends `count` values to the input, starting again from the prime.
  void PopulateInputQueue(unsigned int count) {
    T current = params_.prime_object;
    for (unsigned int i = 0; i < count; ++i) {
      params_.input_queue.push_back(current);
      current = params_.queue_allocator(current, params_.increment_object);
    }
  }

  QueueTestObject<T> params_;
  Queue<T> queue_;
};

TYPED_TEST_SUITE_P(QueueTestFixture);

// A check prints its source text on failure, line breaks folded to spaces.
// The clang-format regions below keep every element check broken after
// "comparator(", so the same check reads the same in every case.

// Fill and drain, each pass one element shorter than the last, so the
// passes start at different slots.
TYPED_TEST_P(QueueTestFixture, EnqueueDequeueTest) {
  for (unsigned int r = 0; r < this->params_.queue_size; ++r) {
    for (auto it = this->params_.input_queue.begin();
         it != this->params_.input_queue.end(); ++it) {
      EXPECT_EQ(this->queue_.Enqueue(*it), VekError::kOk);
    }
    EXPECT_EQ(this->queue_.Size(), this->params_.input_queue.size());
    while (!this->params_.input_queue.empty()) {
      // clang-format off
      EXPECT_TRUE(this->params_.comparator(
          this->queue_.Front(), this->params_.input_queue.front()));
      EXPECT_TRUE(this->params_.comparator(
          this->queue_.Dequeue(), this->params_.input_queue.front()));
      // clang-format on
      this->params_.input_queue.pop_front();
    }
    EXPECT_TRUE(this->queue_.Empty());
    this->PopulateInputQueue(this->params_.queue_size - r);
  }
  this->params_.input_queue.clear();
}

// Every pass enqueues more than it removes, removals alternating between
// Dequeue and Pop; the queue never fills.
TYPED_TEST_P(QueueTestFixture, InterleavedEnqueueDequeueTest) {
  this->params_.input_queue.clear();
  bool dequeue = true;
  if (this->params_.queue_size >= 5) {
    const unsigned int passes = this->params_.queue_size / 5;
    for (unsigned int pass = 0; pass < passes; ++pass) {
      unsigned int enqueue_count = static_cast<unsigned int>(rand() % 5);
      unsigned int remove_count = static_cast<unsigned int>(rand() % 3);
      if (enqueue_count == 0 || remove_count == 0 ||
          enqueue_count <= remove_count) {
        enqueue_count = 5;
        remove_count = 3;
      }
      this->PopulateInputQueue(enqueue_count);
      for (unsigned int i = enqueue_count; i >= 1; --i) {
        const TypeParam& element =
            this->params_.input_queue[this->params_.input_queue.size() - i];
        EXPECT_EQ(this->queue_.Enqueue(element), VekError::kOk);
      }
      // clang-format off
      EXPECT_TRUE(this->params_.comparator(
          this->queue_.Back(), this->params_.input_queue.back()));
      // clang-format on
      EXPECT_EQ(this->queue_.Size(), this->params_.input_queue.size());
      for (unsigned int i = 0; i < remove_count; ++i) {
        EXPECT_TRUE(this->params_.comparator(
            this->queue_.Front(), this->params_.input_queue.front()));
        if (dequeue) {
          EXPECT_TRUE(this->params_.comparator(
              this->queue_.Dequeue(), this->params_.input_queue.front()));
        } else {
          this->queue_.Pop();
        }
        this->params_.input_queue.pop_front();
        dequeue = !dequeue;
      }
    }
  }
  while (!this->params_.input_queue.empty()) {
    EXPECT_EQ(this->queue_.Size(), this->params_.input_queue.size());
    // clang-format off
    EXPECT_TRUE(this->params_.comparator(
        this->queue_.Front(), this->params_.input_queue.front()));
    // clang-format on
    if (dequeue) {
      // clang-format off
      EXPECT_TRUE(this->params_.comparator(
          this->queue_.Dequeue(), this->params_.input_queue.front()));
      // clang-format on
    } else {
      this->queue_.Pop();
    }
    this->params_.input_queue.pop_front();
    dequeue = !dequeue;
  }
  EXPECT_TRUE(this->queue_.Empty());
}

// Draining with Pop moves the head one slot further each pass, so the
// indexed reads cross the end of the slot array.
TYPED_TEST_P(QueueTestFixture, IndexOperatorTest) {
  for (unsigned int r = 0; r < this->params_.queue_size; ++r) {
    for (auto it = this->params_.input_queue.begin();
         it != this->params_.input_queue.end(); ++it) {
      EXPECT_EQ(this->queue_.Enqueue(*it), VekError::kOk);
    }
    size_t i = 0;
    for (; i < this->params_.input_queue.size(); ++i) {
      EXPECT_TRUE(this->params_.comparator(this->queue_[i],
                                           this->params_.input_queue[i]));
    }
    EXPECT_EQ(i, this->queue_.Size());
    this->params_.input_queue.clear();
    EXPECT_TRUE(this->params_.input_queue.empty());
    while (!this->queue_.Empty()) {
      this->queue_.Pop();
    }
    this->PopulateInputQueue(this->params_.queue_size - r);
  }
  this->params_.input_queue.clear();
}

// A full queue refuses the next element; an empty one hands back the
// default object. Both write their error lines.
TYPED_TEST_P(QueueTestFixture, OverflowUnderflowTest) {
  for (auto it = this->params_.input_queue.begin();
       it != this->params_.input_queue.end(); ++it) {
    EXPECT_EQ(this->queue_.Enqueue(*it), VekError::kOk);
  }
  EXPECT_NE(this->queue_.Enqueue(this->params_.prime_object), VekError::kOk);

  this->params_.input_queue.clear();
  EXPECT_TRUE(this->params_.input_queue.empty());
  while (!this->queue_.Empty()) {
    this->queue_.Pop();
  }

  EXPECT_TRUE(this->params_.comparator(this->params_.default_object,
                                       this->queue_.Dequeue()));
  EXPECT_TRUE(this->params_.comparator(this->params_.default_object,
                                       this->queue_.Front()));
  EXPECT_TRUE(this->params_.comparator(this->params_.default_object,
                                       this->queue_.Back()));
  EXPECT_EQ(this->queue_.Size(), 0u);
  EXPECT_EQ(this->queue_.Capacity(), this->params_.queue_size);

  const TypeParam next = this->params_.queue_allocator(
      this->params_.prime_object, this->params_.increment_object);
  EXPECT_EQ(this->queue_.Enqueue(next), VekError::kOk);
  EXPECT_TRUE(this->params_.comparator(this->queue_.Dequeue(), next));
  EXPECT_TRUE(this->queue_.Empty());
}

REGISTER_TYPED_TEST_SUITE_P(QueueTestFixture, EnqueueDequeueTest,
                            InterleavedEnqueueDequeueTest, IndexOperatorTest,
                            OverflowUnderflowTest);

using QueueElementTypes = testing::Types<TestType, std::string, unsigned int>;
INSTANTIATE_TYPED_TEST_SUITE_P(QueueTests, QueueTestFixture, QueueElementTypes);

}  // namespace zov_vek_unit_test
