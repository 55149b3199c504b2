// OsalStrlcpy against libbsd's strlcpy: same result, same bytes in the
// destination, and nothing written at or past `size`. The destination is
// allocated with exactly `size` bytes, so AddressSanitizer catches any
// write past it; the source with exactly its length and NUL, so it catches
// any read past the terminator.
#include <bsd/string.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "fuzz_input.h"
#include "osal/vek_osal.h"

namespace {

constexpr unsigned char kPoison = 0xab;

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  vek_fuzz::FuzzInput in(data, size);
  // Sizes around the source's length matter most; 0 and 1 are the edges.
  const size_t dst_size = in.Byte() % 80;
  const std::string text = in.Bytes(96);
  // The source ends at its first NUL, as a C string does.
  const size_t length = strnlen(text.data(), text.size());

  std::unique_ptr<char[]> src(new char[length + 1]);
  std::memcpy(src.get(), text.data(), length);
  src[length] = '\0';

  // new char[0] is a valid, zero-byte allocation that must never be
  // written.
  std::unique_ptr<char[]> ours(new char[dst_size]);
  std::unique_ptr<char[]> theirs(new char[dst_size + 1]);
  std::memset(ours.get(), kPoison, dst_size);
  std::memset(theirs.get(), kPoison, dst_size + 1);

  const size_t ours_result =
      zov_vek::OsalStrlcpy(ours.get(), src.get(), dst_size);
  const size_t theirs_result = strlcpy(theirs.get(), src.get(), dst_size);

  FUZZ_CHECK(ours_result == theirs_result);
  FUZZ_CHECK(ours_result == length);
  FUZZ_CHECK(std::memcmp(ours.get(), theirs.get(), dst_size) == 0);
  if (dst_size > 0) {
    const size_t copied = length < dst_size - 1 ? length : dst_size - 1;
    FUZZ_CHECK(std::memcmp(ours.get(), src.get(), copied) == 0);
    FUZZ_CHECK(ours[copied] == '\0');
    for (size_t i = copied + 1; i < dst_size; ++i) {
      FUZZ_CHECK(static_cast<unsigned char>(ours[i]) == kPoison);
    }
  }
  return 0;
}
