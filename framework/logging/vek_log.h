// The framework's log statements.
//
// Each statement tests its level's bit in its group's mask before anything
// is formatted, so the arguments of a disabled statement are never
// evaluated. Lines go to the Android system log; the framework never builds
// a line in a buffer of its own.
//
// Groups are either a PredefinedGroup value (LOG_INFO(PredefinedGroup::kIpc,
// ...)) or, in the LOG_CUSTOM_* forms, a tag string. The entry, exit and
// return-if-null statements take either form.
#ifndef LOGGING_VEK_LOG_H_
#define LOGGING_VEK_LOG_H_

#include <android/log.h>

#include <cstdint>
#include <string>

#include "logging/vek_logger.h"

namespace zov_vek {
namespace log_internal {

constexpr int Priority(Logger::Level level) {
  return static_cast<int>(level) + ANDROID_LOG_VERBOSE;
}

inline bool Enabled(PredefinedGroup group, Logger::Level level) {
  return (FastLogger().GetLogLevelMask(group) & (1u << level)) != 0;
}

// A custom statement looks its group up anew every time (and creates it
// while there is room), so a mask set later takes effect at once.
inline bool Enabled(const std::string& tag, Logger::Level level) {
  return (Logger::GetLogger().GetLogLevelMask(tag) & (1u << level)) != 0;
}

inline const char* TagOf(PredefinedGroup group) {
  return Logger::GetTag(group);
}
inline const char* TagOf(const char* tag) { return tag; }
inline const char* TagOf(const std::string& tag) { return tag.c_str(); }

}  // namespace log_internal

// Writes ">> name()" when constructed and "<< name()" when destroyed, at
// info level, each against the mask as it is at that moment.
class LogScoped {
 public:
  LogScoped(const char* name, PredefinedGroup group)
      : name_(name), group_(static_cast<uint64_t>(group)), tag_(nullptr) {
    if (group_ < Logger::kPredefinedGroupCount &&
        log_internal::Enabled(group, Logger::kInfo)) {
      __android_log_print(ANDROID_LOG_INFO, Logger::GetTag(group), ">> %s()",
                          name_);
    }
  }

  LogScoped(const char* name, const char* tag)
      : name_(name),
        group_(static_cast<uint64_t>(PredefinedGroup::kDiag)),
        tag_(tag) {
    if (log_internal::Enabled(tag_, Logger::kInfo)) {
      __android_log_print(ANDROID_LOG_INFO, tag_, ">> %s()", name_);
    }
  }

  ~LogScoped() {
    if (tag_ != nullptr) {
      if (log_internal::Enabled(tag_, Logger::kInfo)) {
        __android_log_print(ANDROID_LOG_INFO, tag_, "<< %s()", name_);
      }
    } else if (group_ < Logger::kPredefinedGroupCount) {
      const auto group = static_cast<PredefinedGroup>(group_);
      if (log_internal::Enabled(group, Logger::kInfo)) {
        __android_log_print(ANDROID_LOG_INFO, Logger::GetTag(group), "<< %s()",
                            name_);
      }
    }
  }

  LogScoped(const LogScoped&) = delete;
  LogScoped& operator=(const LogScoped&) = delete;

 private:
  const char* name_;
  uint64_t group_;
  const char* tag_;
};

}  // namespace zov_vek

// The group expression is evaluated once; the format and its arguments only
// when the level is enabled. __android_log_print carries the printf format
// attribute, so every format is checked against its arguments.
#define VEK_LOG_AT_(group, level, fmt, ...)                                    \
  do {                                                                         \
    const auto& vek_log_group_ = (group);                                      \
    if (::zov_vek::log_internal::Enabled(vek_log_group_,                       \
                                         ::zov_vek::Logger::level)) {          \
      __android_log_print(                                                     \
          ::zov_vek::log_internal::Priority(::zov_vek::Logger::level),         \
          ::zov_vek::log_internal::TagOf(vek_log_group_), fmt, ##__VA_ARGS__); \
    }                                                                          \
  } while (0)

#define VEK_LOG_PREDEFINED_(group, level, fmt, ...)                       \
  VEK_LOG_AT_(static_cast<::zov_vek::PredefinedGroup>(group), level, fmt, \
              ##__VA_ARGS__)
#define VEK_LOG_CUSTOM_(tag, level, fmt, ...) \
  VEK_LOG_AT_(::std::string(tag), level, fmt, ##__VA_ARGS__)

#define LOG_VERBOSE(group, fmt, ...) \
  VEK_LOG_PREDEFINED_(group, kVerbose, fmt, ##__VA_ARGS__)
#define LOG_DEBUG(group, fmt, ...) \
  VEK_LOG_PREDEFINED_(group, kDebug, fmt, ##__VA_ARGS__)
#define LOG_INFO(group, fmt, ...) \
  VEK_LOG_PREDEFINED_(group, kInfo, fmt, ##__VA_ARGS__)
#define LOG_WARNING(group, fmt, ...) \
  VEK_LOG_PREDEFINED_(group, kWarning, fmt, ##__VA_ARGS__)
#define LOG_ERROR(group, fmt, ...) \
  VEK_LOG_PREDEFINED_(group, kError, "%s() " fmt, __func__, ##__VA_ARGS__)

#define LOG_CUSTOM_VERBOSE(tag, fmt, ...) \
  VEK_LOG_CUSTOM_(tag, kVerbose, fmt, ##__VA_ARGS__)
#define LOG_CUSTOM_DEBUG(tag, fmt, ...) \
  VEK_LOG_CUSTOM_(tag, kDebug, fmt, ##__VA_ARGS__)
#define LOG_CUSTOM_INFO(tag, fmt, ...) \
  VEK_LOG_CUSTOM_(tag, kInfo, fmt, ##__VA_ARGS__)
#define LOG_CUSTOM_WARNING(tag, fmt, ...) \
  VEK_LOG_CUSTOM_(tag, kWarning, fmt, ##__VA_ARGS__)
#define LOG_CUSTOM_ERROR(tag, fmt, ...) \
  VEK_LOG_CUSTOM_(tag, kError, "%s() " fmt, __func__, ##__VA_ARGS__)

// Entry and exit lines, at info level. The group is a PredefinedGroup or a
// custom tag string.
#define VEK_LOG_GROUP_(group) ::zov_vek::log_internal::GroupArg(group)
#define LOG_ENTRY(group) VEK_LOG_AT_(VEK_LOG_GROUP_(group), kInfo, ">> enter ")
#define LOG_ENTRY_ARGS(group, fmt, ...) \
  VEK_LOG_AT_(VEK_LOG_GROUP_(group), kInfo, ">> enter " fmt, ##__VA_ARGS__)
#define LOG_EXIT(group) VEK_LOG_AT_(VEK_LOG_GROUP_(group), kInfo, "<< exit ")
#define LOG_EXIT_ARGS(group, fmt, ...) \
  VEK_LOG_AT_(VEK_LOG_GROUP_(group), kInfo, "<< exit " fmt, ##__VA_ARGS__)
#define LOG_EXIT_RET(group, value)                                 \
  VEK_LOG_AT_(VEK_LOG_GROUP_(group), kInfo, "<< exit, returns %d", \
              static_cast<int>(value))

// Early returns on a null pointer, with an error line. The null test comes
// first; the line is subject to the mask, the return is not.
#define RETURN_IF_NULL(group, ptr)                           \
  do {                                                       \
    if ((ptr) == nullptr) {                                  \
      VEK_LOG_AT_(VEK_LOG_GROUP_(group), kError,             \
                  "%s() ptr is null. Returning.", __func__); \
      return;                                                \
    }                                                        \
  } while (0)
#define RETURN_VALUE_IF_NULL(group, ptr, ret)                      \
  do {                                                             \
    if ((ptr) == nullptr) {                                        \
      VEK_LOG_AT_(VEK_LOG_GROUP_(group), kError,                   \
                  "%s() ptr is null. Returning: " #ret, __func__); \
      return ret;                                                  \
    }                                                              \
  } while (0)

namespace zov_vek {
namespace log_internal {

// Normalises the group argument of the entry, exit and return statements:
// a PredefinedGroup stays one, any string form becomes a custom tag.
inline PredefinedGroup GroupArg(PredefinedGroup group) { return group; }
inline std::string GroupArg(const char* tag) { return std::string(tag); }
inline const std::string& GroupArg(const std::string& tag) { return tag; }

}  // namespace log_internal
}  // namespace zov_vek

#endif  // LOGGING_VEK_LOG_H_
