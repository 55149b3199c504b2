// Heap use of the containers after construction, counted by replacing the
// global allocation functions of this binary. The queue must allocate
// nothing at all once built, the map only on the insert that doubles it,
// and the pool only when it grows.
#include <gtest/gtest.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <new>
#include <random>
#include <vector>

#include "logging/vek_logger.h"
#include "osal/vek_error.h"
#include "utils/vek_object_pool.h"
#include "utils/vek_queue.h"
#include "utils/vek_vector_map.h"

namespace {

std::atomic<size_t> g_allocations{0};

void* CountedAllocation(std::size_t size) noexcept {
  g_allocations.fetch_add(1, std::memory_order_relaxed);
  return std::malloc(size == 0 ? 1 : size);
}

}  // namespace

void* operator new(std::size_t size) {
  void* memory = CountedAllocation(size);
  if (memory == nullptr) throw std::bad_alloc();
  return memory;
}
void* operator new[](std::size_t size) {
  void* memory = CountedAllocation(size);
  if (memory == nullptr) throw std::bad_alloc();
  return memory;
}
void* operator new(std::size_t size, const std::nothrow_t&) noexcept {
  return CountedAllocation(size);
}
void* operator new[](std::size_t size, const std::nothrow_t&) noexcept {
  return CountedAllocation(size);
}
void operator delete(void* memory) noexcept { std::free(memory); }
void operator delete[](void* memory) noexcept { std::free(memory); }
void operator delete(void* memory, std::size_t) noexcept { std::free(memory); }
void operator delete[](void* memory, std::size_t) noexcept {
  std::free(memory);
}
void operator delete(void* memory, const std::nothrow_t&) noexcept {
  std::free(memory);
}
void operator delete[](void* memory, const std::nothrow_t&) noexcept {
  std::free(memory);
}

namespace vek_test {
namespace {

using zov_vek::Logger;
using zov_vek::ObjectPool;
using zov_vek::PredefinedGroup;
using zov_vek::Queue;
using zov_vek::VectorMap;
using zov_vek::VekError;

size_t Allocations() { return g_allocations.load(std::memory_order_relaxed); }

// Misuse writes through liblog, whose own buffers are not the containers'
// business: the measured stretches run with the kOsal group silent, which
// also proves that a disabled line costs no allocation.
class AllocationTest : public testing::Test {
 protected:
  void SetUp() override {
    Logger& logger = Logger::GetLogger();
    saved_mask_ = logger.GetLogLevelMask(PredefinedGroup::kOsal);
    ASSERT_EQ(VekError::kOk,
              logger.SetLogLevelMask(PredefinedGroup::kOsal, 0u));
  }
  void TearDown() override {
    Logger::GetLogger().SetLogLevelMask(PredefinedGroup::kOsal, saved_mask_);
  }

  uint32_t saved_mask_ = 0;
};

// The replacement is in force for this binary's own allocations.
TEST_F(AllocationTest, CounterSeesAllocations) {
  const size_t before = Allocations();
  auto block = std::make_unique<std::vector<int>>(100);
  EXPECT_LE(before + 2, Allocations());
}

TEST_F(AllocationTest, QueueAllocatesNothingAfterConstruction) {
  const size_t before_construction = Allocations();
  Queue<unsigned int> queue(100, 0u);
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
  const size_t used = Allocations() - before;
  EXPECT_EQ(0u, used);
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
  const size_t used = Allocations() - before;
  EXPECT_EQ(0u, used);
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
