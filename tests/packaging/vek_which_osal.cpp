// Prints the path of the libvekosal file that the dynamic loader mapped
// into this process, as the kernel (or qemu-user, which emulates the file
// for its guest) lists it in /proc/self/maps. The packaging tests use it
// to prove which copy of the port a program linked like the conformance
// executable really runs against.
#include <cstdio>
#include <fstream>
#include <string>

#include "osal/vek_osal.h"

int main() {
  // A real call, so that the library is needed and bound, not just listed.
  void* mutex = nullptr;
  if (zov_vek::OsalMutexInit(&mutex) != zov_vek::VekError::kOk) {
    std::fprintf(stderr, "OsalMutexInit failed\n");
    return 2;
  }
  zov_vek::OsalMutexDestroy(mutex);

  std::ifstream maps("/proc/self/maps");
  std::string line;
  while (std::getline(maps, line)) {
    const size_t path = line.find('/');
    if (path == std::string::npos) continue;
    if (line.find("/libvekosal.so", path) == std::string::npos) continue;
    std::printf("%s\n", line.c_str() + path);
    return 0;
  }
  std::fprintf(stderr, "no libvekosal mapped\n");
  return 1;
}
