// vek_ut_runner: runs the conformance executable so that a case that hangs
// or crashes costs that case, not the rest of the run.
//
// The executable gives each case a deadline and reports a hang or a fatal
// signal itself (runner/vek_ut_case_watchdog.cpp), then ends. This runner
// reads the executable's record stream, and when the process ends in the
// middle of the run it records the case as failed and starts the
// executable again on the cases after it, in the same order, until every
// case has run. It passes googletest's report through, replaces the closing
// summaries of the single runs by one for the whole run, and can write one
// JUnit XML file. A run without trouble prints what a plain run prints.
//
// With --check-log (host only) it also keeps what each process wrote to
// standard error, the system log of a host, and has vek_ut_logcheck hold it
// to the lines that the cases the process ran must write.
//
// Dependency-free on purpose: it must run on a fresh machine and on a
// device next to the executable.

#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <poll.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <regex>
#include <sstream>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "test/unit_test/osal/common/runner/vek_ut_case_events.h"
#include "vek_ut_runner/vek_ut_case_list.h"
#include "vek_ut_runner/vek_ut_verdicts.h"

extern char** environ;

namespace zov_vek_unit_test {
namespace runner {
namespace {

namespace events = case_events;

// Exit statuses of the runner itself.
constexpr int kAllPassed = 0;
constexpr int kSomeFailed = 1;
constexpr int kUsageError = 2;

// How long past its own deadline the executable may stay silent before the
// runner kills it: its watchdog reports within milliseconds, so this only
// catches hangs outside any case (a suite's set-up, exit handlers).
constexpr unsigned int kSilenceGraceS = 10;

constexpr char kDefaultExecutable[] = "vek_ut_osal_common";
constexpr char kLogChecker[] = "vek_ut_logcheck";
// The entry of the log check in the summary and the XML report.
constexpr char kLogCheckSuite[] = "vek_ut_logcheck";
constexpr char kLogCheckName[] = "SystemLog";

constexpr char kUsage[] =
    "usage: vek_ut_runner [--exe=<program>] [--case-timeout=<s>] "
    "[--xml=<file>]\n"
    "                     [--check-log] [googletest options...]\n"
    "\n"
    "Runs <program> (default: vek_ut_osal_common next to this runner) on\n"
    "the cases that its options select. When a case hangs or crashes, the\n"
    "case is recorded as failed and <program> starts again on the cases\n"
    "after it, in the same order, until all have run. Prints googletest's\n"
    "report with one closing summary; exits 0 only if every case passed,\n"
    "1 if any failed, 2 on a usage error.\n"
    "\n"
    "  --exe=<program>     the googletest executable to run\n"
    "  --case-timeout=<s>  per-case deadline in whole seconds (sets\n"
    "                      VEK_UT_CASE_TIMEOUT_S; 0 disables; default 60)\n"
    "  --xml=<file>        also write one JUnit XML report of the whole run\n"
    "  --check-log         hold each process's standard error (the system\n"
    "                      log on a host) to the lines that its cases must\n"
    "                      write (vek_ut_logcheck, next to this runner);\n"
    "                      one more entry: vek_ut_logcheck.SystemLog\n"
    "  --help              this text\n"
    "\n"
    "Every other argument goes to <program>. --gtest_output and\n"
    "--gtest_repeat are refused: use --xml, and run the runner again.\n";

int64_t MonotonicMs() {
  struct timespec now;
  clock_gettime(CLOCK_MONOTONIC, &now);
  return static_cast<int64_t>(now.tv_sec) * 1000 + now.tv_nsec / 1000000;
}

int64_t EpochMs() {
  struct timespec now;
  clock_gettime(CLOCK_REALTIME, &now);
  return static_cast<int64_t>(now.tv_sec) * 1000 + now.tv_nsec / 1000000;
}

void WriteOut(std::string_view text) {
  fwrite(text.data(), 1, text.size(), stdout);
  fflush(stdout);
}

const char* SignalName(int sig) {
  switch (sig) {
    case SIGSEGV:
      return "SIGSEGV";
    case SIGBUS:
      return "SIGBUS";
    case SIGILL:
      return "SIGILL";
    case SIGFPE:
      return "SIGFPE";
    case SIGABRT:
      return "SIGABRT";
    case SIGKILL:
      return "SIGKILL";
    case SIGTERM:
      return "SIGTERM";
    case SIGINT:
      return "SIGINT";
    case SIGPIPE:
      return "SIGPIPE";
    case SIGTRAP:
      return "SIGTRAP";
    case SIGSYS:
      return "SIGSYS";
    default:
      return nullptr;
  }
}

std::string DescribeSignal(int sig) {
  const char* name = SignalName(sig);
  return name != nullptr ? name : "signal " + std::to_string(sig);
}

// --- Command line ---------------------------------------------------------

struct Options {
  std::string executable;
  std::string xml_path;
  bool has_case_timeout = false;
  unsigned int case_timeout_s = 0;
  bool check_log = false;
  bool help = false;
  std::vector<std::string> passed_on;  // to the executable, in order
};

bool TakeValue(const std::string& arg, std::string_view name,
               std::string* value) {
  if (arg.compare(0, name.size(), name) != 0) return false;
  *value = arg.substr(name.size());
  return true;
}

bool ParseOptions(int argc, char** argv, Options* options, std::string* error) {
  for (int i = 1; i < argc; ++i) {
    const std::string arg = argv[i];
    std::string value;
    if (arg == "--help" || arg == "-h") {
      options->help = true;
    } else if (arg == "--check-log") {
      options->check_log = true;
    } else if (TakeValue(arg, "--exe=", &value)) {
      if (value.empty()) {
        *error = "--exe needs a program";
        return false;
      }
      options->executable = value;
    } else if (TakeValue(arg, "--xml=", &value)) {
      if (value.empty()) {
        *error = "--xml needs a file name";
        return false;
      }
      options->xml_path = value;
    } else if (TakeValue(arg, "--case-timeout=", &value)) {
      if (!events::ParseTimeoutSeconds(value.c_str(),
                                       &options->case_timeout_s)) {
        *error = "--case-timeout takes whole seconds up to " +
                 std::to_string(events::kMaxCaseTimeoutS) + ", not \"" + value +
                 "\"";
        return false;
      }
      options->has_case_timeout = true;
    } else {
      options->passed_on.push_back(arg);
    }
  }
  return true;
}

// The googletest flags that change what the runner must do, resolved as
// googletest resolves them: the environment first, the command line after.
struct GtestFlags {
  bool brief = false;
  bool print_time = true;
  bool also_run_disabled = false;
  bool fail_fast = false;
  bool list_tests = false;
  bool help = false;
  std::string output;
  std::string repeat = "1";
};

// "--gtest_<name>" or "--gtest_<name>=<value>".
bool MatchFlag(const std::string& arg, const std::string& name,
               std::string* value, bool* bare) {
  const std::string flag = "--gtest_" + name;
  if (arg.compare(0, flag.size(), flag) != 0) return false;
  if (arg.size() == flag.size()) {
    *bare = true;
    value->clear();
    return true;
  }
  if (arg[flag.size()] != '=') return false;
  *bare = false;
  *value = arg.substr(flag.size() + 1);
  return true;
}

bool FlagTrue(const std::string& value, bool bare) {
  return bare || !(value[0] == '0' || value[0] == 'f' || value[0] == 'F');
}

GtestFlags ResolveFlags(const std::vector<std::string>& args) {
  GtestFlags flags;
  const auto env_bool = [](const char* name, bool* flag) {
    const char* value = getenv(name);
    if (value != nullptr) *flag = strcmp(value, "0") != 0;
  };
  env_bool("GTEST_BRIEF", &flags.brief);
  env_bool("GTEST_PRINT_TIME", &flags.print_time);
  env_bool("GTEST_ALSO_RUN_DISABLED_TESTS", &flags.also_run_disabled);
  env_bool("GTEST_FAIL_FAST", &flags.fail_fast);
  if (const char* output = getenv("GTEST_OUTPUT")) flags.output = output;
  if (const char* repeat = getenv("GTEST_REPEAT")) flags.repeat = repeat;

  const std::pair<const char*, bool*> bools[] = {
      {"brief", &flags.brief},
      {"print_time", &flags.print_time},
      {"also_run_disabled_tests", &flags.also_run_disabled},
      {"fail_fast", &flags.fail_fast},
      {"list_tests", &flags.list_tests},
      {"help", &flags.help},
  };
  for (const std::string& arg : args) {
    std::string value;
    bool bare = false;
    for (const auto& [name, flag] : bools) {
      if (MatchFlag(arg, name, &value, &bare)) *flag = FlagTrue(value, bare);
    }
    if (MatchFlag(arg, "output", &value, &bare) && !bare) flags.output = value;
    if (MatchFlag(arg, "repeat", &value, &bare) && !bare) flags.repeat = value;
  }
  return flags;
}

// A program of the build, next to this runner.
std::string NextToRunner(const char* program) {
  char self[PATH_MAX];
  const ssize_t length = readlink("/proc/self/exe", self, sizeof(self) - 1);
  if (length <= 0) return program;
  std::string path(self, static_cast<size_t>(length));
  const size_t slash = path.rfind('/');
  return path.substr(0, slash + 1) + program;
}

// --- One run of the executable --------------------------------------------

struct ChildEnd {
  pid_t pid = 0;
  int status = 0;              // as waitpid gives it
  bool killed_silent = false;  // killed by the runner for its silence
  int64_t silent_s = 0;
  int64_t elapsed_ms = 0;
  bool start_failed = false;
  int start_errno = 0;
};

// Splits a byte stream into lines; a cut-off last line comes out at the end.
class LineSplitter {
 public:
  template <typename Sink>
  void Feed(const char* data, size_t size, Sink&& sink) {
    pending_.append(data, size);
    size_t begin = 0;
    while (true) {
      const size_t newline = pending_.find('\n', begin);
      if (newline == std::string::npos) break;
      sink(std::string_view(pending_).substr(begin, newline + 1 - begin));
      begin = newline + 1;
    }
    pending_.erase(0, begin);
  }
  template <typename Sink>
  void Finish(Sink&& sink) {
    if (!pending_.empty()) sink(std::string_view(pending_));
    pending_.clear();
  }

 private:
  std::string pending_;
};

struct ChildHooks {
  // Each line of standard output, with its newline (the last may lack it).
  std::function<void(std::string_view)> on_output;
  // Each record, without its newline.
  std::function<void(std::string_view)> on_record;
  // What the child writes to standard error, as it comes; unset, the child
  // writes to the runner's.
  std::function<void(std::string_view)> on_error;
  // The silence limit in seconds as the run goes on (0: none).
  std::function<int64_t()> silence_limit_s;
  // The child's standard input, if not the runner's.
  int input_fd = -1;
};

// The words that start the executable: on a cross build, the emulator that
// its tests name in VEK_TEST_EMULATOR (an absolute path first), then the
// executable; natively the executable alone.
std::vector<std::string> CommandFor(const std::string& executable) {
  std::vector<std::string> words;
  if (const char* emulator = getenv("VEK_TEST_EMULATOR")) {
    std::istringstream in(emulator);
    for (std::string word; in >> word;) words.push_back(word);
  }
  words.push_back(executable);
  return words;
}

ChildEnd RunChild(const std::string& executable,
                  const std::vector<std::string>& args,
                  const std::vector<std::string>& extra_env,
                  const ChildHooks& hooks) {
  ChildEnd end;
  int output[2];
  int records[2];
  if (pipe2(output, O_CLOEXEC) != 0) {
    end.start_failed = true;
    end.start_errno = errno;
    return end;
  }
  if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, records) != 0) {
    end.start_failed = true;
    end.start_errno = errno;
    close(output[0]);
    close(output[1]);
    return end;
  }
  int errors[2] = {-1, -1};
  if (hooks.on_error && pipe2(errors, O_CLOEXEC) != 0) {
    end.start_failed = true;
    end.start_errno = errno;
    for (const int fd : {output[0], output[1], records[0], records[1]}) {
      close(fd);
    }
    return end;
  }

  // Everything the child needs is built before fork().
  std::vector<std::string> env_strings;
  const std::string fd_prefix = std::string(events::kEventFdEnv) + "=";
  for (char** entry = environ; *entry != nullptr; ++entry) {
    const std::string_view text(*entry);
    bool replaced = text.compare(0, fd_prefix.size(), fd_prefix) == 0;
    for (const std::string& extra : extra_env) {
      const size_t eq = extra.find('=');
      replaced |= text.compare(0, eq + 1, extra, 0, eq + 1) == 0;
    }
    if (!replaced) env_strings.emplace_back(text);
  }
  env_strings.push_back(fd_prefix + std::to_string(records[1]));
  for (const std::string& extra : extra_env) env_strings.push_back(extra);
  std::vector<char*> envp;
  for (std::string& entry : env_strings) envp.push_back(entry.data());
  envp.push_back(nullptr);

  std::vector<std::string> arg_strings = CommandFor(executable);
  arg_strings.insert(arg_strings.end(), args.begin(), args.end());
  std::vector<char*> argv;
  for (std::string& arg : arg_strings) argv.push_back(arg.data());
  argv.push_back(nullptr);

  fflush(stdout);
  fflush(stderr);
  const int64_t started = MonotonicMs();
  const pid_t pid = fork();
  if (pid == 0) {
    dup2(output[1], STDOUT_FILENO);
    if (errors[1] >= 0) dup2(errors[1], STDERR_FILENO);
    if (hooks.input_fd >= 0) dup2(hooks.input_fd, STDIN_FILENO);
    fcntl(records[1], F_SETFD, 0);
    // The runner ignores SIGPIPE; the executable gets the usual action.
    signal(SIGPIPE, SIG_DFL);
    execve(arg_strings[0].c_str(), argv.data(), envp.data());
    const int error = errno;
    dprintf(STDERR_FILENO, "vek_ut_runner: cannot start %s: %s\n",
            executable.c_str(), strerror(error));
    _exit(127);
  }
  close(output[1]);
  close(records[1]);
  if (errors[1] >= 0) close(errors[1]);
  if (pid < 0) {
    end.start_failed = true;
    end.start_errno = errno;
    close(output[0]);
    close(records[0]);
    if (errors[0] >= 0) close(errors[0]);
    return end;
  }
  end.pid = pid;

  LineSplitter output_lines;
  LineSplitter record_lines;
  const auto on_record = [&](std::string_view line) {
    if (!line.empty() && line.back() == '\n') line.remove_suffix(1);
    hooks.on_record(line);
  };
  // Records first: the ones written before a line of output are then taken
  // before that line.
  struct pollfd fds[3] = {
      {records[0], POLLIN, 0}, {output[0], POLLIN, 0}, {errors[0], POLLIN, 0}};
  int64_t last_record = started;
  bool reaped = false;
  while (true) {
    // Once the child is gone, take what is left without waiting: a
    // grandchild may still hold the descriptors open. (poll skips closed
    // entries, and with none left it only waits.)
    const int ready = poll(fds, 3, reaped ? 0 : 100);
    for (int i = 0; ready > 0 && i < 3; ++i) {
      if (fds[i].fd < 0 || fds[i].revents == 0) continue;
      char buffer[65536];
      const ssize_t n = read(fds[i].fd, buffer, sizeof(buffer));
      if (n > 0) {
        if (i == 0) {
          last_record = MonotonicMs();
          record_lines.Feed(buffer, static_cast<size_t>(n), on_record);
        } else if (i == 1) {
          output_lines.Feed(buffer, static_cast<size_t>(n), hooks.on_output);
        } else {
          hooks.on_error(std::string_view(buffer, static_cast<size_t>(n)));
        }
      } else if (n == 0 || errno != EINTR) {
        close(fds[i].fd);
        fds[i].fd = -1;
      }
    }
    if (reaped && ready <= 0) break;
    if (!reaped) {
      const pid_t done = waitpid(pid, &end.status, WNOHANG);
      if (done == pid) {
        reaped = true;
        end.elapsed_ms = MonotonicMs() - started;
        continue;
      }
      const int64_t limit_s = hooks.silence_limit_s();
      const int64_t silent_ms = MonotonicMs() - last_record;
      if (limit_s > 0 && !end.killed_silent && silent_ms > limit_s * 1000) {
        end.killed_silent = true;
        end.silent_s = silent_ms / 1000;
        kill(pid, SIGKILL);
      }
    }
  }
  for (int i = 0; i < 3; ++i) {
    if (fds[i].fd >= 0) close(fds[i].fd);
  }
  record_lines.Finish(on_record);
  output_lines.Finish(hooks.on_output);
  return end;
}

// --- Passing the report through -------------------------------------------

std::string WithoutColor(std::string_view line) {
  std::string plain;
  for (size_t i = 0; i < line.size(); ++i) {
    if (line[i] == '\033' && i + 1 < line.size() && line[i + 1] == '[') {
      i += 2;
      while (i < line.size() && line[i] != 'm') ++i;
      continue;
    }
    plain += line[i];
  }
  return plain;
}

// Passes one run's report through, without its closing summary (the runner
// prints one for the whole run) and, for a restart, without the lines that
// repeat the start of the first run or spell out the runner's filter.
class ReportFilter {
 public:
  explicit ReportFilter(bool restart) : restart_(restart) {}

  void Line(std::string_view line, bool may_drop_closing) {
    if (closed_) return;
    const std::string plain = WithoutColor(line);
    if (may_drop_closing && std::regex_search(plain, Closing())) {
      closed_ = true;
      return;
    }
    if (restart_ && !dropped_main_ &&
        plain.compare(0, 20, "Running main() from ") == 0) {
      dropped_main_ = true;
      return;
    }
    if (restart_ && !dropped_filter_ &&
        plain.compare(0, 27, "Note: Google Test filter = ") == 0) {
      dropped_filter_ = true;
      return;
    }
    WriteOut(line);
    open_line_ = line.empty() || line.back() != '\n';
  }

  // A run cut off in the middle of a line leaves it open; what follows
  // starts on a line of its own.
  void End() {
    if (open_line_) WriteOut("\n");
    open_line_ = false;
  }

 private:
  static const std::regex& Closing() {
    static const std::regex closing(
        "^\\[==========\\] [0-9]+ tests? from [0-9]+ test suites? ran\\.");
    return closing;
  }

  const bool restart_;
  bool closed_ = false;
  bool dropped_main_ = false;
  bool dropped_filter_ = false;
  bool open_line_ = false;
};

// --- The supervised run ---------------------------------------------------

// What one process of the executable wrote to standard error, and the
// cases it started.
struct ProcessLog {
  pid_t pid = 0;
  std::string errors;
  std::vector<size_t> cases;  // into the verdict book
};

class Supervisor {
 public:
  Supervisor(const Options& options, const GtestFlags& flags,
             unsigned int expected_timeout_s)
      : options_(options),
        flags_(flags),
        expected_timeout_s_(expected_timeout_s) {
    if (options_.has_case_timeout) {
      extra_env_.push_back(std::string(events::kCaseTimeoutEnv) + "=" +
                           std::to_string(options_.case_timeout_s));
    }
  }

  int Run() {
    start_epoch_ms_ = EpochMs();
    std::vector<PlannedCase> planned;
    if (!ListCases(&planned)) return kSomeFailed;
    book_ = std::make_unique<VerdictBook>(planned, flags_.also_run_disabled);

    bool restart = false;
    bool speaks = true;
    while (true) {
      const size_t started_before = book_->started_count();
      const size_t failures_before = book_->failure_count();
      const size_t reported_before = book_->reported_end_count();
      const ChildEnd end = RunOnce(restart, &speaks);
      if (end.start_failed) {
        fprintf(stderr, "vek_ut_runner: cannot start %s: %s\n",
                options_.executable.c_str(), strerror(end.start_errno));
        return kSomeFailed;
      }
      if (!speaks) return PlainResult(end);
      if (book_->reported_end_count() == reported_before) {
        Settle(end, failures_before);
      }

      const std::vector<size_t> unstarted = book_->Unstarted();
      if (unstarted.empty()) break;
      if (book_->started_count() == started_before) {
        // No progress: starting again would only do the same.
        NoteTrouble("stopped before it ran " +
                    book_->cases()[unstarted.front()].planned.FullName());
        book_->EndUnstarted(Outcome::kNotRun,
                            "the executable stopped before this case");
        break;
      }
      if (flags_.fail_fast && !book_->Passed()) {
        book_->EndUnstarted(Outcome::kSkipped, "");
        break;
      }
      restart = true;
    }
    if (options_.check_log) CheckLog();

    ClosingStyle style;
    style.brief = flags_.brief;
    style.print_time = flags_.print_time;
    style.also_run_disabled = flags_.also_run_disabled;
    WriteOut(FormatClosing(*book_, total_ms_, style));

    if (!options_.xml_path.empty() && !WriteXml()) return kSomeFailed;
    return book_->Passed() && !trouble_ ? kAllPassed : kSomeFailed;
  }

 private:
  int64_t SilenceLimitS() const {
    const int announced = book_ ? book_->announced_timeout_s() : -1;
    const int64_t timeout =
        announced >= 0 ? announced : static_cast<int64_t>(expected_timeout_s_);
    return timeout == 0 ? 0 : timeout + kSilenceGraceS;
  }

  bool ListCases(std::vector<PlannedCase>* planned) {
    std::vector<std::string> args = options_.passed_on;
    args.push_back("--gtest_list_tests");
    std::string listing;
    ChildHooks hooks;
    hooks.on_output = [&](std::string_view line) { listing += line; };
    hooks.on_record = [](std::string_view) {};
    hooks.silence_limit_s = [this] { return SilenceLimitS(); };
    const ChildEnd end = RunChild(options_.executable, args, extra_env_, hooks);
    if (end.start_failed || !WIFEXITED(end.status) ||
        WEXITSTATUS(end.status) != 0) {
      fputs(listing.c_str(), stderr);
      fprintf(stderr, "vek_ut_runner: %s --gtest_list_tests failed (%s)\n",
              options_.executable.c_str(), Describe(end).c_str());
      return false;
    }
    *planned = ParseCaseList(listing);
    return true;
  }

  ChildEnd RunOnce(bool restart, bool* speaks) {
    std::vector<std::string> args;
    if (!restart) {
      args = options_.passed_on;
    } else {
      // The remaining cases by name replace the user's filter; they are a
      // subset of what it selected.
      std::string value;
      bool bare = false;
      for (const std::string& arg : options_.passed_on) {
        if (!MatchFlag(arg, "filter", &value, &bare)) args.push_back(arg);
      }
      std::vector<const PlannedCase*> remaining;
      for (const size_t i : book_->Unstarted()) {
        remaining.push_back(&book_->cases()[i].planned);
      }
      args.push_back("--gtest_filter=" + FilterFor(remaining));
    }

    bool heard = false;
    ReportFilter filter(restart);
    ChildHooks hooks;
    hooks.on_record = [&](std::string_view record) {
      heard = true;
      book_->Apply(record, EpochMs());
    };
    // Only an executable that reports its cases gets its closing replaced.
    hooks.on_output = [&](std::string_view line) { filter.Line(line, heard); };
    hooks.silence_limit_s = [&]() -> int64_t {
      return heard ? SilenceLimitS() : 0;
    };
    ProcessLog log;
    std::vector<bool> started_before;
    if (options_.check_log) {
      hooks.on_error = [&log](std::string_view text) {
        fwrite(text.data(), 1, text.size(), stderr);
        log.errors += text;
      };
      for (const CaseVerdict& verdict : book_->cases()) {
        started_before.push_back(verdict.started);
      }
    }
    const ChildEnd end = RunChild(options_.executable, args, extra_env_, hooks);
    filter.End();
    total_ms_ += end.elapsed_ms;
    *speaks = heard;
    if (options_.check_log) {
      log.pid = end.pid;
      for (size_t i = 0; i < started_before.size(); ++i) {
        if (book_->cases()[i].started && !started_before[i]) {
          log.cases.push_back(i);
        }
      }
      if (!log.cases.empty()) process_logs_.push_back(std::move(log));
    }
    return end;
  }

  // Each process is a run of the cases it started, however it ended; its
  // standard error is held to what they must write. The verdict is one
  // more entry of the run.
  void CheckLog() {
    const std::string name = std::string(kLogCheckSuite) + "." + kLogCheckName;
    WriteOut("[ RUN      ] " + name + "\n");
    const int64_t started = MonotonicMs();
    const int64_t start_epoch_ms = EpochMs();
    std::string report;
    bool passed = true;
    for (const ProcessLog& log : process_logs_) {
      passed &= CheckProcessLog(log, &report);
    }
    const int64_t elapsed_ms = MonotonicMs() - started;
    WriteOut((passed ? "[       OK ] " : "[  FAILED  ] ") + name + " (" +
             std::to_string(elapsed_ms) + " ms)\n");
    book_->AddCheck(kLogCheckSuite, kLogCheckName, passed, kLogChecker, report,
                    start_epoch_ms, elapsed_ms);
  }

  bool CheckProcessLog(const ProcessLog& log, std::string* report) {
    // The checker reads the log from its standard input: a file that is
    // gone once both let go of it.
    FILE* kept = tmpfile();
    if (kept == nullptr ||
        fwrite(log.errors.data(), 1, log.errors.size(), kept) !=
            log.errors.size() ||
        fflush(kept) != 0 || fseek(kept, 0, SEEK_SET) != 0) {
      const std::string text = std::string(
                                   "vek_ut_runner: cannot keep the "
                                   "log for the check: ") +
                               strerror(errno) + "\n";
      fputs(text.c_str(), stderr);
      *report += text;
      if (kept != nullptr) fclose(kept);
      return false;
    }
    std::vector<const PlannedCase*> cases;
    for (const size_t i : log.cases)
      cases.push_back(&book_->cases()[i].planned);
    std::vector<std::string> args = {"--pid=" + std::to_string(log.pid),
                                     "--gtest_filter=" + FilterFor(cases)};
    if (flags_.also_run_disabled) {
      args.push_back("--gtest_also_run_disabled_tests");
    }
    args.push_back("-");
    ChildHooks hooks;
    hooks.input_fd = fileno(kept);
    hooks.on_output = [&](std::string_view line) {
      WriteOut(line);
      *report += line;
    };
    hooks.on_error = [&](std::string_view text) {
      fwrite(text.data(), 1, text.size(), stderr);
      *report += text;
    };
    hooks.on_record = [](std::string_view) {};
    hooks.silence_limit_s = [] { return int64_t{0}; };
    const ChildEnd end = RunChild(NextToRunner(kLogChecker), args, {}, hooks);
    fclose(kept);
    if (WIFEXITED(end.status) && WEXITSTATUS(end.status) <= 1 &&
        !end.start_failed) {
      return WEXITSTATUS(end.status) == 0;
    }
    const std::string text = std::string("vek_ut_runner: ") + kLogChecker +
                             " " + Describe(end) + "\n";
    fputs(text.c_str(), stderr);
    *report += text;
    return false;
  }

  // Accounts for an end that the executable did not report itself.
  void Settle(const ChildEnd& end, size_t failures_before) {
    const bool signaled = WIFSIGNALED(end.status);
    const int code = WIFEXITED(end.status) ? WEXITSTATUS(end.status) : -1;
    const size_t running = book_->running();
    if (running != VerdictBook::kNone) {
      // The executable could not report this end itself.
      const std::string name = book_->cases()[running].planned.FullName();
      if (end.killed_silent) {
        const std::string detail = std::to_string(end.silent_s) + " s";
        WriteOut("[  HUNG    ] " + name + " (" + detail +
                 " without a report; killed)\n");
        book_->EndRunning(Outcome::kHung, detail, EpochMs());
      } else if (signaled) {
        const std::string detail = DescribeSignal(WTERMSIG(end.status));
        WriteOut("[  CRASHED ] " + name + " (" + detail + ")\n");
        book_->EndRunning(Outcome::kCrashed, detail, EpochMs());
      } else {
        const std::string detail = "status " + std::to_string(code);
        WriteOut("[  FAILED  ] " + name + " (exited with " + detail + ")\n");
        book_->EndRunning(Outcome::kExited, detail, EpochMs());
      }
      return;
    }
    // Between cases: the status must agree with what the cases reported.
    const bool failed = book_->failure_count() > failures_before;
    if (end.killed_silent) {
      NoteTrouble("was silent for " + std::to_string(end.silent_s) +
                  " s outside any case and was killed");
    } else if (signaled) {
      NoteTrouble("ended by " + DescribeSignal(WTERMSIG(end.status)) +
                  " outside any case");
    } else if (code != (failed ? 1 : 0)) {
      NoteTrouble("exited with status " + std::to_string(code) +
                  (failed ? " after failures" : " although no case failed"));
    }
  }

  int PlainResult(const ChildEnd& end) {
    fprintf(stderr,
            "vek_ut_runner: %s does not report its cases (is it built with "
            "the case watchdog?); its own result stands\n",
            options_.executable.c_str());
    return WIFEXITED(end.status) && WEXITSTATUS(end.status) == 0 ? kAllPassed
                                                                 : kSomeFailed;
  }

  void NoteTrouble(const std::string& what) {
    trouble_ = true;
    fprintf(stderr, "vek_ut_runner: %s %s\n", options_.executable.c_str(),
            what.c_str());
  }

  static std::string Describe(const ChildEnd& end) {
    if (end.start_failed) return "could not start";
    if (end.killed_silent)
      return "killed after " + std::to_string(end.silent_s) + " s";
    if (WIFSIGNALED(end.status)) return DescribeSignal(WTERMSIG(end.status));
    return "exit status " + std::to_string(WEXITSTATUS(end.status));
  }

  bool WriteXml() {
    const std::string xml = FormatJUnitXml(*book_, total_ms_, start_epoch_ms_);
    FILE* file = fopen(options_.xml_path.c_str(), "w");
    bool written = file != nullptr;
    if (written) {
      written = fwrite(xml.data(), 1, xml.size(), file) == xml.size();
      written = fclose(file) == 0 && written;
    }
    if (!written) {
      fprintf(stderr, "vek_ut_runner: cannot write %s: %s\n",
              options_.xml_path.c_str(), strerror(errno));
    }
    return written;
  }

  const Options& options_;
  const GtestFlags& flags_;
  const unsigned int expected_timeout_s_;
  std::vector<std::string> extra_env_;
  std::unique_ptr<VerdictBook> book_;
  std::vector<ProcessLog> process_logs_;
  int64_t start_epoch_ms_ = 0;
  int64_t total_ms_ = 0;
  bool trouble_ = false;
};

int Main(int argc, char** argv) {
  Options options;
  std::string error;
  if (!ParseOptions(argc, argv, &options, &error)) {
    fprintf(stderr, "vek_ut_runner: %s\n\n%s", error.c_str(), kUsage);
    return kUsageError;
  }
  if (options.help) {
    fputs(kUsage, stdout);
    return kAllPassed;
  }
  if (options.executable.empty()) {
    options.executable = NextToRunner(kDefaultExecutable);
  }
  if (options.check_log &&
      access(NextToRunner(kLogChecker).c_str(), X_OK) != 0) {
    fprintf(stderr, "vek_ut_runner: --check-log needs %s: %s\n",
            NextToRunner(kLogChecker).c_str(), strerror(errno));
    return kUsageError;
  }
  if (access(options.executable.c_str(), X_OK) != 0) {
    fprintf(stderr, "vek_ut_runner: cannot run %s: %s\n",
            options.executable.c_str(), strerror(errno));
    return kUsageError;
  }

  const GtestFlags flags = ResolveFlags(options.passed_on);
  if (flags.list_tests || flags.help) {
    // Nothing runs: the executable answers for itself.
    std::vector<std::string> words = CommandFor(options.executable);
    std::vector<char*> argv_child;
    for (std::string& word : words) argv_child.push_back(word.data());
    for (std::string& arg : options.passed_on) argv_child.push_back(arg.data());
    argv_child.push_back(nullptr);
    execv(words[0].c_str(), argv_child.data());
    fprintf(stderr, "vek_ut_runner: cannot start %s: %s\n",
            options.executable.c_str(), strerror(errno));
    return kUsageError;
  }
  if (!flags.output.empty()) {
    fprintf(stderr,
            "vek_ut_runner: --gtest_output (or GTEST_OUTPUT) would be "
            "overwritten by every restart; use --xml=<file>\n");
    return kUsageError;
  }
  if (flags.repeat != "1") {
    fprintf(stderr,
            "vek_ut_runner: --gtest_repeat (or GTEST_REPEAT) is not "
            "supported; run the runner again\n");
    return kUsageError;
  }
  if (getenv("GTEST_TOTAL_SHARDS") != nullptr ||
      getenv("GTEST_SHARD_INDEX") != nullptr) {
    fprintf(stderr,
            "vek_ut_runner: sharding (GTEST_TOTAL_SHARDS) is not supported; "
            "restarts would run other shards' cases\n");
    return kUsageError;
  }

  // The deadline the executable will use, for listing the cases; a run
  // announces its own.
  unsigned int timeout_s = events::kDefaultCaseTimeoutS;
  if (options.has_case_timeout) {
    timeout_s = options.case_timeout_s;
  } else if (const char* text = getenv(events::kCaseTimeoutEnv)) {
    events::ParseTimeoutSeconds(text, &timeout_s);
  }

  // A runner whose reader went away must not die of it mid-summary.
  signal(SIGPIPE, SIG_IGN);
  return Supervisor(options, flags, timeout_s).Run();
}

}  // namespace
}  // namespace runner
}  // namespace zov_vek_unit_test

int main(int argc, char** argv) {
  return zov_vek_unit_test::runner::Main(argc, argv);
}
