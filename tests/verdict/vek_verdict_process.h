// Runs a program to its end, or kills it at a time limit, and keeps what
// it wrote: the verdict tests judge processes by their output and status.
#ifndef TESTS_VERDICT_VEK_VERDICT_PROCESS_H_
#define TESTS_VERDICT_VEK_VERDICT_PROCESS_H_

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <sstream>
#include <string>
#include <string_view>
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

inline int64_t NowMs() {
  struct timespec now;
  clock_gettime(CLOCK_MONOTONIC, &now);
  return static_cast<int64_t>(now.tv_sec) * 1000 + now.tv_nsec / 1000000;
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
    if (text.substr(0, 6) == "GTEST_" || text.substr(0, 7) == "VEK_UT_" ||
        text.substr(0, 12) == "VEK_VERDICT_") {
      continue;
    }
    env_strings.emplace_back(text);
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

  ProcessResult result;
  int out[2];
  int err[2];
  if (pipe2(out, O_CLOEXEC) != 0 || pipe2(err, O_CLOEXEC) != 0) {
    result.timed_out = true;
    return result;
  }
  const int64_t started = NowMs();
  const pid_t pid = fork();
  if (pid == 0) {
    const struct rlimit no_core = {0, 0};
    setrlimit(RLIMIT_CORE, &no_core);
    dup2(out[1], STDOUT_FILENO);
    dup2(err[1], STDERR_FILENO);
    execve(argp[0], argp.data(), envp.data());
    _exit(127);
  }
  close(out[1]);
  close(err[1]);
  struct pollfd fds[2] = {{out[0], POLLIN, 0}, {err[0], POLLIN, 0}};
  std::string* sinks[2] = {&result.out, &result.err};
  bool reaped = false;
  while (true) {
    const int ready = poll(fds, 2, reaped ? 0 : 50);
    for (int i = 0; ready > 0 && i < 2; ++i) {
      if (fds[i].fd < 0 || fds[i].revents == 0) continue;
      char buffer[65536];
      const ssize_t n = read(fds[i].fd, buffer, sizeof(buffer));
      if (n > 0) {
        sinks[i]->append(buffer, static_cast<size_t>(n));
      } else {
        close(fds[i].fd);
        fds[i].fd = -1;
      }
    }
    if (reaped && ready <= 0) break;
    if (!reaped && waitpid(pid, &result.status, WNOHANG) == pid) {
      reaped = true;
      result.elapsed_ms = NowMs() - started;
    } else if (!reaped && NowMs() - started > limit_s * 1000) {
      kill(pid, SIGKILL);
      result.timed_out = true;
    }
  }
  for (const pollfd& fd : fds) {
    if (fd.fd >= 0) close(fd.fd);
  }
  return result;
}

// A report with its timings, the only part that differs between two runs
// of the same cases, blanked: "(12 ms)" becomes "(N ms)".
inline std::string WithoutTimings(std::string_view report) {
  std::string out;
  size_t i = 0;
  while (i < report.size()) {
    if (report[i] == '(' && i + 1 < report.size() && report[i + 1] >= '0' &&
        report[i + 1] <= '9') {
      size_t j = i + 1;
      while (j < report.size() && report[j] >= '0' && report[j] <= '9') ++j;
      if (report.substr(j, 3) == " ms") {
        out += "(N";
        i = j;
        continue;
      }
    }
    out += report[i++];
  }
  return out;
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
