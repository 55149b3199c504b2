// The logger under concurrent use: threads set masks through every entry
// point, create and clear custom groups, and log, all at once.
//
// Every mask written during the run has the Warning bit set and the
// Verbose bit clear. So whatever the interleaving, each Warning statement
// of a predefined group must reach liblog exactly once, and no Verbose
// statement may reach it at all: a torn, lost or misdirected mask write
// breaks one of the two counts.
#include <android/log.h>
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include "logging/vek_log.h"
#include "logging/vek_logger.h"
#include "osal/vek_error.h"
#include "stress_support.h"
#include "vek_log_capture.h"

namespace vek_stress {
namespace {

using namespace std::chrono_literals;
using zov_vek::CustomLogGroupManager;
using zov_vek::Logger;
using zov_vek::PredefinedGroup;
using zov_vek::PredefinedLogGroupManager;
using zov_vek::VekError;

constexpr uint32_t kGroups = Logger::kPredefinedGroupCount;
constexpr unsigned int kCustomTags = 12;  // more than fit at once
constexpr unsigned int kOpsPerThread = 100000;
constexpr uint32_t kWarningBit = 1u << Logger::kWarning;
constexpr uint32_t kVerboseBit = 1u << Logger::kVerbose;
constexpr uint32_t kRestoredMask =
    (1u << Logger::kWarning) | (1u << Logger::kError);

// What reached liblog, by kind.
struct Received {
  uint64_t warning_by_group[kGroups] = {};
  uint64_t custom_warning = 0;
  uint64_t verbose = 0;
  uint64_t other = 0;
};

Received Count(const std::vector<vek_test::LogLine>& lines) {
  Received r;
  for (const vek_test::LogLine& line : lines) {
    if (line.priority == ANDROID_LOG_VERBOSE) {
      r.verbose++;
    } else if (line.priority != ANDROID_LOG_WARN) {
      r.other++;
    } else if (line.tag.compare(0, 7, "STRESS_") == 0) {
      r.custom_warning++;
    } else {
      uint32_t g = 0;
      while (g < kGroups &&
             line.tag != Logger::GetTag(static_cast<PredefinedGroup>(g))) {
        ++g;
      }
      if (g < kGroups) {
        r.warning_by_group[g]++;
      } else {
        r.other++;
      }
    }
  }
  return r;
}

std::string CustomTag(unsigned int i) { return "STRESS_" + std::to_string(i); }

// Any tag the writers may use: predefined, custom, or all of them.
std::string AnyTag(std::minstd_rand& rng) {
  const unsigned int pick = rng() % (kGroups + kCustomTags + 1);
  if (pick < kGroups) {
    return Logger::GetTag(static_cast<PredefinedGroup>(pick));
  }
  if (pick < kGroups + kCustomTags) return CustomTag(pick - kGroups);
  return "*";
}

class LoggerStressTest : public testing::Test {
 protected:
  void SetUp() override { Restore(); }
  void TearDown() override { Restore(); }
  static void Restore() {
    Logger& logger = Logger::GetLogger();
    EXPECT_EQ(VekError::kOk, logger.SetLogLevelMask("*", kRestoredMask));
    EXPECT_EQ(VekError::kOk, logger.ClearCustomGroups());
  }

  vek_test::LogCapture capture_;
};

TEST_F(LoggerStressTest, ConcurrentMaskWritesGroupChurnAndLogging) {
  Deadline deadline("logger stress", 300s);
  constexpr unsigned int kWriters = 3;
  constexpr unsigned int kChurners = 1;
  constexpr unsigned int kLoggers = 4;
  std::atomic<uint64_t> warnings_sent[kGroups] = {};
  std::atomic<uint64_t> custom_sent{0};
  std::atomic<unsigned int> too_many_groups{0};
  std::atomic<unsigned int> failures{0};

  RunOsalThreads(kWriters + kChurners + kLoggers, [&](unsigned int index) {
    std::minstd_rand rng(index + 1);
    Logger& logger = Logger::GetLogger();
    auto mask = [&]() -> uint32_t {
      return (static_cast<uint32_t>(rng()) | kWarningBit) & ~kVerboseBit;
    };
    auto check = [&](VekError err, bool may_be_full) {
      if (err == VekError::kOk) return;
      if (may_be_full && err == VekError::kErrParam) return;
      failures++;
    };
    for (unsigned int op = 0; op < kOpsPerThread; ++op) {
      if (index < kWriters) {
        const auto group = static_cast<PredefinedGroup>(rng() % kGroups);
        switch (rng() % 7) {
          case 0:
            check(logger.SetLogLevelMask(group, mask()), false);
            break;
          case 1:
            // A new custom tag is refused while eight groups exist.
            check(logger.SetLogLevelMask(AnyTag(rng), mask()), true);
            break;
          case 2:
            check(PredefinedLogGroupManager::SetLogMask(group, mask()), false);
            break;
          case 3:
            check(PredefinedLogGroupManager::SetLogMaskAllGroups(mask()),
                  false);
            break;
          case 4:
            // Absent groups are refused; it never creates one.
            check(CustomLogGroupManager::SetLogMask(
                      CustomTag(rng() % kCustomTags), mask()),
                  true);
            break;
          case 5: {
            std::pair<zov_vek::LogConfigUpdate, zov_vek::LogConfigTargetGroup>
                update{{0, mask(), 0}, {0, Logger::GetTag(group)}};
            check(zov_vek::HandleLogConfigUpdate(update), false);
            break;
          }
          default: {
            std::pair<zov_vek::LogConfigUpdate, zov_vek::LogConfigTargetGroup>
                update{{0, mask(), 0}, {1, CustomTag(rng() % kCustomTags)}};
            check(zov_vek::HandleLogConfigUpdate(update), true);
            break;
          }
        }
      } else if (index < kWriters + kChurners) {
        if (rng() % 16 == 0) {
          check(logger.ClearCustomGroups(), false);
        } else {
          // Reading an unknown tag creates its group while there is room.
          const uint32_t m =
              logger.GetLogLevelMask(CustomTag(rng() % kCustomTags));
          if (m != 0 && ((m & kWarningBit) == 0 || (m & kVerboseBit) != 0)) {
            failures++;
          }
        }
        if (logger.CustomGroupCount() > Logger::kMaxCustomLogGroups) {
          too_many_groups++;
        }
      } else {
        const uint32_t g = rng() % kGroups;
        switch (rng() % 4) {
          case 0:
            LOG_WARNING(g, "stress warning %u", op);
            warnings_sent[g]++;
            break;
          case 1:
            LOG_VERBOSE(g, "stress verbose %u", op);
            break;
          case 2:
            LOG_CUSTOM_WARNING(CustomTag(rng() % kCustomTags),
                               "stress custom warning %u", op);
            custom_sent++;
            break;
          default:
            LOG_CUSTOM_VERBOSE(CustomTag(rng() % kCustomTags),
                               "stress custom verbose %u", op);
            break;
        }
      }
    }
  });

  EXPECT_EQ(0u, failures.load());
  EXPECT_EQ(0u, too_many_groups.load());
  const Received received = Count(capture_.Take());
  for (uint32_t g = 0; g < kGroups; ++g) {
    EXPECT_EQ(warnings_sent[g].load(), received.warning_by_group[g])
        << "group " << Logger::GetTag(static_cast<PredefinedGroup>(g));
  }
  // A custom statement is dropped when its group cannot exist (eight
  // others do), so only an upper bound holds.
  EXPECT_LE(received.custom_warning, custom_sent.load());
  EXPECT_EQ(0u, received.verbose);
  EXPECT_EQ(0u, received.other);

  // Quiet again, the logger is whole: one "*" reaches every group.
  Logger& logger = Logger::GetLogger();
  EXPECT_LE(logger.CustomGroupCount(), Logger::kMaxCustomLogGroups);
  ASSERT_EQ(VekError::kOk, logger.SetLogLevelMask("*", 31));
  for (uint32_t g = 0; g < kGroups; ++g) {
    EXPECT_EQ(31u, logger.GetLogLevelMask(static_cast<PredefinedGroup>(g)));
  }
  for (unsigned int i = 0; i < kCustomTags; ++i) {
    const uint32_t m = logger.GetLogLevelMask(CustomTag(i));
    // Existing groups got 31; new ones start from the default, also 31;
    // tags beyond the eighth group read 0.
    EXPECT_TRUE(m == 31u || m == 0u) << CustomTag(i) << " reads " << m;
  }
  EXPECT_EQ(Logger::kMaxCustomLogGroups, logger.CustomGroupCount());
}

}  // namespace
}  // namespace vek_stress
