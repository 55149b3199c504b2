// The replaced global allocation functions behind vek_alloc_counter.h.
#include "vek_alloc_counter.h"

#include <atomic>
#include <cstdlib>
#include <new>

namespace {

std::atomic<size_t> g_allocations{0};
// Counts down on each nothrow allocation; the one that finds it at 0 fails.
// Negative, it never reaches 0 again.
std::atomic<long> g_nothrow_left{-1};

void* Allocate(std::size_t size) noexcept {
  g_allocations.fetch_add(1, std::memory_order_relaxed);
  return std::malloc(size == 0 ? 1 : size);
}

void* AllocateOrThrow(std::size_t size) {
  void* memory = Allocate(size);
  if (memory == nullptr) throw std::bad_alloc();
  return memory;
}

void* AllocateNothrow(std::size_t size) noexcept {
  if (g_nothrow_left.fetch_sub(1, std::memory_order_relaxed) == 0) {
    return nullptr;
  }
  return Allocate(size);
}

}  // namespace

namespace vek_test {

size_t Allocations() { return g_allocations.load(std::memory_order_relaxed); }

NothrowAllocationFailure::NothrowAllocationFailure(size_t succeed) {
  g_nothrow_left.store(static_cast<long>(succeed), std::memory_order_relaxed);
}

NothrowAllocationFailure::~NothrowAllocationFailure() {
  g_nothrow_left.store(-1, std::memory_order_relaxed);
}

}  // namespace vek_test

void* operator new(std::size_t size) { return AllocateOrThrow(size); }
void* operator new[](std::size_t size) { return AllocateOrThrow(size); }
void* operator new(std::size_t size, const std::nothrow_t&) noexcept {
  return AllocateNothrow(size);
}
void* operator new[](std::size_t size, const std::nothrow_t&) noexcept {
  return AllocateNothrow(size);
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
