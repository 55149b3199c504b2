// Replaces the global allocation functions with counting ones. The count is
// per thread and not atomic, so that counting does not slow down the
// references that allocate (std::queue, std::unordered_map, make_shared)
// more than the operations that do not.
#include <cstdlib>
#include <new>

#include "vek_bench_alloc_count.h"

namespace {

thread_local uint64_t allocations = 0;

void* Allocate(std::size_t size) {
  ++allocations;
  return std::malloc(size == 0 ? 1 : size);
}

}  // namespace

namespace vek_bench {

uint64_t ThreadAllocations() { return allocations; }

}  // namespace vek_bench

void* operator new(std::size_t size) {
  void* p = Allocate(size);
  if (p == nullptr) throw std::bad_alloc();
  return p;
}
void* operator new[](std::size_t size) {
  void* p = Allocate(size);
  if (p == nullptr) throw std::bad_alloc();
  return p;
}
void* operator new(std::size_t size, const std::nothrow_t&) noexcept {
  return Allocate(size);
}
void* operator new[](std::size_t size, const std::nothrow_t&) noexcept {
  return Allocate(size);
}
void operator delete(void* p) noexcept { std::free(p); }
void operator delete[](void* p) noexcept { std::free(p); }
void operator delete(void* p, std::size_t) noexcept { std::free(p); }
void operator delete[](void* p, std::size_t) noexcept { std::free(p); }
void operator delete(void* p, const std::nothrow_t&) noexcept { std::free(p); }
void operator delete[](void* p, const std::nothrow_t&) noexcept {
  std::free(p);
}
