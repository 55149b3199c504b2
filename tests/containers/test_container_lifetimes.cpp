// Object lifetimes inside the containers. Every element records its birth
// and death by address, so a leak, a double destruction, or a use of a
// dead object shows up as a count or a fault, wherever it happens: queue
// slots across wrap-around, pool objects across growth and pool
// destruction, map values across doubling and failed allocation.
#include <gtest/gtest.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <new>
#include <set>
#include <string>
#include <unordered_set>
#include <vector>

#include "container_test_util.h"
#include "osal/vek_error.h"
#include "utils/vek_object_pool.h"
#include "utils/vek_queue.h"
#include "utils/vek_vector_map.h"

namespace vek_test {
namespace {

using zov_vek::ObjectPool;
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
  static const std::vector<std::string>& Faults() { return FaultList(); }

 private:
  static void Fault(const char* what) { FaultList().push_back(what); }
  static std::set<const void*>& Live() {
    static std::set<const void*> live;
    return live;
  }
  static std::vector<std::string>& FaultList() {
    static std::vector<std::string> faults;
    return faults;
  }
};

class Counted {
 public:
  static constexpr uint32_t kMovedFrom = 0xffffffffu;

  Counted() : value_(0) { Tracker::Born(this); }
  explicit Counted(uint32_t value) : value_(value) { Tracker::Born(this); }
  Counted(const Counted& other) : value_(other.value_) {
    Tracker::Used(&other);
    Tracker::Born(this);
  }
  Counted(Counted&& other) noexcept : value_(other.value_) {
    Tracker::Used(&other);
    Tracker::Born(this);
    other.value_ = kMovedFrom;
  }
  Counted& operator=(const Counted& other) {
    Tracker::Used(this);
    Tracker::Used(&other);
    value_ = other.value_;
    return *this;
  }
  Counted& operator=(Counted&& other) noexcept {
    Tracker::Used(this);
    Tracker::Used(&other);
    value_ = other.value_;
    other.value_ = kMovedFrom;
    return *this;
  }
  ~Counted() { Tracker::Died(this); }

  uint32_t value() const {
    Tracker::Used(this);
    return value_;
  }

 private:
  uint32_t value_;
};

// The containers log their misuse; this fixture keeps those lines off
// stderr and checks that no fault was recorded during the case.
class LifetimeTest : public OsalErrorLogTest {
 protected:
  void SetUp() override {
    OsalErrorLogTest::SetUp();
    baseline_ = Tracker::LiveCount();
    faults_before_ = Tracker::Faults().size();
  }
  void TearDown() override {
    EXPECT_EQ(baseline_, Tracker::LiveCount());
    EXPECT_EQ(std::vector<std::string>(
                  Tracker::Faults().begin() +
                      static_cast<std::ptrdiff_t>(faults_before_),
                  Tracker::Faults().end()),
              std::vector<std::string>());
    OsalErrorLogTest::TearDown();
  }

  size_t Extra() const { return Tracker::LiveCount() - baseline_; }

  size_t baseline_ = 0;
  size_t faults_before_ = 0;
};

// A queue holds its default object and one object per slot, whatever it
// has been through; its destruction ends all of them.
TEST_F(LifetimeTest, QueueKeepsOneObjectPerSlotAcrossWrapAround) {
  {
    Queue<Counted> queue(5, Counted(7));
    EXPECT_EQ(6u, Extra());
    uint32_t next_in = 100;
    uint32_t next_out = 100;
    for (int round = 0; round < 200; ++round) {
      const int fill = 1 + round % 5;
      for (int i = 0; i < fill; ++i) {
        ASSERT_EQ(VekError::kOk, queue.Enqueue(Counted(next_in++)));
      }
      if (fill == 5) {
        EXPECT_NE(VekError::kOk, queue.Enqueue(Counted(1)));
      }
      EXPECT_EQ(next_out, queue.Front().value());
      EXPECT_EQ(next_in - 1, queue.Back().value());
      EXPECT_EQ(next_in - 1, queue[queue.Size() - 1].value());
      for (int i = 0; i < fill; ++i) {
        if (i % 2 == 0) {
          EXPECT_EQ(next_out, queue.Dequeue().value());
        } else {
          queue.Pop();
        }
        ++next_out;
      }
      EXPECT_EQ(7u, queue.Dequeue().value());
      queue.Pop();
      EXPECT_EQ(7u, queue.Front().value());
      EXPECT_EQ(7u, queue.Back().value());
      EXPECT_EQ(7u, queue[0].value());
      ASSERT_EQ(6u, Extra()) << "round " << round;
    }
  }
  EXPECT_EQ(0u, Extra());
}

TEST_F(LifetimeTest, EmptyQueueHoldsOnlyItsDefaultObject) {
  {
    Queue<Counted> queue(0, Counted(3));
    EXPECT_EQ(1u, Extra());
    EXPECT_NE(VekError::kOk, queue.Enqueue(Counted(4)));
    EXPECT_EQ(3u, queue.Dequeue().value());
    EXPECT_EQ(1u, Extra());
  }
  EXPECT_EQ(0u, Extra());
}

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

class PoolLifetimeTest : public LifetimeTest {
 protected:
  void SetUp() override {
    LifetimeTest::SetUp();
    Pooled::creations_left = -1;
    Pooled::updates = 0;
    Pooled::cleanups = 0;
  }
};

TEST_F(PoolLifetimeTest, GrowthAndDestructionLoseNoObject) {
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
TEST_F(PoolLifetimeTest, FailedCreateHookDropsEveryObjectMade) {
  Pooled::creations_left = 3;
  EXPECT_EQ(nullptr, ObjectPool<Pooled>::Create(5, 5));
  EXPECT_EQ(0u, Extra());
  EXPECT_EQ(0, Pooled::updates);
}

// Growth makes its object without a null test; a failed hook then yields
// an empty pointer, and no hook runs on the missing object.
TEST_F(PoolLifetimeTest, FailedCreateHookWhileGrowingYieldsNothing) {
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
TEST_F(PoolLifetimeTest, DoubleReleaseIsAbsorbedByTheGuardOfGet) {
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

// A map value that can be told to refuse its allocation.
struct MapValue {
  MapValue() { Tracker::Born(this); }
  ~MapValue() { Tracker::Died(this); }

  static void* operator new(std::size_t size,
                            const std::nothrow_t& tag) noexcept {
    if (allocations_left >= 0 && allocations_left-- == 0) return nullptr;
    return ::operator new(size, tag);
  }
  static void operator delete(void* memory) noexcept {
    ::operator delete(memory);
  }

  static int allocations_left;  // below 0: unlimited
  uint32_t payload = 0;
};
int MapValue::allocations_left = -1;

class MapLifetimeTest : public LifetimeTest {
 protected:
  void SetUp() override {
    LifetimeTest::SetUp();
    MapValue::allocations_left = -1;
  }
  void TearDown() override {
    MapValue::allocations_left = -1;
    LifetimeTest::TearDown();
  }
};

// One value object per slot from the slot's creation to the map's end;
// removals never destroy one.
TEST_F(MapLifetimeTest, ValuesLiveExactlyAsLongAsTheirSlots) {
  {
    auto map = VectorMap<uint32_t, MapValue>::Create(4);
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

TEST_F(MapLifetimeTest, FailedCreateDeletesTheValuesMadeSoFar) {
  MapValue::allocations_left = 5;
  EXPECT_EQ(nullptr, (VectorMap<uint32_t, MapValue>::Create(8)));
  EXPECT_EQ(0u, Extra());
}

// A doubling that cannot make its value objects leaves the map as it was,
// and a later insert grows it normally.
TEST_F(MapLifetimeTest, FailedGrowthLeavesTheMapUnchanged) {
  auto map = VectorMap<uint32_t, MapValue>::Create(4);
  ASSERT_NE(nullptr, map);
  std::vector<MapValue*> values;
  for (uint32_t key = 0; key < 4; ++key) {
    const auto inserted = map->Insert(key);
    ASSERT_EQ(VekError::kOk, inserted.first);
    inserted.second->payload = key + 10;
    values.push_back(inserted.second);
  }
  MapValue::allocations_left = 2;
  const auto refused = map->Insert(4);
  EXPECT_EQ(VekError::kErrNoResource, refused.first);
  EXPECT_EQ(nullptr, refused.second);
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
            TakeLines());

  MapValue::allocations_left = -1;
  EXPECT_EQ(VekError::kOk, map->Insert(4).first);
  EXPECT_EQ(8u, map->Capacity());
  EXPECT_EQ(8u, Extra());
}

}  // namespace
}  // namespace vek_test
