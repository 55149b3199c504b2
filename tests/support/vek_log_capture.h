// Captures what reaches liblog in this process, so that tests can assert
// the exact priority, tag and text of every line the framework writes.
// Free of googletest: the fuzz targets use it too.
#ifndef TESTS_SUPPORT_VEK_LOG_CAPTURE_H_
#define TESTS_SUPPORT_VEK_LOG_CAPTURE_H_

#include <android/log.h>

#include <mutex>
#include <string>
#include <utility>
#include <vector>

namespace vek_test {

struct LogLine {
  int priority;
  std::string tag;
  std::string text;

  bool operator==(const LogLine& other) const {
    return priority == other.priority && tag == other.tag && text == other.text;
  }
  bool operator!=(const LogLine& other) const { return !(*this == other); }
};

// While an instance lives, every line written through liblog is recorded
// instead of printed. One instance at a time.
class LogCapture {
 public:
  LogCapture() {
    Take();
    // Not under Mutex(): liblog calls Record with its own lock held, so
    // taking liblog's lock while holding ours could deadlock against a
    // thread that logs.
    __android_log_set_logger(&LogCapture::Record);
  }
  ~LogCapture() { __android_log_set_logger(__android_log_stderr_logger); }

  LogCapture(const LogCapture&) = delete;
  LogCapture& operator=(const LogCapture&) = delete;

  std::vector<LogLine> lines() const {
    std::lock_guard<std::mutex> lock(Mutex());
    return Lines();
  }

  // The lines recorded since the last call, which are then forgotten.
  std::vector<LogLine> Take() {
    std::vector<LogLine> taken;
    std::lock_guard<std::mutex> lock(Mutex());
    std::swap(taken, Lines());
    return taken;
  }

 private:
  static void Record(const struct __android_logger_data* data,
                     const char* message) {
    std::lock_guard<std::mutex> lock(Mutex());
    Lines().push_back(LogLine{data->priority, data->tag ? data->tag : "",
                              message ? message : ""});
  }
  static std::mutex& Mutex() {
    static std::mutex mutex;
    return mutex;
  }
  static std::vector<LogLine>& Lines() {
    static std::vector<LogLine> lines;
    return lines;
  }
};

}  // namespace vek_test

#endif  // TESTS_SUPPORT_VEK_LOG_CAPTURE_H_
