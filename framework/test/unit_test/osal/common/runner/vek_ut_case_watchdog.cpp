// Gives every case of the executable a deadline and a last word.
//
// A port under construction hangs and crashes. googletest alone would then
// wait forever, or die without naming the case. This listener arms a
// watchdog for each case; when the case outlives its deadline, or a fatal
// signal arrives while it runs, it prints in the report's own style which
// case it was and which cases did not run, and ends the process with a
// failure status. tools/vek_ut_runner resumes the run behind that case.
//
// While cases end normally it prints nothing, so a healthy run's report is
// googletest's own, byte for byte.
//
// Nothing here uses libvekosal: the port under test is what may be broken.

#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "test/unit_test/osal/common/runner/vek_ut_case_events.h"

namespace zov_vek_unit_test {
namespace {

namespace events = case_events;

constexpr int kFatalSignals[] = {SIGSEGV, SIGBUS, SIGILL, SIGFPE, SIGABRT};
constexpr size_t kFatalSignalCount = sizeof(kFatalSignals) / sizeof(int);

// Room for the crash report even when the case overflowed its own stack.
constexpr size_t kAltStackSize = 64 * 1024;

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
    default:
      return "signal";
  }
}

// Async-signal-safe. Gives up on the first error: a dying process has no
// one to tell.
void WriteAll(int fd, const char* data, size_t size) {
  while (size > 0) {
    const ssize_t n = write(fd, data, size);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return;
    data += n;
    size -= static_cast<size_t>(n);
  }
}

void WriteAll(int fd, const std::string& text) {
  WriteAll(fd, text.data(), text.size());
}

// Async-signal-safe. MSG_NOSIGNAL: a runner that went away must not turn
// our report into a SIGPIPE.
void SendAll(int fd, const char* data, size_t size) {
  while (fd >= 0 && size > 0) {
    const ssize_t n = send(fd, data, size, MSG_NOSIGNAL);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return;
    data += n;
    size -= static_cast<size_t>(n);
  }
}

std::string CountOfTests(size_t count) {
  return std::to_string(count) + (count == 1 ? " test" : " tests");
}

// The runner's socket, or -1 when the executable runs on its own. Taken
// from the environment once, before anything else can start processes.
int TakeEventFd() {
  const char* text = getenv(events::kEventFdEnv);
  if (text == nullptr) return -1;
  char* end = nullptr;
  const long fd = strtol(text, &end, 10);  // NOLINT(runtime/int)
  const bool parsed = end != text && *end == '\0' && fd >= 0 && fd < 65536;
  // Processes that the cases start must not write into the runner's stream.
  unsetenv(events::kEventFdEnv);
  struct stat st;
  if (!parsed || fstat(static_cast<int>(fd), &st) != 0 ||
      !S_ISSOCK(st.st_mode)) {
    fprintf(stderr, "vek_ut: ignoring %s: not a socket descriptor\n",
            events::kEventFdEnv);
    return -1;
  }
  fcntl(static_cast<int>(fd), F_SETFD, FD_CLOEXEC);
  return static_cast<int>(fd);
}

unsigned int ReadCaseTimeout() {
  const char* text = getenv(events::kCaseTimeoutEnv);
  unsigned int seconds = events::kDefaultCaseTimeoutS;
  if (text != nullptr && !events::ParseTimeoutSeconds(text, &seconds)) {
    // stderr: the report on stdout stays googletest's.
    fprintf(stderr,
            "vek_ut: ignoring %s=\"%s\" (whole seconds, at most %u); the "
            "deadline stays %u s\n",
            events::kCaseTimeoutEnv, text, events::kMaxCaseTimeoutS,
            events::kDefaultCaseTimeoutS);
    seconds = events::kDefaultCaseTimeoutS;
  }
  return seconds;
}

// Everything that the signal handler writes for the running case, formatted
// when the case starts: a handler may not allocate or format.
struct LastWords {
  std::string crashed_prefix;  // "[  CRASHED ] Suite.Case ("
  std::string not_run;         // the cases after this one, or empty
  std::string crashed_event;   // "crashed\tSuite.Case\t"
};

// Shared with the signal handler.
int g_event_fd = -1;
pid_t g_program_pid = 0;
std::atomic<const LastWords*> g_last_words{nullptr};
// Set by the handler before it takes the last words. The next case then
// never starts: its start would rewrite the words the handler is writing
// out, and run cases that the report lists as not run.
std::atomic<bool> g_reporting_crash{false};
struct sigaction g_previous_actions[kFatalSignalCount];

void OnFatalSignal(int sig, siginfo_t* /*info*/, void* /*context*/) {
  const int saved_errno = errno;
  // A fork()ed death-test child dies on purpose; it reports nothing. The
  // exchange keeps a second crashing thread from reporting twice.
  const LastWords* words = nullptr;
  if (getpid() == g_program_pid) {
    g_reporting_crash.store(true);
    words = g_last_words.exchange(nullptr);
  }
  const char* name = SignalName(sig);
  size_t name_length = 0;
  while (name[name_length] != '\0') ++name_length;
  if (words != nullptr) {
    WriteAll(STDOUT_FILENO, words->crashed_prefix);
    WriteAll(STDOUT_FILENO, name, name_length);
    WriteAll(STDOUT_FILENO, ")\n", 2);
    WriteAll(STDOUT_FILENO, words->not_run);
    SendAll(g_event_fd, words->crashed_event.data(),
            words->crashed_event.size());
    SendAll(g_event_fd, name, name_length);
    SendAll(g_event_fd, "\n", 1);
  }
  // Back to what was there before (the default action unless a tool such
  // as a sanitizer installed its own; never "ignore", which would send a
  // faulting instruction round again). The signal is blocked until we
  // return, then ends the process with the status it would have had.
  for (size_t i = 0; i < kFatalSignalCount; ++i) {
    if (kFatalSignals[i] != sig) continue;
    struct sigaction action = g_previous_actions[i];
    if ((action.sa_flags & SA_SIGINFO) == 0 && action.sa_handler == SIG_IGN) {
      action.sa_handler = SIG_DFL;
    }
    sigaction(sig, &action, nullptr);
  }
  raise(sig);
  errno = saved_errno;
}

class CaseWatchdog : public testing::EmptyTestEventListener {
 public:
  explicit CaseWatchdog(int event_fd) { g_event_fd = event_fd; }

  ~CaseWatchdog() override { StopWatching(); }

  CaseWatchdog(const CaseWatchdog&) = delete;
  CaseWatchdog& operator=(const CaseWatchdog&) = delete;

  void OnTestProgramStart(const testing::UnitTest& /*unit_test*/) override {
    g_program_pid = getpid();
    timeout_s_ = ReadCaseTimeout();
    SendRecord({events::kHello, std::to_string(events::kProtocol),
                std::to_string(timeout_s_)});
    InstallSignalHandlers();
    if (timeout_s_ > 0) watcher_ = std::thread([this] { Watch(); });
  }

  // The run order is fixed here (after any shuffling), so the cases that
  // did not run can be named without asking googletest from a dying
  // process.
  void OnTestIterationStart(const testing::UnitTest& unit_test,
                            int /*iteration*/) override {
    order_.clear();
    not_run_lines_.clear();
    not_run_offsets_.clear();
    next_ = 0;
    for (int i = 0; i < unit_test.total_test_suite_count(); ++i) {
      const testing::TestSuite* suite = unit_test.GetTestSuite(i);
      for (int j = 0; j < suite->total_test_count(); ++j) {
        const testing::TestInfo* info = suite->GetTestInfo(j);
        if (!info->should_run()) continue;
        order_.push_back(info);
        not_run_offsets_.push_back(not_run_lines_.size());
        not_run_lines_ += "[  NOT RUN ] ";
        not_run_lines_ += FullName(*info);
        not_run_lines_ += '\n';
      }
    }
  }

  void OnTestStart(const testing::TestInfo& info) override {
    const std::string name = FullName(info);
    PrepareLastWords(info, name);
    SendRecord({events::kStart, name});
    std::lock_guard<std::mutex> lock(mutex_);
    running_ = name;
    deadline_ = Clock::now() + std::chrono::seconds(timeout_s_);
    ++generation_;
    armed_ = true;
    wake_.notify_one();
  }

  void OnTestPartResult(const testing::TestPartResult& result) override {
    const char* kind = nullptr;
    switch (result.type()) {
      case testing::TestPartResult::kSuccess:
        return;
      case testing::TestPartResult::kSkip:
        kind = events::kPartSkip;
        break;
      case testing::TestPartResult::kNonFatalFailure:
      case testing::TestPartResult::kFatalFailure:
        kind = events::kPartFailure;
        break;
    }
    SendRecord({events::kPart, kind,
                events::Escape(result.file_name() ? result.file_name() : ""),
                std::to_string(result.line_number()),
                events::Escape(result.summary()),
                events::Escape(result.message())});
  }

  void OnTestEnd(const testing::TestInfo& info) override {
    {
      std::lock_guard<std::mutex> lock(mutex_);
      armed_ = false;
      wake_.notify_one();
    }
    g_last_words.store(nullptr);
    const testing::TestResult& result = *info.result();
    const char* verdict = result.Skipped()  ? events::kSkipped
                          : result.Failed() ? events::kFailed
                                            : events::kPassed;
    SendRecord({events::kEnd, FullName(info), verdict,
                std::to_string(result.elapsed_time())});
  }

  void OnTestSuiteEnd(const testing::TestSuite& suite) override {
    if (suite.ad_hoc_test_result().Failed()) {
      SendRecord({events::kSuiteFailed, suite.name()});
    }
  }

  void OnTestIterationEnd(const testing::UnitTest& unit_test,
                          int /*iteration*/) override {
    if (unit_test.ad_hoc_test_result().Failed()) {
      SendRecord({events::kGlobalFailed});
    }
  }

  void OnTestProgramEnd(const testing::UnitTest& /*unit_test*/) override {
    StopWatching();
    RestoreSignalHandlers();
  }

 private:
  using Clock = std::chrono::steady_clock;

  static std::string FullName(const testing::TestInfo& info) {
    return std::string(info.test_suite_name()) + "." + info.name();
  }

  void SendRecord(const std::vector<std::string>& fields) {
    if (g_event_fd < 0) return;
    std::string record;
    for (const std::string& field : fields) {
      if (!record.empty()) record += '\t';
      record += field;
    }
    record += '\n';
    // Failures may be reported from the cases' own threads.
    std::lock_guard<std::mutex> lock(send_mutex_);
    SendAll(g_event_fd, record.data(), record.size());
  }

  void PrepareLastWords(const testing::TestInfo& info,
                        const std::string& name) {
    // Cases start in plan order; one that is not in the plan (started by
    // some other listener) is reported without a guess about the others.
    size_t index = next_;
    while (index < order_.size() && order_[index] != &info) ++index;
    if (index < order_.size()) next_ = index + 1;
    std::string not_run;
    if (index + 1 < order_.size()) {
      not_run = "[  NOT RUN ] " + CountOfTests(order_.size() - index - 1) +
                ", listed below:\n";
      not_run.append(not_run_lines_, not_run_offsets_[index + 1],
                     std::string::npos);
    }
    // Unpublished while it changes: a handler sees the old case or none.
    // Checked after unpublishing: a handler that took the old words has
    // set the flag first, and this thread stays here until the process
    // ends.
    g_last_words.store(nullptr);
    while (g_reporting_crash.load()) pause();
    words_.crashed_prefix = "[  CRASHED ] " + name + " (";
    words_.not_run = std::move(not_run);
    words_.crashed_event = std::string(events::kCrashed) + '\t' + name + '\t';
    g_last_words.store(&words_);
  }

  void InstallSignalHandlers() {
    alt_stack_.reset(new char[kAltStackSize]);
    stack_t stack = {};
    stack.ss_sp = alt_stack_.get();
    stack.ss_size = kAltStackSize;
    stack.ss_flags = 0;
    have_previous_stack_ = sigaltstack(&stack, &previous_stack_) == 0;

    struct sigaction action = {};
    action.sa_sigaction = &OnFatalSignal;
    action.sa_flags = SA_SIGINFO | SA_ONSTACK;
    sigemptyset(&action.sa_mask);
    for (size_t i = 0; i < kFatalSignalCount; ++i) {
      sigaction(kFatalSignals[i], &action, &g_previous_actions[i]);
    }
    handlers_installed_ = true;
  }

  void RestoreSignalHandlers() {
    if (!handlers_installed_) return;
    g_last_words.store(nullptr);
    for (size_t i = 0; i < kFatalSignalCount; ++i) {
      sigaction(kFatalSignals[i], &g_previous_actions[i], nullptr);
    }
    if (have_previous_stack_) sigaltstack(&previous_stack_, nullptr);
    handlers_installed_ = false;
  }

  void Watch() {
    std::unique_lock<std::mutex> lock(mutex_);
    while (!stopping_) {
      if (!armed_) {
        wake_.wait(lock);
        continue;
      }
      const uint64_t generation = generation_;
      const Clock::time_point deadline = deadline_;
      const bool ended = wake_.wait_until(lock, deadline, [&] {
        return stopping_ || !armed_ || generation_ != generation;
      });
      // Still holding the lock: the main thread cannot start another case
      // or end this one while the report is written.
      if (!ended) ReportHangAndExit();
    }
  }

  [[noreturn]] void ReportHangAndExit() {
    const LastWords* words = g_last_words.exchange(nullptr);
    std::string text = "[  HUNG    ] " + running_ + " (" +
                       std::to_string(timeout_s_) + " s)\n";
    if (words != nullptr) text += words->not_run;
    // What googletest and the case have buffered comes first. The hung case
    // may hold the stream's lock; then that text is lost, but not ours.
    if (ftrylockfile(stdout) == 0) fflush(stdout);
    WriteAll(STDOUT_FILENO, text);
    const std::string record = std::string(events::kHung) + '\t' + running_ +
                               '\t' + std::to_string(timeout_s_) + '\n';
    // Wait for no one: a case thread stuck in the middle of a record can
    // only cost that record.
    static_cast<void>(send_mutex_.try_lock());
    SendAll(g_event_fd, record.data(), record.size());
    // Not exit(): the hung case may hold locks that destructors need.
    _exit(1);
  }

  void StopWatching() {
    {
      std::lock_guard<std::mutex> lock(mutex_);
      stopping_ = true;
      wake_.notify_one();
    }
    if (watcher_.joinable()) watcher_.join();
  }

  unsigned int timeout_s_ = events::kDefaultCaseTimeoutS;

  // Main thread only.
  std::vector<const testing::TestInfo*> order_;
  std::string not_run_lines_;
  std::vector<size_t> not_run_offsets_;
  size_t next_ = 0;
  LastWords words_;
  std::unique_ptr<char[]> alt_stack_;
  stack_t previous_stack_ = {};
  bool have_previous_stack_ = false;
  bool handlers_installed_ = false;

  std::mutex send_mutex_;

  // Shared with the watcher thread, under mutex_.
  std::mutex mutex_;
  std::condition_variable wake_;
  bool armed_ = false;
  bool stopping_ = false;
  uint64_t generation_ = 0;
  Clock::time_point deadline_;
  std::string running_;
  std::thread watcher_;
};

// Appended, not prepended: googletest's printer keeps its place in the
// listener list, and this listener prints nothing on a healthy run.
struct Registrar {
  Registrar() {
    testing::UnitTest::GetInstance()->listeners().Append(
        new CaseWatchdog(TakeEventFd()));
  }
} registrar;

}  // namespace
}  // namespace zov_vek_unit_test
