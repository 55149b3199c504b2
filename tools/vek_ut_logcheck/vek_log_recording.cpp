#include "vek_ut_logcheck/vek_log_recording.h"

#include <android/log.h>
#include <errno.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <stdlib.h>
#include <string.h>
#include <sys/wait.h>
#include <unistd.h>

#include <mutex>
#include <string_view>

#include "logging/vek_logger.h"
#include "test/unit_test/osal/common/runner/vek_ut_case_events.h"

extern char** environ;

namespace zov_vek_unit_test {
namespace logcheck {
namespace {

namespace events = case_events;

// A healthy reference run takes well under a second, under an emulator a
// few; a recording that outlives this hangs.
constexpr unsigned int kRecordingDeadlineS = 120;

// Records of the child's report, one a line, fields as in the case event
// stream.
constexpr char kCaseRecord[] = "case";
constexpr char kLineRecord[] = "line";
constexpr char kFailureRecord[] = "failure";
constexpr char kEndRecord[] = "end";

// The child's state; it has one thread of its own until the cases start
// theirs, and they log through Capture.
std::mutex g_mutex;
Recording* g_recording = nullptr;
size_t g_current_case = kNoCase;

void Capture(const struct __android_logger_data* data, const char* message) {
  std::lock_guard<std::mutex> lock(g_mutex);
  g_recording->lines.push_back(
      {g_current_case,
       {data->priority, data->tag != nullptr ? data->tag : "",
        message != nullptr ? message : ""}});
}

class CaseTracker : public testing::EmptyTestEventListener {
  void OnTestStart(const testing::TestInfo& info) override {
    std::lock_guard<std::mutex> lock(g_mutex);
    g_recording->cases.push_back(std::string(info.test_suite_name()) + "." +
                                 info.name());
    g_current_case = g_recording->cases.size() - 1;
  }
  void OnTestPartResult(const testing::TestPartResult& result) override {
    if (!result.failed()) return;
    std::lock_guard<std::mutex> lock(g_mutex);
    const std::string where = g_current_case == kNoCase
                                  ? "outside the cases"
                                  : g_recording->cases[g_current_case];
    g_recording->failures.push_back(
        where + ": " + (result.file_name() ? result.file_name() : "") + ":" +
        std::to_string(result.line_number()) + ": " + result.message());
  }
  void OnTestEnd(const testing::TestInfo&) override {
    std::lock_guard<std::mutex> lock(g_mutex);
    g_current_case = kNoCase;
  }
};

bool WriteAll(int fd, std::string_view data) {
  while (!data.empty()) {
    const ssize_t n = write(fd, data.data(), data.size());
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    data.remove_prefix(static_cast<size_t>(n));
  }
  return true;
}

std::string RecordLine(std::initializer_list<std::string_view> fields) {
  std::string line;
  for (const std::string_view field : fields) {
    if (!line.empty()) line += '\t';
    line += events::Escape(field);
  }
  return line + '\n';
}

// googletest's own variables would steer the recording away from the run
// it stands for (repeats, shuffling, an XML file); the selection stays.
void KeepOnlySelectionVariables() {
  std::vector<std::string> names;
  for (char** entry = environ; *entry != nullptr; ++entry) {
    const std::string_view text(*entry);
    const std::string_view name = text.substr(0, text.find('='));
    if (name.substr(0, 6) == "GTEST_" && name != "GTEST_FILTER" &&
        name != "GTEST_ALSO_RUN_DISABLED_TESTS") {
      names.emplace_back(name);
    }
  }
  for (const std::string& name : names) unsetenv(name.c_str());
}

[[noreturn]] void RunChild(int fd, uint32_t start_mask,
                           const std::vector<std::string>& gtest_args) {
  alarm(kRecordingDeadlineS);
  KeepOnlySelectionVariables();
  std::vector<std::string> words = {"vek_ut_logcheck"};
  words.insert(words.end(), gtest_args.begin(), gtest_args.end());
  std::vector<char*> argv;
  for (std::string& word : words) argv.push_back(word.data());
  argv.push_back(nullptr);
  int argc = static_cast<int>(words.size());
  testing::InitGoogleTest(&argc, argv.data());

  Recording recording;
  g_recording = &recording;
  zov_vek::Logger& logger = zov_vek::Logger::GetLogger();
  logger.ClearCustomGroups();
  logger.SetLogLevelMask("*", start_mask);
  // liblog's own threshold on a host would drop verbose and debug lines
  // before the masks are asked.
  __android_log_set_minimum_priority(ANDROID_LOG_VERBOSE);
  __android_log_set_logger(&Capture);
  testing::TestEventListeners& listeners =
      testing::UnitTest::GetInstance()->listeners();
  delete listeners.Release(listeners.default_result_printer());
  listeners.Append(new CaseTracker);
  const int result = RUN_ALL_TESTS();

  std::lock_guard<std::mutex> lock(g_mutex);
  std::string report;
  for (const std::string& name : recording.cases) {
    report += RecordLine({kCaseRecord, name});
  }
  for (const std::string& failure : recording.failures) {
    report += RecordLine({kFailureRecord, failure});
  }
  for (const RecordedLine& line : recording.lines) {
    report += RecordLine(
        {kLineRecord,
         line.case_index == kNoCase ? "-" : std::to_string(line.case_index),
         std::to_string(line.line.priority), line.line.tag, line.line.text});
  }
  report += RecordLine(
      {kEndRecord,
       std::to_string(testing::UnitTest::GetInstance()->total_test_count()),
       std::to_string(result)});
  // Threads of a broken case may still be logging: leave at once.
  _exit(WriteAll(fd, report) ? 0 : 3);
}

bool ReadRecords(int fd, Recording* recording, bool* ended) {
  std::string data;
  char buffer[65536];
  while (true) {
    const ssize_t n = read(fd, buffer, sizeof(buffer));
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) break;
    data.append(buffer, static_cast<size_t>(n));
  }
  std::string_view rest(data);
  while (!rest.empty()) {
    const size_t newline = rest.find('\n');
    if (newline == std::string_view::npos) return false;
    const std::vector<std::string_view> fields =
        events::SplitFields(rest.substr(0, newline));
    rest.remove_prefix(newline + 1);
    if (fields[0] == kCaseRecord && fields.size() == 2) {
      recording->cases.push_back(events::Unescape(fields[1]));
    } else if (fields[0] == kFailureRecord && fields.size() == 2) {
      recording->failures.push_back(events::Unescape(fields[1]));
    } else if (fields[0] == kLineRecord && fields.size() == 5) {
      RecordedLine line;
      if (fields[1] != "-") {
        line.case_index = std::stoul(std::string(fields[1]));
        if (line.case_index >= recording->cases.size()) return false;
      }
      line.line.priority = std::stoi(std::string(fields[2]));
      line.line.tag = events::Unescape(fields[3]);
      line.line.text = events::Unescape(fields[4]);
      recording->lines.push_back(std::move(line));
    } else if (fields[0] == kEndRecord && fields.size() == 3) {
      recording->registered = std::stoul(std::string(fields[1]));
      if (fields[2] != "0" && recording->failures.empty()) {
        recording->failures.push_back("the run did not pass");
      }
      *ended = true;
    } else {
      return false;
    }
  }
  return true;
}

}  // namespace

bool Record(uint32_t start_mask, const std::vector<std::string>& gtest_args,
            Recording* recording, std::string* error) {
  int pipe_fds[2];
  if (pipe(pipe_fds) != 0) {
    *error = std::string("pipe: ") + strerror(errno);
    return false;
  }
  fflush(stdout);
  fflush(stderr);
  const pid_t pid = fork();
  if (pid == 0) {
    close(pipe_fds[0]);
    RunChild(pipe_fds[1], start_mask, gtest_args);
  }
  close(pipe_fds[1]);
  if (pid < 0) {
    *error = std::string("fork: ") + strerror(errno);
    close(pipe_fds[0]);
    return false;
  }
  *recording = Recording();
  bool ended = false;
  const bool readable = ReadRecords(pipe_fds[0], recording, &ended);
  close(pipe_fds[0]);
  int status = 0;
  while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
  }

  const std::string what =
      "the recording with start masks " + std::to_string(start_mask);
  if (WIFSIGNALED(status)) {
    *error = what + " ended by signal " + std::to_string(WTERMSIG(status)) +
             (WTERMSIG(status) == SIGALRM
                  ? " (outlived " + std::to_string(kRecordingDeadlineS) + " s)"
                  : "");
    return false;
  }
  if (!readable || !ended || WEXITSTATUS(status) != 0) {
    *error = what + " ended without its report (status " +
             std::to_string(WEXITSTATUS(status)) + ")";
    return false;
  }
  return true;
}

std::vector<std::string> PredefinedTags() {
  std::vector<std::string> tags;
  for (uint32_t value = 0; value < zov_vek::Logger::kPredefinedGroupCount;
       ++value) {
    tags.emplace_back(
        zov_vek::Logger::GetTag(static_cast<zov_vek::PredefinedGroup>(value)));
  }
  return tags;
}

}  // namespace logcheck
}  // namespace zov_vek_unit_test
