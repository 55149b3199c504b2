// Reads a fuzz input as a stream of small decisions. Past the end every
// read returns zero, so any byte string is a valid program of operations.
#ifndef TESTS_FUZZ_FUZZ_INPUT_H_
#define TESTS_FUZZ_FUZZ_INPUT_H_

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

namespace vek_fuzz {

// In a filling phase the container targets turn removals into insertions,
// in a draining phase insertions into removals, so that random bytes take
// a container to full and to empty again and again.
enum class Phase { kMixed, kFilling, kDraining };

class FuzzInput {
 public:
  FuzzInput(const uint8_t* data, size_t size) : data_(data), size_(size) {}

  bool empty() const { return pos_ >= size_; }

  uint8_t Byte() { return pos_ < size_ ? data_[pos_++] : 0; }

  // The byte of the next operation. Where one is expected, the three
  // highest byte values set the phase instead.
  uint8_t OpByte() {
    uint8_t byte = Byte();
    for (; byte >= kFirstPhaseMark; byte = Byte()) {
      phase_ = static_cast<Phase>(byte - kFirstPhaseMark);
    }
    return byte;
  }
  Phase phase() const { return phase_; }

  uint32_t U32() {
    uint32_t value = 0;
    for (int i = 0; i < 4; ++i) value = (value << 8) | Byte();
    return value;
  }

  // A value below `bound` (which must not be 0).
  uint32_t Below(uint32_t bound) {
    return bound <= 256 ? Byte() % bound : U32() % bound;
  }

  // Up to `max_length` bytes, taken as they come (NUL bytes included).
  std::string Bytes(size_t max_length) {
    const size_t length = Byte() % (max_length + 1);
    std::string text;
    for (size_t i = 0; i < length && !empty(); ++i) {
      text.push_back(static_cast<char>(Byte()));
    }
    return text;
  }

 private:
  static constexpr uint8_t kFirstPhaseMark = 0xfd;

  const uint8_t* data_;
  size_t size_;
  size_t pos_ = 0;
  Phase phase_ = Phase::kMixed;
};

// A model and the code under test disagree: report and crash, so that the
// fuzzer keeps the input.
[[noreturn]] inline void Mismatch(const char* file, int line,
                                  const char* what) {
  std::fprintf(stderr, "%s:%d: mismatch: %s\n", file, line, what);
  std::fflush(stderr);
  std::abort();
}

}  // namespace vek_fuzz

#define FUZZ_CHECK(condition)                               \
  do {                                                      \
    if (!(condition)) {                                     \
      ::vek_fuzz::Mismatch(__FILE__, __LINE__, #condition); \
    }                                                       \
  } while (0)

#endif  // TESTS_FUZZ_FUZZ_INPUT_H_
