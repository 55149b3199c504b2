// The containers beside what a user would reach for instead.
//
// "allocs" (heap allocations per iteration, counted after the container
// was built) shows the containers' promise of none after construction.
#include <benchmark/benchmark.h>

#include <cstdint>
#include <map>
#include <memory>
#include <queue>
#include <string>
#include <unordered_map>
#include <vector>

#include "utils/vek_object_pool.h"
#include "utils/vek_queue.h"
#include "utils/vek_vector_map.h"
#include "vek_bench_alloc_count.h"

#ifdef VEK_BENCH_HAVE_BOOST
#include <boost/circular_buffer.hpp>
#endif

namespace {

using vek_bench::AllocationCounter;

// A container in a component lives on the heap and is reached through the
// component's `this`, with calls to elsewhere in between, so its state lives
// in memory. Every container here is made that way and handed to an opaque
// "anything may touch it": otherwise whether its fields stay in registers
// depends on whether its constructor happens to pass a member's address to
// an opaque function, and on how the stack frame is addressed, which
// measures the compiler, not the container.
template <typename T>
void Escape(T& object) {
  benchmark::DoNotOptimize(&object);
  benchmark::ClobberMemory();
}

// === Queue
// Steady state: the queue holds half its capacity, and every iteration
// pushes one element at the back and takes one from the front, so the ring
// wraps regularly. Every row has the same shape (push, take, then the
// optimisation barrier), so that the barrier splits none of them.

constexpr uint32_t kQueueCapacity = 256;
constexpr uint32_t kQueueFill = kQueueCapacity / 2;

// Short enough for the small-string buffer: no allocation per copy.
const std::string& QueueString() {
  static const std::string value = "element-42";
  return value;
}

void QueueUintVek(benchmark::State& state) {
  auto owner =
      std::make_unique<zov_vek::Queue<unsigned int>>(kQueueCapacity, 0u);
  auto& queue = *owner;
  for (unsigned int i = 0; i < kQueueFill; ++i) queue.Enqueue(i);
  Escape(queue);
  unsigned int value = 0;
  AllocationCounter allocs(state);
  for (auto _ : state) {
    queue.Enqueue(value);
    value = queue.Dequeue();
    benchmark::DoNotOptimize(value);
  }
}
BENCHMARK(QueueUintVek)->Name("queue_uint_push_pop/vek");

#ifdef VEK_BENCH_HAVE_BOOST
void QueueUintBoost(benchmark::State& state) {
  auto owner =
      std::make_unique<boost::circular_buffer<unsigned int>>(kQueueCapacity);
  auto& queue = *owner;
  for (unsigned int i = 0; i < kQueueFill; ++i) queue.push_back(i);
  Escape(queue);
  unsigned int value = 0;
  AllocationCounter allocs(state);
  for (auto _ : state) {
    queue.push_back(value);
    value = queue.front();
    queue.pop_front();
    benchmark::DoNotOptimize(value);
  }
  state.SetLabel("goal=1.0");
}
BENCHMARK(QueueUintBoost)->Name("queue_uint_push_pop/boost_circular_buffer");
#endif

void QueueUintStd(benchmark::State& state) {
  auto owner = std::make_unique<std::queue<unsigned int>>();
  auto& queue = *owner;
  for (unsigned int i = 0; i < kQueueFill; ++i) queue.push(i);
  Escape(queue);
  unsigned int value = 0;
  AllocationCounter allocs(state);
  for (auto _ : state) {
    queue.push(value);
    value = queue.front();
    queue.pop();
    benchmark::DoNotOptimize(value);
  }
  // A reference without a goal: half the deque's time would take fewer
  // stores than the deque itself makes. The ring buffer above is the peer
  // that holds the goal.
}
BENCHMARK(QueueUintStd)->Name("queue_uint_push_pop/std_queue");

void QueueStringVek(benchmark::State& state) {
  auto owner = std::make_unique<zov_vek::Queue<std::string>>(kQueueCapacity,
                                                             std::string());
  auto& queue = *owner;
  for (uint32_t i = 0; i < kQueueFill; ++i) queue.Enqueue(QueueString());
  Escape(queue);
  const std::string& element = QueueString();
  AllocationCounter allocs(state);
  for (auto _ : state) {
    queue.Enqueue(element);
    std::string out = queue.Dequeue();
    benchmark::DoNotOptimize(out);
  }
}
BENCHMARK(QueueStringVek)->Name("queue_string_push_pop/vek");

#ifdef VEK_BENCH_HAVE_BOOST
void QueueStringBoost(benchmark::State& state) {
  auto owner =
      std::make_unique<boost::circular_buffer<std::string>>(kQueueCapacity);
  auto& queue = *owner;
  for (uint32_t i = 0; i < kQueueFill; ++i) queue.push_back(QueueString());
  Escape(queue);
  const std::string& element = QueueString();
  AllocationCounter allocs(state);
  for (auto _ : state) {
    queue.push_back(element);
    std::string out = std::move(queue.front());
    queue.pop_front();
    benchmark::DoNotOptimize(out);
  }
}
BENCHMARK(QueueStringBoost)
    ->Name("queue_string_push_pop/boost_circular_buffer");
#endif

void QueueStringStd(benchmark::State& state) {
  auto owner = std::make_unique<std::queue<std::string>>();
  auto& queue = *owner;
  for (uint32_t i = 0; i < kQueueFill; ++i) queue.push(QueueString());
  Escape(queue);
  const std::string& element = QueueString();
  AllocationCounter allocs(state);
  for (auto _ : state) {
    queue.push(element);
    std::string out = std::move(queue.front());
    queue.pop();
    benchmark::DoNotOptimize(out);
  }
}
BENCHMARK(QueueStringStd)->Name("queue_string_push_pop/std_queue");

// === VectorMap
// Keys 0 to n - 1 in a map of exactly n slots; lookups cycle through every
// key, so a linear scan pays its average length.

struct Dummy {
  uint32_t val;
};

using Map = zov_vek::VectorMap<uint32_t, Dummy>;

std::unique_ptr<Map> FilledMap(uint32_t count) {
  std::unique_ptr<Map> map = Map::Create(count);
  for (uint32_t key = 0; key < count; ++key) map->Insert(key);
  return map;
}

template <typename StdMap>
StdMap FilledStdMap(uint32_t count) {
  StdMap map;
  for (uint32_t key = 0; key < count; ++key) map[key] = Dummy{key};
  return map;
}

void MapFindVek(benchmark::State& state) {
  const auto count = static_cast<uint32_t>(state.range(0));
  std::unique_ptr<Map> map = FilledMap(count);
  uint32_t key = 0;
  AllocationCounter allocs(state);
  for (auto _ : state) {
    benchmark::DoNotOptimize(map->Find(key));
    if (++key == count) key = 0;
  }
}

template <typename StdMap>
void MapFindStd(benchmark::State& state) {
  const auto count = static_cast<uint32_t>(state.range(0));
  StdMap map = FilledStdMap<StdMap>(count);
  Escape(map);
  uint32_t key = 0;
  AllocationCounter allocs(state);
  for (auto _ : state) {
    auto found = map.find(key);
    benchmark::DoNotOptimize(found == map.end() ? nullptr : &found->second);
    if (++key == count) key = 0;
  }
}

void MapFindUnordered(benchmark::State& state) {
  MapFindStd<std::unordered_map<uint32_t, Dummy>>(state);
  if (state.range(0) == 16) state.SetLabel("goal=1.0");
}
void MapFindOrdered(benchmark::State& state) {
  MapFindStd<std::map<uint32_t, Dummy>>(state);
}

BENCHMARK(MapFindVek)->Name("vector_map_find_16/vek")->Arg(16);
BENCHMARK(MapFindUnordered)
    ->Name("vector_map_find_16/std_unordered_map")
    ->Arg(16);
BENCHMARK(MapFindOrdered)->Name("vector_map_find_16/std_map")->Arg(16);
BENCHMARK(MapFindVek)->Name("vector_map_find_64/vek")->Arg(64);
BENCHMARK(MapFindUnordered)
    ->Name("vector_map_find_64/std_unordered_map")
    ->Arg(64);
BENCHMARK(MapFindOrdered)->Name("vector_map_find_64/std_map")->Arg(64);

// n - 1 keys are in a map of n slots; every iteration inserts the missing
// key and removes it again, so the map neither grows nor empties.
void MapInsertRemoveVek(benchmark::State& state) {
  const auto count = static_cast<uint32_t>(state.range(0));
  std::unique_ptr<Map> map = FilledMap(count);
  map->RemoveWithKey(count - 1);
  const uint32_t key = count - 1;
  AllocationCounter allocs(state);
  for (auto _ : state) {
    benchmark::DoNotOptimize(map->Insert(key));
    map->RemoveWithKey(key);
  }
}

template <typename StdMap>
void MapInsertRemoveStd(benchmark::State& state) {
  const auto count = static_cast<uint32_t>(state.range(0));
  StdMap map = FilledStdMap<StdMap>(count - 1);
  Escape(map);
  const uint32_t key = count - 1;
  AllocationCounter allocs(state);
  for (auto _ : state) {
    auto inserted = map.try_emplace(key);
    benchmark::DoNotOptimize(&inserted.first->second);
    map.erase(key);
  }
}

void MapInsertRemoveUnordered(benchmark::State& state) {
  MapInsertRemoveStd<std::unordered_map<uint32_t, Dummy>>(state);
}
void MapInsertRemoveOrdered(benchmark::State& state) {
  MapInsertRemoveStd<std::map<uint32_t, Dummy>>(state);
}

BENCHMARK(MapInsertRemoveVek)->Name("vector_map_insert_remove_16/vek")->Arg(16);
BENCHMARK(MapInsertRemoveUnordered)
    ->Name("vector_map_insert_remove_16/std_unordered_map")
    ->Arg(16);
BENCHMARK(MapInsertRemoveOrdered)
    ->Name("vector_map_insert_remove_16/std_map")
    ->Arg(16);
BENCHMARK(MapInsertRemoveVek)->Name("vector_map_insert_remove_64/vek")->Arg(64);
BENCHMARK(MapInsertRemoveUnordered)
    ->Name("vector_map_insert_remove_64/std_unordered_map")
    ->Arg(64);
BENCHMARK(MapInsertRemoveOrdered)
    ->Name("vector_map_insert_remove_64/std_map")
    ->Arg(64);

// === ObjectPool
// One object in use at a time from a pool of 16, beside making a fresh
// shared object for every use.

struct Pooled {
  uint64_t payload[8];
};

void PoolGetReleaseVek(benchmark::State& state) {
  auto pool = zov_vek::ObjectPool<Pooled>::Create(16, 16);
  AllocationCounter allocs(state);
  for (auto _ : state) {
    std::shared_ptr<Pooled> object = pool->Get();
    benchmark::DoNotOptimize(object.get());
    pool->Release(std::move(object));
  }
}
BENCHMARK(PoolGetReleaseVek)->Name("object_pool_get_release/vek");

void PoolGetReleaseMakeShared(benchmark::State& state) {
  AllocationCounter allocs(state);
  for (auto _ : state) {
    std::shared_ptr<Pooled> object = std::make_shared<Pooled>();
    benchmark::DoNotOptimize(object.get());
  }
}
BENCHMARK(PoolGetReleaseMakeShared)
    ->Name("object_pool_get_release/std_make_shared");

}  // namespace
