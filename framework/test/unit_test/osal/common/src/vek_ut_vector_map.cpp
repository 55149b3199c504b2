// The vector map: fresh value objects on insert, one value object per key,
// growth by doubling from 16 slots, exact sizes after removals, and lookups
// that fail once a key is removed.
#include <gtest/gtest.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <unordered_set>
#include <vector>

#include "osal/vek_error.h"
#include "utils/vek_vector_map.h"

namespace zov_vek_test {

using zov_vek::VectorMap;
using zov_vek::VekError;

struct Dummy {
  uint32_t val;
};

constexpr uint32_t kCapacity = 16;

class BasicMapTest : public testing::Test {
 protected:
  void SetUp() override {
    map_ = VectorMap<uint32_t, Dummy>::Create(kCapacity);
    ASSERT_NE(map_, nullptr);
  }

  // Inserts the keys 0 to iterations - 1, runs `check` on the full set and
  // removes them all again. No value object may be handed out twice.
  void RunBasicTest(uint32_t iterations, std::function<void()> check) {
    for (uint32_t i = 0; i < iterations; ++i) {
      EXPECT_FALSE(map_->Contains(i));
      auto [err, p] = map_->Insert(i);
      EXPECT_NE(p, nullptr);
      EXPECT_EQ(err, VekError::kOk);
      if (p == nullptr) continue;
      p->val = i;
      EXPECT_TRUE(set_.find(p) == set_.end());
      auto ret_pair = set_.insert(p);
      EXPECT_TRUE(ret_pair.second);
    }

    check();

    for (uint32_t i = 0; i < iterations; ++i) {
      map_->RemoveWithKey(i);
      EXPECT_EQ(map_->Find(i), nullptr);
      EXPECT_EQ(map_->FindWithIndex(i).second, nullptr);
      EXPECT_FALSE(map_->Contains(i));
    }
  }

  // Refills the emptied map back to front; every key must find the value
  // object its insert returned.
  void AddElementsReverse(uint32_t count) {
    std::unordered_set<Dummy*> values;
    std::vector<Dummy*> inserted(count, nullptr);
    for (uint32_t i = count; i-- > 0;) {
      auto [err, p] = map_->Insert(i);
      EXPECT_NE(p, nullptr);
      EXPECT_EQ(err, VekError::kOk);
      EXPECT_TRUE(values.insert(p).second);
      inserted[i] = p;
    }
    for (uint32_t i = 0; i < count; ++i) {
      EXPECT_EQ(map_->FindWithIndex(i).second, inserted[i]);
    }
  }

  std::unique_ptr<VectorMap<uint32_t, Dummy>> map_;
  std::unordered_set<Dummy*> set_;
};

TEST_F(BasicMapTest, Basic) {
  RunBasicTest(16, [this]() { EXPECT_TRUE(map_->IsFull()); });
  AddElementsReverse(kCapacity);
}

// The 17th insert doubles the map to 32 slots.
TEST_F(BasicMapTest, BasicExpand) {
  RunBasicTest(26, [this]() { EXPECT_FALSE(map_->IsFull()); });
}

// Two doublings: 16 to 32 to 64.
TEST_F(BasicMapTest, BasicExpandLarge) {
  RunBasicTest(64, [this]() { EXPECT_TRUE(map_->IsFull()); });
  AddElementsReverse(kCapacity);
}

// A removed key's value object may come back for a new key; a surviving
// key's object never does.
TEST_F(BasicMapTest, InsertRemove) {
  std::unordered_set<Dummy*> set;
  for (uint32_t i = 0; i < kCapacity; ++i) {
    auto [err, p] = map_->Insert(i);
    EXPECT_EQ(err, VekError::kOk);
    ASSERT_NE(p, nullptr);
    p->val = i;
    if (i % 2 == 1) set.insert(p);
  }
  for (uint32_t i = 0; i < kCapacity; i += 2) {
    map_->RemoveWithKey(i);
    EXPECT_FALSE(map_->Contains(i));
  }
  EXPECT_EQ(map_->Size(), kCapacity / 2);

  for (uint32_t i = 0; i < kCapacity; i += 2) {
    const uint32_t val = i + 30;
    auto [err, p] = map_->Insert(val);
    EXPECT_EQ(err, VekError::kOk);
    ASSERT_NE(p, nullptr);
    p->val = val;
    EXPECT_TRUE(map_->Contains(val));
    EXPECT_EQ(set.find(p), set.end());
    set.insert(p);
  }

  for (uint32_t i = 0; i < kCapacity; ++i) {
    const uint32_t expected = i % 2 == 1 ? i : i + 30;
    Dummy* p = map_->Find(expected);
    EXPECT_NE(p, nullptr);
    EXPECT_NE(set.find(p), set.end());
    if (p != nullptr) {
      EXPECT_EQ(p->val, expected);
    }
  }
  EXPECT_EQ(map_->Size(), kCapacity);
  EXPECT_EQ(set.size(), kCapacity);
}

// Slot access by index. Keys equal their insertion order here, so the key
// 6 lives in slot 6.
TEST_F(BasicMapTest, LoopTest) {
  const uint32_t element_to_find = 6;
  bool is_found = false;
  RunBasicTest(16, [this, &is_found, element_to_find]() {
    auto element = map_->ElementAt(element_to_find);
    ASSERT_EQ(element.first, element_to_find);
    EXPECT_EQ(map_->FindWithIndex(element.first).first, element_to_find);
    EXPECT_EQ(map_->FindWithIndex(element.first).second, element.second);
    EXPECT_EQ(map_->Find(element_to_find), element.second);

    map_->RemoveWithIndex(element_to_find);
    is_found = map_->Contains(element_to_find);
    EXPECT_FALSE(is_found);

    auto [err2, p2] = map_->Insert(element_to_find);
    EXPECT_EQ(err2, VekError::kOk);
    EXPECT_EQ(p2, element.second);
    is_found = map_->Contains(element_to_find);
    EXPECT_TRUE(is_found);
  });
  is_found = map_->Contains(element_to_find);
  EXPECT_FALSE(is_found);
}

// Iteration, then removal of every element by its slot while walking.
TEST_F(BasicMapTest, LoopRemoveTest) {
  RunBasicTest(16, [this]() {
    uint32_t iterations = 0;
    for (auto it = map_->begin(); it != map_->end(); ++it) {
      const auto key_val = *it;
      ++iterations;
      EXPECT_TRUE(map_->Contains(key_val.first));
      Dummy* val = map_->Find(key_val.first);
      EXPECT_EQ(key_val.second, val);
      EXPECT_NE(set_.find(key_val.second), set_.end());
    }
    EXPECT_EQ(set_.size(), map_->Size());
    EXPECT_EQ(iterations, map_->Size());

    // Each removal re-seats the head on the next element; the walk goes on
    // from there until the map is empty.
    iterations = 0;
    for (auto it = map_->begin(); it != map_->end(); ++it) {
      const auto key_val = *it;
      ++iterations;
      EXPECT_NE(set_.find(key_val.second), set_.end());
      map_->RemoveWithIndex(map_->FindWithIndex(key_val.first).first);
    }
    EXPECT_EQ(iterations, set_.size());
    EXPECT_EQ(map_->Size(), 0u);

    auto [err, p] = map_->Insert(0);
    EXPECT_EQ(err, VekError::kOk);
    EXPECT_NE(p, nullptr);
  });
}

}  // namespace zov_vek_test
