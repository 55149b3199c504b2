// Long random operation sequences against std::map: inserts (new and
// duplicate keys), removals by key and by slot, lookups, walks, and walks
// that remove as they go, across several doublings. Besides the results
// the model checks the value objects: each live key keeps the object its
// insert returned, across growth, and no two live keys share one.
#include <gtest/gtest.h>

#include <cstdint>
#include <iterator>
#include <map>
#include <memory>
#include <random>
#include <set>
#include <vector>

#include "container_test_util.h"
#include "osal/vek_error.h"
#include "utils/vek_vector_map.h"

namespace vek_test {
namespace {

using zov_vek::VectorMap;
using zov_vek::VekError;

struct Value {
  uint32_t key;
};

using Map = VectorMap<uint32_t, Value>;
constexpr uint32_t kAbsent = Map::kInvalidIndex;

class VectorMapModelTest : public OsalInfoLogTest {
 protected:
  void Start(uint32_t capacity) {
    map_ = Map::Create(capacity);
    ASSERT_NE(nullptr, map_);
    expected_capacity_ = capacity;
    model_.clear();
    TakeLines();
  }

  void Insert(uint32_t key) {
    const auto known = model_.find(key);
    std::vector<LogLine> expected;
    if (known == model_.end() && model_.size() == expected_capacity_) {
      const uint32_t grown =
          expected_capacity_ == 0 ? 1 : 2 * expected_capacity_;
      expected.push_back(OsalInfo(
          StringPrintf("expand() is called, old capacity=%u, new capacity=%u",
                       expected_capacity_, grown)));
      expected_capacity_ = grown;
    }
    const auto [err, value] = map_->Insert(key);
    ASSERT_EQ(expected, TakeLines()) << "insert " << key;
    if (known != model_.end()) {
      ASSERT_EQ(VekError::kErrExists, err) << "insert " << key;
      ASSERT_EQ(known->second, value) << "insert " << key;
      return;
    }
    ASSERT_EQ(VekError::kOk, err) << "insert " << key;
    ASSERT_NE(nullptr, value) << "insert " << key;
    for (const auto& entry : model_) {
      ASSERT_NE(entry.second, value)
          << "insert " << key << " got the object of " << entry.first;
    }
    value->key = key;
    model_[key] = value;
  }

  void RemoveWithKey(uint32_t key) {
    map_->RemoveWithKey(key);
    std::vector<LogLine> expected;
    if (model_.erase(key) == 0) {
      expected.push_back(OsalError(
          "RemoveWithKey() VectorMap failed to remove, failed to find key"));
    }
    ASSERT_EQ(expected, TakeLines()) << "remove " << key;
  }

  void RemoveWithIndex(uint32_t key) {
    const uint32_t slot = map_->FindWithIndex(key).first;
    ASSERT_NE(kAbsent, slot) << "remove by slot " << key;
    map_->RemoveWithIndex(slot);
    model_.erase(key);
    ASSERT_TRUE(TakeLines().empty()) << "remove by slot " << key;
  }

  void Lookup(uint32_t key) {
    const auto known = model_.find(key);
    const bool present = known != model_.end();
    ASSERT_EQ(present, map_->Contains(key)) << "lookup " << key;
    Value* const expected_value = present ? known->second : nullptr;
    ASSERT_EQ(expected_value, map_->Find(key)) << "lookup " << key;
    const auto [slot, value] = map_->FindWithIndex(key);
    ASSERT_EQ(expected_value, value) << "lookup " << key;
    if (!present) {
      ASSERT_EQ(kAbsent, slot) << "lookup " << key;
      return;
    }
    ASSERT_LT(slot, map_->Capacity()) << "lookup " << key;
    const auto element = map_->ElementAt(slot);
    ASSERT_EQ(key, element.first) << "lookup " << key;
    ASSERT_EQ(value, element.second) << "lookup " << key;
    ASSERT_EQ(key, value->key) << "lookup " << key;
  }

  // A plain walk visits every key once.
  void Walk() {
    std::set<uint32_t> visited;
    for (const auto key_value : *map_) {
      ASSERT_TRUE(visited.insert(key_value.first).second)
          << "key " << key_value.first << " visited twice";
      const auto known = model_.find(key_value.first);
      ASSERT_NE(model_.end(), known) << "walk met key " << key_value.first;
      ASSERT_EQ(known->second, key_value.second);
    }
    ASSERT_EQ(model_.size(), visited.size());
  }

  // A walk that removes the element it stands on, or some other key, as it
  // goes. Every key present at the start is met exactly once unless it was
  // removed before the walk reached it; a removed key is never met.
  void WalkRemoving(std::mt19937& rng, unsigned int remove_share) {
    const std::map<uint32_t, Value*> at_start = model_;
    std::set<uint32_t> visited;
    std::set<uint32_t> removed_ahead;
    for (auto it = map_->begin(); it != map_->end(); ++it) {
      const auto key_value = *it;
      const uint32_t key = key_value.first;
      ASSERT_NE(model_.end(), model_.find(key)) << "walk met removed " << key;
      ASSERT_TRUE(visited.insert(key).second) << "key " << key << " twice";
      const unsigned int roll = rng() % 100;
      if (roll < remove_share) {
        RemoveWithIndex(key);
      } else if (roll < remove_share + 15 && !model_.empty()) {
        auto other = model_.begin();
        std::advance(other, rng() % model_.size());
        const uint32_t other_key = other->first;
        if (visited.count(other_key) == 0) removed_ahead.insert(other_key);
        RemoveWithKey(other_key);
      }
      if (HasFatalFailure()) return;
    }
    for (const auto& entry : at_start) {
      const bool met = visited.count(entry.first) != 0;
      const bool skipped = removed_ahead.count(entry.first) != 0;
      ASSERT_NE(met, skipped)
          << "key " << entry.first << " met " << met
          << ", removed before the walk reached it " << skipped;
    }
  }

  void CheckShape() {
    ASSERT_EQ(model_.size(), map_->Size());
    ASSERT_EQ(expected_capacity_, map_->Capacity());
    ASSERT_EQ(model_.size() == expected_capacity_, map_->IsFull());
  }

  void RunModel(uint32_t capacity, uint32_t key_range, size_t steps,
                uint32_t stream) {
    std::mt19937 rng(stream);
    Start(capacity);
    if (HasFatalFailure()) return;
    bool filling = true;
    for (size_t step = 0; step < steps; ++step) {
      SCOPED_TRACE(testing::Message() << "step " << step);
      if (rng() % 64 == 0) filling = !filling;
      const uint32_t key = static_cast<uint32_t>(rng() % key_range);
      const unsigned int roll = rng() % 100;
      const unsigned int insert_share = filling ? 55 : 15;
      if (roll < insert_share) {
        Insert(key);
      } else if (roll < insert_share + 20) {
        RemoveWithKey(key);
      } else if (roll < insert_share + 25) {
        if (model_.count(key) != 0) RemoveWithIndex(key);
      } else if (roll < insert_share + 38) {
        Lookup(key);
      } else if (roll < insert_share + 40) {
        Walk();
      } else if (roll < insert_share + 42) {
        WalkRemoving(rng, rng() % 2 == 0 ? 100 : 30);
      } else {
        Lookup(key);
      }
      if (HasFatalFailure()) return;
      CheckShape();
      if (HasFatalFailure()) return;
    }
  }

  std::unique_ptr<Map> map_;
  std::map<uint32_t, Value*> model_;
  uint32_t expected_capacity_ = 0;
};

TEST_F(VectorMapModelTest, MatchesStdMapFromSmallStarts) {
  RunModel(1, 40, 30000, 11);
  if (HasFatalFailure()) return;
  RunModel(3, 24, 30000, 12);
  if (HasFatalFailure()) return;
  RunModel(16, 70, 30000, 13);
}

// Wide key ranges make the map grow through several doublings.
TEST_F(VectorMapModelTest, MatchesStdMapThroughManyDoublings) {
  RunModel(2, 600, 40000, 21);
}

// A map made without slots takes its first key by growing to one slot.
TEST_F(VectorMapModelTest, MatchesStdMapFromZeroSlots) {
  RunModel(0, 12, 20000, 31);
}

}  // namespace
}  // namespace vek_test
