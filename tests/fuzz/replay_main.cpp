// Runs a fuzz target over stored inputs without the fuzzing engine: every
// file named on the command line, and every file in every directory named
// there. Built in every configuration, so that the corpus and every input
// that once failed are checked by the plain test run.
#include <dirent.h>
#include <sys/stat.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

namespace {

bool IsDirectory(const std::string& path) {
  struct stat info;
  return stat(path.c_str(), &info) == 0 && S_ISDIR(info.st_mode);
}

// Files directly in `dir`, sorted so that runs are reproducible.
std::vector<std::string> FilesIn(const std::string& dir) {
  std::vector<std::string> files;
  DIR* handle = opendir(dir.c_str());
  if (handle == nullptr) return files;
  while (const dirent* entry = readdir(handle)) {
    const std::string name = entry->d_name;
    if (name == "." || name == ".." || name[0] == '.') continue;
    const std::string path = dir + "/" + name;
    if (!IsDirectory(path)) files.push_back(path);
  }
  closedir(handle);
  std::sort(files.begin(), files.end());
  return files;
}

}  // namespace

int main(int argc, char** argv) {
  std::vector<std::string> inputs;
  for (int i = 1; i < argc; ++i) {
    if (IsDirectory(argv[i])) {
      const std::vector<std::string> files = FilesIn(argv[i]);
      inputs.insert(inputs.end(), files.begin(), files.end());
    } else {
      inputs.push_back(argv[i]);
    }
  }
  if (inputs.empty()) {
    std::fprintf(stderr, "replay: no inputs found\n");
    return 1;
  }
  for (const std::string& path : inputs) {
    std::ifstream file(path, std::ios::binary);
    if (!file) {
      std::fprintf(stderr, "replay: cannot read %s\n", path.c_str());
      return 1;
    }
    const std::vector<char> bytes((std::istreambuf_iterator<char>(file)),
                                  std::istreambuf_iterator<char>());
    LLVMFuzzerTestOneInput(reinterpret_cast<const uint8_t*>(bytes.data()),
                           bytes.size());
  }
  std::printf("replay: %zu inputs passed\n", inputs.size());
  return 0;
}
