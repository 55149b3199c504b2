// Shared pieces of the logging suites: the sample lines and the object that
// writes them from a header (where a group is a run-time value) and from a
// source file.
//
// Every sample line announces whether it should reach the system log
// ("EXPECT: VISIBLE") or not ("EXPECT: SUPPRESSED") under the masks that
// the cases set, so the log can be held against the claims.
#ifndef UT_VEK_UT_LOGGING_H_
#define UT_VEK_UT_LOGGING_H_

#include <android/log.h>

#include <cstdint>
#include <string>

#include "logging/vek_log.h"
#include "logging/vek_logger.h"
#include "osal/vek_error.h"

namespace zov_vek_unit_test {

constexpr unsigned int kSampleValue = 1234;
constexpr const char kPredefinedInfoTag[] = "vek-diag";
constexpr const char kCustomTag[] = "VEK_UT_DIAG";

#define UT_VISIBLE "VISIBLE"
#define UT_SUPPRESSED "SUPPRESSED"

// One sample line per level letter. `place` is src or hdr, `kind`
// predefined or custom, `sep` the separator after "val".
#define UT_SAMPLE_TEXT(claim, letter, place, kind, sep)           \
  "(EXPECT: " claim " /" letter ") Log from " place " with " kind \
  " tag, val" sep " %u!"

#define UT_SAMPLE_V(macro, group, claim, place, kind, sep) \
  macro(group, UT_SAMPLE_TEXT(claim, "V", place, kind, sep), kSampleValue)
#define UT_SAMPLE_D(macro, group, claim, place, kind, sep) \
  macro(group, UT_SAMPLE_TEXT(claim, "D", place, kind, sep), kSampleValue)
#define UT_SAMPLE_I(macro, group, claim, place, kind, sep) \
  macro(group, UT_SAMPLE_TEXT(claim, "I", place, kind, sep), kSampleValue)
#define UT_SAMPLE_W(macro, group, claim, place, kind, sep) \
  macro(group, UT_SAMPLE_TEXT(claim, "W", place, kind, sep), kSampleValue)
#define UT_SAMPLE_E(macro, group, claim, place, kind, sep) \
  macro(group, UT_SAMPLE_TEXT(claim, "E", place, kind, sep), kSampleValue)

// The five lines of one group, each with its own claim.
#define UT_SAMPLES_PREDEFINED(place, sep, group, v, d, i, w, e)   \
  do {                                                            \
    UT_SAMPLE_V(LOG_VERBOSE, group, v, place, "predefined", sep); \
    UT_SAMPLE_D(LOG_DEBUG, group, d, place, "predefined", sep);   \
    UT_SAMPLE_I(LOG_INFO, group, i, place, "predefined", sep);    \
    UT_SAMPLE_W(LOG_WARNING, group, w, place, "predefined", sep); \
    UT_SAMPLE_E(LOG_ERROR, group, e, place, "predefined", sep);   \
  } while (0)
#define UT_SAMPLES_CUSTOM(place, sep, tag, v, d, i, w, e)          \
  do {                                                             \
    UT_SAMPLE_V(LOG_CUSTOM_VERBOSE, tag, v, place, "custom", sep); \
    UT_SAMPLE_D(LOG_CUSTOM_DEBUG, tag, d, place, "custom", sep);   \
    UT_SAMPLE_I(LOG_CUSTOM_INFO, tag, i, place, "custom", sep);    \
    UT_SAMPLE_W(LOG_CUSTOM_WARNING, tag, w, place, "custom", sep); \
    UT_SAMPLE_E(LOG_CUSTOM_ERROR, tag, e, place, "custom", sep);   \
  } while (0)

#define UT_SRC_PREDEFINED(group, v, d, i, w, e) \
  UT_SAMPLES_PREDEFINED("src", "::", group, v, d, i, w, e)
#define UT_SRC_CUSTOM(tag, v, d, i, w, e) \
  UT_SAMPLES_CUSTOM("src", "::", tag, v, d, i, w, e)

constexpr uint32_t kAllLevels =
    (1 << zov_vek::Logger::kVerbose) | (1 << zov_vek::Logger::kDebug) |
    (1 << zov_vek::Logger::kInfo) | (1 << zov_vek::Logger::kWarning) |
    (1 << zov_vek::Logger::kError);
constexpr uint32_t kNoLevels = 0;

// Writes the sample lines of one group from the header and from the suite's
// source file, checking that every mask it sets reads back.
class LogSampleWriter {
 public:
  zov_vek::VekError TestMsgLogs();
  zov_vek::VekError TestMsgLogsCustom();

  zov_vek::VekError TestPredefGrpMsgLogsInHeader() {
    using zov_vek::Logger;
    unsigned int failures = 0;
    const char* tag = Logger::GetTag(group_);
    failures += SetAndCheck(
        tag, kAllLevels,
        [this](uint32_t mask) {
          return Logger::GetLogger().SetLogLevelMask(group_, mask);
        },
        [this] { return Logger::GetLogger().GetLogLevelMask(group_); });
    UT_SAMPLES_PREDEFINED("hdr", "::", group_, UT_VISIBLE, UT_VISIBLE,
                          UT_VISIBLE, UT_VISIBLE, UT_VISIBLE);
    failures += SetAndCheck(
        tag, kNoLevels,
        [this](uint32_t mask) {
          return Logger::GetLogger().SetLogLevelMask(group_, mask);
        },
        [this] { return Logger::GetLogger().GetLogLevelMask(group_); });
    UT_SAMPLES_PREDEFINED("hdr", "::", group_, UT_SUPPRESSED, UT_SUPPRESSED,
                          UT_SUPPRESSED, UT_SUPPRESSED, UT_SUPPRESSED);
    return failures == 0 ? zov_vek::VekError::kOk : zov_vek::VekError::kErr;
  }

  zov_vek::VekError TestCustGrpMsgLogsInHeader() {
    using zov_vek::Logger;
    unsigned int failures = 0;
    const std::string tag(kCustomTag);
    failures += SetAndCheck(
        kCustomTag, kAllLevels,
        [&tag](uint32_t mask) {
          return Logger::GetLogger().SetLogLevelMask(tag, mask);
        },
        [&tag] { return Logger::GetLogger().GetLogLevelMask(tag); });
    UT_SAMPLES_CUSTOM("hdr", ":", kCustomTag, UT_VISIBLE, UT_VISIBLE,
                      UT_VISIBLE, UT_VISIBLE, UT_VISIBLE);
    failures += SetAndCheck(
        kCustomTag, kNoLevels,
        [&tag](uint32_t mask) {
          return Logger::GetLogger().SetLogLevelMask(tag, mask);
        },
        [&tag] { return Logger::GetLogger().GetLogLevelMask(tag); });
    UT_SAMPLES_CUSTOM("hdr", ":", kCustomTag, UT_SUPPRESSED, UT_SUPPRESSED,
                      UT_SUPPRESSED, UT_SUPPRESSED, UT_SUPPRESSED);
    return failures == 0 ? zov_vek::VekError::kOk : zov_vek::VekError::kErr;
  }

  // Sets a mask and reads it back; 1 when the setter failed or the mask
  // read back differs, 0 otherwise. `info_tag` is where the outcome is
  // written.
  template <typename Setter, typename Getter>
  static unsigned int SetAndCheck(const char* info_tag, uint32_t mask,
                                  Setter set, Getter get) {
    if (set(mask) != zov_vek::VekError::kOk) {
      __android_log_print(ANDROID_LOG_INFO, info_tag,
                          "Failed to set mask to: %u!", mask);
      return 1;
    }
    const uint32_t read = get();
    if (read != mask) {
      __android_log_print(ANDROID_LOG_INFO, info_tag,
                          "Unexpected log mask value %u (expected %u)!", read,
                          mask);
      return 1;
    }
    __android_log_print(ANDROID_LOG_INFO, info_tag, "Set log mask to %u!",
                        read);
    return 0;
  }

 private:
  // The lines of this object are meant for the diagnostics group; holding
  // it as a value makes the header path look its tag up at run time.
  zov_vek::PredefinedGroup group_ = zov_vek::PredefinedGroup::kDiag;
};

}  // namespace zov_vek_unit_test

#endif  // UT_VEK_UT_LOGGING_H_
