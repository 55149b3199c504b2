// Bounded string copy with the semantics of BSD strlcpy.
#include <cstring>

#include "osal/vek_osal.h"

namespace zov_vek {

size_t OsalStrlcpy(char* dst, const char* src, size_t size) {
  // Null pointers change nothing: a null source reads as no string at all
  // (length 0), and a null destination receives nothing.
  if (src == nullptr) return 0;
  const size_t length = strlen(src);
  if (dst == nullptr || size == 0) return length;
  const size_t copied = length < size - 1 ? length : size - 1;
  memcpy(dst, src, copied);
  dst[copied] = '\0';
  return length;
}

}  // namespace zov_vek
