// Runs a fuzz target without the fuzzing engine: over stored inputs (every
// file named on the command line, and every file in every directory named
// there), then over `--generate=N` inputs of pseudo-random bytes from a
// generator that starts from the same state every run. Built in every
// configuration, so that the plain test run checks the corpus, every input that
// once failed, and the same long random operation sequences every time.
#include <dirent.h>
#include <sys/stat.h>

#include <algorithm>
#include <csignal>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iterator>
#include <random>
#include <string>
#include <utility>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

namespace {

constexpr size_t kMaxGeneratedLength = 4096;
constexpr char kFailedInput[] = "replay-failed-input";

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
    if (name[0] == '.') continue;
    const std::string path = dir + "/" + name;
    if (!IsDirectory(path)) files.push_back(path);
  }
  closedir(handle);
  std::sort(files.begin(), files.end());
  return files;
}

// The input under way. A mismatch aborts: the handler names the input and
// keeps its bytes, ready to become a regression input. Aborts come from the
// checks, after their output is flushed, never from inside stdio.
std::string g_name;
std::vector<uint8_t> g_bytes;

void SaveFailedInput(int) {
  if (std::FILE* file = std::fopen(kFailedInput, "wb")) {
    std::fwrite(g_bytes.data(), 1, g_bytes.size(), file);
    std::fclose(file);
  }
  std::fprintf(stderr, "replay: failed on %s, saved as %s\n", g_name.c_str(),
               kFailedInput);
}

void Run(std::string name, std::vector<uint8_t> bytes) {
  g_name = std::move(name);
  g_bytes = std::move(bytes);
  LLVMFuzzerTestOneInput(g_bytes.data(), g_bytes.size());
}

}  // namespace

int main(int argc, char** argv) {
  size_t generate = 0;
  std::vector<std::string> files;
  for (int i = 1; i < argc; ++i) {
    if (std::strncmp(argv[i], "--generate=", 11) == 0) {
      generate = std::strtoul(argv[i] + 11, nullptr, 10);
    } else if (IsDirectory(argv[i])) {
      const std::vector<std::string> found = FilesIn(argv[i]);
      files.insert(files.end(), found.begin(), found.end());
    } else {
      files.push_back(argv[i]);
    }
  }
  if (files.empty()) {
    std::fprintf(stderr, "replay: no stored inputs found\n");
    return 1;
  }
  std::signal(SIGABRT, SaveFailedInput);

  for (const std::string& path : files) {
    std::ifstream file(path, std::ios::binary);
    if (!file) {
      std::fprintf(stderr, "replay: cannot read %s\n", path.c_str());
      return 1;
    }
    Run(path, std::vector<uint8_t>((std::istreambuf_iterator<char>(file)),
                                   std::istreambuf_iterator<char>()));
  }

  std::mt19937 rng(1);
  size_t generated_bytes = 0;
  for (size_t n = 0; n < generate; ++n) {
    std::vector<uint8_t> bytes(rng() % (kMaxGeneratedLength + 1));
    for (uint8_t& byte : bytes) byte = static_cast<uint8_t>(rng());
    generated_bytes += bytes.size();
    Run("generated input " + std::to_string(n), std::move(bytes));
  }
  std::printf(
      "replay: %zu stored and %zu generated inputs (%zu bytes) passed\n",
      files.size(), generate, generated_bytes);
  return 0;
}
