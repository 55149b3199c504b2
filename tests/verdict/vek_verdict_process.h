// Runs a program to its end, or kills it at a time limit, and keeps what
// it wrote: the verdict tests judge processes by their output and status.
#ifndef TESTS_VERDICT_VEK_VERDICT_PROCESS_H_
#define TESTS_VERDICT_VEK_VERDICT_PROCESS_H_

#include <signal.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <regex>
#include <sstream>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

extern char** environ;

namespace vek_test {

struct ProcessResult {
  std::string out;
  std::string err;
  int status = 0;  // as waitpid gives it
  int64_t elapsed_ms = 0;
  bool timed_out = false;  // killed at the limit

  bool Exited(int code) const {
    return !timed_out && WIFEXITED(status) && WEXITSTATUS(status) == code;
  }
  bool Signaled(int sig) const {
    return !timed_out && WIFSIGNALED(status) && WTERMSIG(status) == sig;
  }
};

// What a child wrote into a memory file, which is then closed.
inline std::string TakeAll(int fd) {
  std::string text;
  char buffer[65536];
  for (ssize_t n; (n = pread(fd, buffer, sizeof(buffer), text.size())) > 0;) {
    text.append(buffer, static_cast<size_t>(n));
  }
  close(fd);
  return text;
}

// Runs argv with the environment of this process, less every variable that
// steers googletest or the case watchdog, plus `env` ("NAME=value"). No
// core files: several programs here crash on purpose.
inline ProcessResult RunProcess(const std::vector<std::string>& argv,
                                const std::vector<std::string>& env,
                                int limit_s) {
  std::vector<std::string> env_strings;
  for (char** entry = environ; *entry != nullptr; ++entry) {
    const std::string_view text(*entry);
    if (text.substr(0, 6) != "GTEST_" && text.substr(0, 7) != "VEK_UT_" &&
        text.substr(0, 12) != "VEK_VERDICT_") {
      env_strings.emplace_back(text);
    }
  }
  env_strings.insert(env_strings.end(), env.begin(), env.end());
  std::vector<char*> envp;
  for (std::string& entry : env_strings) envp.push_back(entry.data());
  envp.push_back(nullptr);
  // On a cross build the test preset names the emulator that runs the
  // build's programs (VEK_TEST_EMULATOR, an absolute path first); natively
  // it is unset.
  std::vector<std::string> args;
  if (const char* emulator = std::getenv("VEK_TEST_EMULATOR")) {
    std::istringstream words(emulator);
    for (std::string word; words >> word;) args.push_back(word);
  }
  args.insert(args.end(), argv.begin(), argv.end());
  std::vector<char*> argp;
  for (std::string& arg : args) argp.push_back(arg.data());
  argp.push_back(nullptr);

  // Files, not pipes: a child that hangs or dies mid-line leaves whatever
  // it wrote, and nobody has to drain it while it runs.
  const int out = memfd_create("out", MFD_CLOEXEC);
  const int err = memfd_create("err", MFD_CLOEXEC);
  const auto started = std::chrono::steady_clock::now();
  const auto elapsed_ms = [&started] {
    return std::chrono::duration_cast<std::chrono::milliseconds>(
               std::chrono::steady_clock::now() - started)
        .count();
  };
  ProcessResult result;
  const pid_t pid = fork();
  if (pid < 0) {
    close(out);
    close(err);
    result.timed_out = true;
    return result;
  }
  if (pid == 0) {
    const struct rlimit no_core = {0, 0};
    setrlimit(RLIMIT_CORE, &no_core);
    dup2(out, STDOUT_FILENO);
    dup2(err, STDERR_FILENO);
    execve(argp[0], argp.data(), envp.data());
    _exit(127);
  }
  while (waitpid(pid, &result.status, WNOHANG) == 0) {
    if (!result.timed_out && elapsed_ms() > limit_s * 1000) {
      kill(pid, SIGKILL);
      result.timed_out = true;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  result.elapsed_ms = elapsed_ms();
  result.out = TakeAll(out);
  result.err = TakeAll(err);
  return result;
}

// A report with its timings, the only part that differs between two runs
// of the same cases, blanked: "(12 ms)" becomes "(N ms)".
inline std::string WithoutTimings(const std::string& report) {
  static const std::regex kTiming("\\([0-9]+ ms");
  return std::regex_replace(report, kTiming, "(N ms");
}

inline size_t CountOf(std::string_view text, std::string_view what) {
  size_t count = 0;
  for (size_t at = text.find(what); at != std::string_view::npos;
       at = text.find(what, at + what.size())) {
    ++count;
  }
  return count;
}

inline bool EndsWith(std::string_view text, std::string_view tail) {
  return text.size() >= tail.size() &&
         text.substr(text.size() - tail.size()) == tail;
}

}  // namespace vek_test

#endif  // TESTS_VERDICT_VEK_VERDICT_PROCESS_H_
