// Counts the calls of the global allocation functions in this process and
// can make one nothrow allocation fail. Linking vek_alloc_counter.cpp
// replaces those functions for the whole binary, so it belongs in a binary
// of its own, and not in a ThreadSanitizer build, whose runtime defines
// them itself.
#ifndef TESTS_SUPPORT_VEK_ALLOC_COUNTER_H_
#define TESTS_SUPPORT_VEK_ALLOC_COUNTER_H_

#include <cstddef>

namespace vek_test {

// Allocations made through operator new, any form, since the start.
size_t Allocations();

// While an instance lives, the nothrow allocation that follows `succeed`
// more of them returns null, once. The containers make their value objects
// with new (std::nothrow), so this is how a test makes them run short.
class NothrowAllocationFailure {
 public:
  explicit NothrowAllocationFailure(size_t succeed);
  ~NothrowAllocationFailure();

  NothrowAllocationFailure(const NothrowAllocationFailure&) = delete;
  NothrowAllocationFailure& operator=(const NothrowAllocationFailure&) = delete;
};

}  // namespace vek_test

#endif  // TESTS_SUPPORT_VEK_ALLOC_COUNTER_H_
