// What the container models (tests/fuzz) cannot see: object lifetimes and
// heap use. Tracked elements record their birth and death by address, so
// a leak, a double destruction or a use of a dead object shows up as a
// count or a fault in any build; the replaced allocation functions count
// the heap use after construction and make value objects run short.
#include <android/log.h>
#include <gtest/gtest.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <random>
#include <set>
#include <string>
#include <unordered_set>
#include <vector>

#include "logging/vek_logger.h"
#include "osal/vek_error.h"
#include "utils/vek_object_pool.h"
#include "utils/vek_queue.h"
#include "utils/vek_vector_map.h"
#include "vek_alloc_counter.h"
#include "vek_log_capture.h"

namespace vek_test {
namespace {

using zov_vek::Logger;
using zov_vek::ObjectPool;
using zov_vek::PredefinedGroup;
using zov_vek::Queue;
using zov_vek::VectorMap;
using zov_vek::VekError;

// Addresses of the tracked objects alive now, and what went wrong.
class Tracker {
 public:
  static void Born(const void* object) {
    if (!Live().insert(object).second) Fault("built over a live object");
  }
  static void Died(const void* object) {
    if (Live().erase(object) == 0) Fault("destroyed while not alive");
  }
  static void Used(const void* object) {
    if (Live().count(object) == 0) Fault("used while not alive");
  }
  static size_t LiveCount() { return Live().size(); }
  static std::vector<std::string>& Faults() {
    static std::vector<std::string> faults;
    return faults;
  }

 private:
  static void Fault(const char* what) { Faults().push_back(what); }
  static std::set<const void*>& Live() {
    static std::set<const void*> live;
    return live;
  }
};

LogLine OsalError(const std::string& text) {
  return LogLine{ANDROID_LOG_ERROR, "vek-osal", text};
}

// Captures liblog with the kOsal group at error level for the case, and
// demands that no tracked object outlived it or was misused.
class ContainerTest : public testing::Test {
 protected:
  void SetUp() override {
    saved_mask_ = Logger::GetLogger().GetLogLevelMask(PredefinedGroup::kOsal);
    SetOsalMask(1u << Logger::kError);
    baseline_ = Tracker::LiveCount();
    Tracker::Faults().clear();
  }
  void TearDown() override {
    EXPECT_EQ(baseline_, Tracker::LiveCount());
    EXPECT_EQ(std::vector<std::string>(), Tracker::Faults());
    Logger::GetLogger().SetLogLevelMask(PredefinedGroup::kOsal, saved_mask_);
  }

  static void SetOsalMask(uint32_t mask) {
    ASSERT_EQ(VekError::kOk, Logger::GetLogger().SetLogLevelMask(
                                 PredefinedGroup::kOsal, mask));
  }
  size_t Extra() const { return Tracker::LiveCount() - baseline_; }

  LogCapture capture_;
  uint32_t saved_mask_ = 0;
  size_t baseline_ = 0;
};

// A pooled element that counts its hooks. Made through its Create hook,
// which can be told to fail.
class Pooled {
 public:
  static Pooled* Create() {
    if (creations_left >= 0 && creations_left-- == 0) return nullptr;
    return new Pooled();
  }
  ~Pooled() { Tracker::Died(this); }

  void Update() {
    Tracker::Used(this);
    ++updates;
  }
  void Cleanup() {
    Tracker::Used(this);
    ++cleanups;
  }

  static int creations_left;  // below 0: unlimited
  static int updates;
  static int cleanups;

 private:
  Pooled() { Tracker::Born(this); }
};
int Pooled::creations_left = -1;
int Pooled::updates = 0;
int Pooled::cleanups = 0;

class PoolTest : public ContainerTest {
 protected:
  void SetUp() override {
    ContainerTest::SetUp();
    Pooled::creations_left = -1;
    Pooled::updates = 0;
    Pooled::cleanups = 0;
  }
};

TEST_F(PoolTest, GrowthAndDestructionLoseNoObject) {
  std::vector<std::shared_ptr<Pooled>> kept;
  {
    std::unique_ptr<ObjectPool<Pooled>> pool = ObjectPool<Pooled>::Create(3, 2);
    ASSERT_NE(nullptr, pool);
    EXPECT_EQ(3u, Extra());
    EXPECT_EQ(0, Pooled::updates);

    std::unordered_set<Pooled*> handed_out;
    for (int i = 0; i < 12; ++i) {
      std::shared_ptr<Pooled> object = pool->Get();
      ASSERT_NE(nullptr, object);
      EXPECT_TRUE(handed_out.insert(object.get()).second);
    }
    EXPECT_EQ(12u, Extra());
    EXPECT_EQ(12u, pool->ObjectCount());
    EXPECT_EQ(0u, pool->AvailableCount());
    EXPECT_EQ(12, Pooled::updates);

    for (Pooled* object : handed_out) pool->Release(object);
    EXPECT_EQ(12, Pooled::cleanups);
    EXPECT_EQ(12u, pool->AvailableCount());

    // Re-use, no growth.
    for (int i = 0; i < 4; ++i) {
      std::shared_ptr<Pooled> object = pool->Get();
      ASSERT_NE(nullptr, object);
      EXPECT_EQ(1u, handed_out.count(object.get()));
      if (i < 2) kept.push_back(object);
    }
    EXPECT_EQ(12u, pool->ObjectCount());
    EXPECT_EQ(16, Pooled::updates);
  }
  // The pool is gone; the two objects still held live on, and no hook ran
  // at destruction.
  EXPECT_EQ(2u, Extra());
  EXPECT_EQ(16, Pooled::updates);
  EXPECT_EQ(12, Pooled::cleanups);
  kept.clear();
  EXPECT_EQ(0u, Extra());
}

// A failed Create hook leaves nothing behind: the objects made before it
// are destroyed with the pool that is never handed out.
TEST_F(PoolTest, FailedCreateHookDropsEveryObjectMade) {
  Pooled::creations_left = 3;
  EXPECT_EQ(nullptr, ObjectPool<Pooled>::Create(5, 5));
  EXPECT_EQ(0u, Extra());
  EXPECT_EQ(0, Pooled::updates);
}

// Growth makes its object without a null test; a failed hook then yields
// an empty pointer, and no hook runs on the missing object.
TEST_F(PoolTest, FailedCreateHookWhileGrowingYieldsNothing) {
  std::unique_ptr<ObjectPool<Pooled>> pool = ObjectPool<Pooled>::Create(1, 1);
  ASSERT_NE(nullptr, pool);
  std::shared_ptr<Pooled> first = pool->Get();
  ASSERT_NE(nullptr, first);
  Pooled::creations_left = 0;
  EXPECT_EQ(nullptr, pool->Get());
  EXPECT_EQ(1, Pooled::updates);
  EXPECT_EQ(1u, Extra());
  Pooled::creations_left = -1;
  std::shared_ptr<Pooled> third = pool->Get();
  ASSERT_NE(nullptr, third);
  EXPECT_EQ(2u, Extra());
  pool->Release(first);
  pool->Release(third);
  EXPECT_EQ(2, Pooled::cleanups);
}

// Release does not test the flag: a double hand-back raises the free count
// past the free flags, and Get's guard then returns an empty pointer rather
// than handing out an object twice or growing.
TEST_F(PoolTest, DoubleReleaseIsAbsorbedByTheGuardOfGet) {
  std::unique_ptr<ObjectPool<Pooled>> pool = ObjectPool<Pooled>::Create(2, 2);
  ASSERT_NE(nullptr, pool);
  std::shared_ptr<Pooled> a = pool->Get();
  std::shared_ptr<Pooled> b = pool->Get();
  ASSERT_NE(nullptr, a);
  ASSERT_NE(nullptr, b);
  pool->Release(a);
  pool->Release(a.get());
  EXPECT_EQ(2, Pooled::cleanups);
  EXPECT_EQ(2u, pool->AvailableCount());

  EXPECT_EQ(a, pool->Get());
  EXPECT_EQ(nullptr, pool->Get());
  EXPECT_EQ(1u, pool->AvailableCount());
  EXPECT_EQ(2u, pool->ObjectCount());
  EXPECT_EQ(3, Pooled::updates);

  // An address the pool never made changes nothing.
  Pooled* stranger = Pooled::Create();
  pool->Release(stranger);
  EXPECT_EQ(2, Pooled::cleanups);
  EXPECT_EQ(1u, pool->AvailableCount());
  delete stranger;
}

struct MapValue {
  MapValue() { Tracker::Born(this); }
  ~MapValue() { Tracker::Died(this); }
  uint32_t payload = 0;
};
using TrackedMap = VectorMap<uint32_t, MapValue>;

// One value object per slot from the slot's creation to the map's end;
// removals never destroy one.
TEST_F(ContainerTest, MapValuesLiveExactlyAsLongAsTheirSlots) {
  {
    auto map = TrackedMap::Create(4);
    ASSERT_NE(nullptr, map);
    EXPECT_EQ(4u, Extra());
    for (uint32_t key = 0; key < 9; ++key) {
      ASSERT_EQ(VekError::kOk, map->Insert(key).first);
    }
    EXPECT_EQ(16u, map->Capacity());
    EXPECT_EQ(16u, Extra());
    for (uint32_t key = 0; key < 9; key += 2) map->RemoveWithKey(key);
    EXPECT_EQ(16u, Extra());
  }
  EXPECT_EQ(0u, Extra());
}

// Create allocates the map and then each value object with new (nothrow):
// a failure at any point deletes what was made and says so; a map of no
// slots needs nothing after the map itself.
TEST_F(ContainerTest, MapCreateRunningShortDropsWhatItMade) {
  struct Row {
    uint32_t capacity;
    size_t succeed;
    bool made;
  };
  const Row rows[] = {
      {8, 0, false}, {8, 1, false}, {8, 6, false}, {8, 8, false}, {0, 1, true}};
  for (const Row& row : rows) {
    SCOPED_TRACE(testing::Message() << "capacity " << row.capacity << ", "
                                    << row.succeed << " allocations");
    {
      NothrowAllocationFailure failure(row.succeed);
      EXPECT_EQ(row.made, TrackedMap::Create(row.capacity) != nullptr);
    }
    EXPECT_EQ(0u, Extra());
    std::vector<LogLine> expected;
    if (!row.made) {
      expected.push_back(
          OsalError("Create() Failed to init vector map, err=4"));
    }
    EXPECT_EQ(expected, capture_.Take());
  }
}

// A doubling that cannot make its value objects leaves the map as it was,
// and a later insert grows it normally.
TEST_F(ContainerTest, MapGrowthRunningShortLeavesTheMapUnchanged) {
  auto map = TrackedMap::Create(4);
  ASSERT_NE(nullptr, map);
  std::vector<MapValue*> values;
  for (uint32_t key = 0; key < 4; ++key) {
    const auto inserted = map->Insert(key);
    ASSERT_EQ(VekError::kOk, inserted.first);
    inserted.second->payload = key + 10;
    values.push_back(inserted.second);
  }
  {
    NothrowAllocationFailure failure(2);
    const auto refused = map->Insert(4);
    EXPECT_EQ(VekError::kErrNoResource, refused.first);
    EXPECT_EQ(nullptr, refused.second);
  }
  EXPECT_EQ(4u, Extra());
  EXPECT_EQ(4u, map->Capacity());
  EXPECT_EQ(4u, map->Size());
  EXPECT_FALSE(map->Contains(4));
  for (uint32_t key = 0; key < 4; ++key) {
    ASSERT_EQ(values[key], map->Find(key));
    EXPECT_EQ(key + 10, map->Find(key)->payload);
  }
  EXPECT_EQ(std::vector<LogLine>{OsalError(
                "Expand() VectorMap failed to grow, capacity=4, err=4")},
            capture_.Take());

  EXPECT_EQ(VekError::kOk, map->Insert(4).first);
  EXPECT_EQ(8u, map->Capacity());
  EXPECT_EQ(8u, Extra());
}

// Heap use after construction. Misuse lines go through liblog, whose
// buffers are not the containers' business: the measured stretches run
// with the kOsal group silent, which also shows that a disabled line costs
// no allocation.
class AllocationTest : public ContainerTest {
 protected:
  void SetUp() override {
    ContainerTest::SetUp();
    SetOsalMask(0);
  }
};

TEST_F(AllocationTest, QueueAllocatesNothingAfterConstruction) {
  const size_t before_construction = Allocations();
  Queue<unsigned int> queue(100, 0u);
  // Also shows that the counter is in force.
  ASSERT_LT(before_construction, Allocations());

  std::mt19937 rng(7);
  unsigned int sum = 0;
  size_t failures = 0;
  const size_t before = Allocations();
  for (int step = 0; step < 200000; ++step) {
    switch (rng() % 7) {
      case 0:
      case 1:
        failures +=
            queue.Enqueue(static_cast<unsigned int>(step)) != VekError::kOk;
        break;
      case 2:
        sum += queue.Dequeue();
        break;
      case 3:
        queue.Pop();
        break;
      case 4:
        sum += queue.Front() + queue.Back();
        break;
      default:
        sum += queue[rng() % 110];
        break;
    }
  }
  EXPECT_EQ(0u, Allocations() - before);
  // The run went through full and empty queues alike.
  EXPECT_LT(0u, failures);
  EXPECT_LT(0u, sum);
}

TEST_F(AllocationTest, MapAllocatesOnlyWhenItDoubles) {
  auto map = VectorMap<uint32_t, uint64_t>::Create(4);
  ASSERT_NE(nullptr, map);
  size_t doublings = 0;
  for (uint32_t key = 0; key < 300; ++key) {
    const uint32_t capacity = map->Capacity();
    const size_t before = Allocations();
    const auto inserted = map->Insert(key);
    const size_t used = Allocations() - before;
    ASSERT_EQ(VekError::kOk, inserted.first);
    if (map->Capacity() != capacity) {
      ++doublings;
      // One value object per new slot, plus the vectors' new storage.
      EXPECT_LE(capacity, used) << "key " << key;
    } else {
      EXPECT_EQ(0u, used) << "key " << key;
    }
  }
  EXPECT_EQ(7u, doublings);  // 4 to 512

  const size_t before = Allocations();
  uint64_t sum = 0;
  for (uint32_t key = 0; key < 400; ++key) {
    sum += map->Contains(key);
    if (uint64_t* value = map->Find(key)) *value = key;
    sum += map->FindWithIndex(key).first;
  }
  EXPECT_EQ(VekError::kErrExists, map->Insert(3).first);
  for (const auto key_value : *map) sum += *key_value.second;
  for (uint32_t key = 0; key < 400; key += 3) map->RemoveWithKey(key);
  for (auto it = map->begin(); it != map->end(); ++it) {
    if ((*it).first % 2 == 0) {
      map->RemoveWithIndex(map->FindWithIndex((*it).first).first);
    }
  }
  // Refilling freed slots reuses their value objects.
  for (uint32_t key = 0; key < 300; key += 3) {
    ASSERT_EQ(VekError::kOk, map->Insert(key).first);
  }
  EXPECT_EQ(0u, Allocations() - before);
  EXPECT_LT(0u, sum);
}

struct PoolItem {
  void Update() { ++uses; }
  void Cleanup() {}
  int uses = 0;
};

// Hand-outs of free objects and hand-backs cost nothing; an exhausted pool
// allocates for the one object it adds.
TEST_F(AllocationTest, PoolAllocatesOnlyWhenItGrows) {
  auto pool = ObjectPool<PoolItem>::Create(8, 16);
  ASSERT_NE(nullptr, pool);
  std::vector<PoolItem*> items;
  items.reserve(16);

  size_t before = Allocations();
  for (int i = 0; i < 8; ++i) items.push_back(pool->Get().get());
  for (PoolItem* item : items) pool->Release(item);
  for (int i = 0; i < 8; ++i) pool->Get();
  EXPECT_EQ(0u, Allocations() - before);

  before = Allocations();
  std::shared_ptr<PoolItem> grown = pool->Get();
  EXPECT_LT(0u, Allocations() - before);
  ASSERT_NE(nullptr, grown);
  EXPECT_EQ(9u, pool->ObjectCount());

  // Within the reservation the bookkeeping does not reallocate either:
  // only the new object itself is allocated.
  before = Allocations();
  pool->Get();
  EXPECT_EQ(1u, Allocations() - before);
}

}  // namespace
}  // namespace vek_test
