// The logger: Logger::GetLogger and HandleLogConfigUpdate from the port,
// and what the logging headers promise on top of them (masks by group and
// by tag, the "*" tag, statements that follow the masks and evaluate
// nothing while disabled).
//
// Nothing here reads the system log: a statement's fate shows in whether
// its arguments were evaluated. Each case starts and ends without custom
// groups (at most eight can exist) and puts back the predefined masks it
// found, so that what the port logs in later cases is not changed.
#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "logging/vek_log.h"
#include "logging/vek_logger.h"
#include "vek_contract.h"

namespace zov_vek_contract {
namespace {

using zov_vek::LogConfigTargetGroup;
using zov_vek::LogConfigUpdate;
using zov_vek::Logger;
using zov_vek::PredefinedGroup;

constexpr uint32_t kGroupCount = Logger::kPredefinedGroupCount;
constexpr uint32_t kWarningOnly = 1u << Logger::kWarning;
constexpr uint32_t kAllLevels = 31;

// The predefined groups by value, as the logging header names them.
constexpr const char* kTags[kGroupCount] = {
    "vek-dependency",     "vek-descriptor", "vek-diag",     "vek-engmngr",
    "vek-extnloader",     "vek-fw",         "vek-graph",    "vek-ipc",
    "vek-osal",           "vek-rm",         "vek-sched",    "vek-session",
    "vek-shared-utility", "vek-txn",        "vek-txn-data", "vek-unassigned",
};

PredefinedGroup Group(uint32_t value) {
  return static_cast<PredefinedGroup>(value);
}

Logger& Log() { return Logger::GetLogger(); }

int Touch(int& counter) { return ++counter; }

VekError Update(uint32_t target_type, const std::string& tag, uint32_t mask) {
  std::pair<LogConfigUpdate, LogConfigTargetGroup> update{{0, mask, 0},
                                                          {target_type, tag}};
  return zov_vek::HandleLogConfigUpdate(update);
}

class CleanLogger : public testing::Test {
 protected:
  void SetUp() override {
    ASSERT_EQ(Log().ClearCustomGroups(), VekError::kOk);
    // Reading a new tag makes a group with the default of later groups.
    custom_default_ = Log().GetLogLevelMask("contract-probe");
    ASSERT_EQ(Log().ClearCustomGroups(), VekError::kOk);
    for (uint32_t g = 0; g < kGroupCount; ++g) {
      saved_[g] = Log().GetLogLevelMask(Group(g));
    }
  }
  void TearDown() override {
    EXPECT_EQ(Log().SetLogLevelMask("*", custom_default_), VekError::kOk);
    for (uint32_t g = 0; g < kGroupCount; ++g) {
      EXPECT_EQ(Log().SetLogLevelMask(Group(g), saved_[g]), VekError::kOk);
    }
    EXPECT_EQ(Log().ClearCustomGroups(), VekError::kOk);
  }

 private:
  uint32_t saved_[kGroupCount] = {};
  uint32_t custom_default_ = 0;
};

using LoggerGetLogger = CleanLogger;
using LoggerSetLogLevelMask = CleanLogger;
using LogStatement = CleanLogger;

TEST_F(LoggerGetLogger, IsOneReadyLoggerForEveryCallerAndEveryThread) {
  Logger* const first = &Logger::GetLogger();
  for (int i = 0; i < 100; ++i) ASSERT_EQ(&Logger::GetLogger(), first);

  // Threads that call at once, each setting two groups through the logger
  // it got: every set must land where the main thread reads.
  constexpr int kThreads = kGroupCount / 2;
  std::atomic<Logger*> seen[kThreads] = {};
  ThreadGroup threads("logger_get");
  threads.Run(kThreads, [&](int i) {
    Logger* mine = &Logger::GetLogger();
    for (int call = 0; call < 1000 && mine == first; ++call) {
      mine = &Logger::GetLogger();
    }
    seen[i] = mine;
    for (uint32_t g = 2 * i; g < 2 * i + 2u; ++g) {
      mine->SetLogLevelMask(Group(g), g + 1);
    }
  });
  for (int i = 0; i < kThreads; ++i) EXPECT_EQ(seen[i].load(), first) << i;
  for (uint32_t g = 0; g < kGroupCount; ++g) {
    EXPECT_EQ(Logger::GetLogger().GetLogLevelMask(Group(g)), g + 1) << g;
  }
}

TEST_F(LoggerSetLogLevelMask, KeepsEveryPredefinedGroupApartByValueAndByTag) {
  for (uint32_t g = 0; g < kGroupCount; ++g) {
    ASSERT_EQ(Log().SetLogLevelMask(Group(g), g), VekError::kOk);
  }
  for (uint32_t g = 0; g < kGroupCount; ++g) {
    EXPECT_EQ(Log().GetLogLevelMask(Group(g)), g) << kTags[g];
  }
  // A predefined tag reaches the predefined group, never a custom one.
  for (uint32_t g = 0; g < kGroupCount; ++g) {
    ASSERT_EQ(Log().SetLogLevelMask(kTags[g], 16 + g), VekError::kOk);
  }
  for (uint32_t g = 0; g < kGroupCount; ++g) {
    EXPECT_EQ(Log().GetLogLevelMask(Group(g)), 16 + g) << kTags[g];
  }
  EXPECT_EQ(Log().CustomGroupCount(), 0u);
}

TEST_F(LoggerSetLogLevelMask, StarReachesEveryGroupAndTheGroupsMadeLater) {
  ASSERT_EQ(Log().SetLogLevelMask("early-one", 1), VekError::kOk);
  ASSERT_EQ(Log().SetLogLevelMask("early-two", 2), VekError::kOk);
  ASSERT_EQ(Log().SetLogLevelMask(PredefinedGroup::kIpc, 3), VekError::kOk);
  ASSERT_EQ(Log().SetLogLevelMask("*", 21), VekError::kOk);
  for (uint32_t g = 0; g < kGroupCount; ++g) {
    EXPECT_EQ(Log().GetLogLevelMask(Group(g)), 21u) << kTags[g];
  }
  EXPECT_EQ(Log().GetLogLevelMask("early-one"), 21u);
  EXPECT_EQ(Log().GetLogLevelMask("early-two"), 21u);
  EXPECT_EQ(Log().GetLogLevelMask("later"), 21u);
  // Clearing the groups leaves the default for the next ones.
  ASSERT_EQ(Log().ClearCustomGroups(), VekError::kOk);
  EXPECT_EQ(Log().GetLogLevelMask("after-clear"), 21u);
}

TEST_F(LogStatement, EvaluatesNoArgumentWhileDisabledAndEachOnceWhenEnabled) {
  const PredefinedGroup diag = PredefinedGroup::kDiag;
  ASSERT_EQ(Log().SetLogLevelMask("*", 0), VekError::kOk);
  int counter = 0;
  LOG_VERBOSE(diag, "contract: disabled %d", Touch(counter));
  LOG_DEBUG(diag, "contract: disabled %d", Touch(counter));
  LOG_INFO(diag, "contract: disabled %d", Touch(counter));
  LOG_WARNING(diag, "contract: disabled %d", Touch(counter));
  LOG_ERROR(diag, "contract: disabled %d", Touch(counter));
  LOG_CUSTOM_DEBUG("contract-quiet", "contract: disabled %d", Touch(counter));
  LOG_CUSTOM_ERROR("contract-quiet", "contract: disabled %d", Touch(counter));
  LOG_ENTRY_ARGS(diag, "contract: disabled %d", Touch(counter));
  LOG_EXIT_ARGS("contract-quiet", "contract: disabled %d", Touch(counter));
  LOG_EXIT_RET(diag, Touch(counter));
  EXPECT_EQ(counter, 0);

  ASSERT_EQ(Log().SetLogLevelMask("*", 1u << Logger::kVerbose), VekError::kOk);
  LOG_VERBOSE(diag, "contract: enabled %d", Touch(counter));
  LOG_CUSTOM_VERBOSE("contract-quiet", "contract: enabled %d", Touch(counter));
  EXPECT_EQ(counter, 2);
}

// What every group holds before an update: predefined group g holds g,
// and three custom groups, one of them named like a predefined group,
// hold 5, 6 and 7. Updates set 16 and above, so no update value is a
// value that some group already holds.
constexpr const char* kCustomTags[] = {"contract-one", "VEK_UT_DIAG",
                                       "vek-ipc"};
constexpr uint32_t kCustomCount = sizeof(kCustomTags) / sizeof(kCustomTags[0]);

struct Masks {
  uint32_t predefined[kGroupCount];
  uint32_t custom[kCustomCount];
};

Masks Baseline() {
  Masks masks = {};
  for (uint32_t g = 0; g < kGroupCount; ++g) masks.predefined[g] = g;
  for (uint32_t c = 0; c < kCustomCount; ++c) masks.custom[c] = 5 + c;
  return masks;
}

// Sets every group to the baseline. The custom "vek-ipc" can only be made
// by a read, which gives it the default that "*" sets.
void SetBaseline() {
  const Masks masks = Baseline();
  ASSERT_EQ(Log().ClearCustomGroups(), VekError::kOk);
  ASSERT_EQ(Log().SetLogLevelMask("*", masks.custom[2]), VekError::kOk);
  ASSERT_EQ(Log().GetLogLevelMask("vek-ipc"), masks.custom[2]);
  ASSERT_EQ(Log().SetLogLevelMask(kCustomTags[0], masks.custom[0]),
            VekError::kOk);
  ASSERT_EQ(Log().SetLogLevelMask(kCustomTags[1], masks.custom[1]),
            VekError::kOk);
  for (uint32_t g = 0; g < kGroupCount; ++g) {
    ASSERT_EQ(Log().SetLogLevelMask(Group(g), masks.predefined[g]),
              VekError::kOk);
  }
}

void ExpectMasks(const Masks& expected) {
  for (uint32_t g = 0; g < kGroupCount; ++g) {
    EXPECT_EQ(Log().GetLogLevelMask(Group(g)), expected.predefined[g])
        << "predefined " << kTags[g];
  }
  for (uint32_t c = 0; c < kCustomCount; ++c) {
    EXPECT_EQ(Log().GetLogLevelMask(kCustomTags[c]), expected.custom[c])
        << "custom " << kCustomTags[c];
  }
  EXPECT_EQ(Log().CustomGroupCount(), kCustomCount);
}

using HandleLogConfigUpdate = CleanLogger;

TEST_F(HandleLogConfigUpdate, SetsExactlyThePredefinedGroupItsTagNames) {
  for (uint32_t g = 0; g < kGroupCount; ++g) {
    SCOPED_TRACE(kTags[g]);
    SetBaseline();
    if (HasFatalFailure()) return;
    EXPECT_EQ(Update(0, kTags[g], 16 + g), VekError::kOk);
    Masks expected = Baseline();
    expected.predefined[g] = 16 + g;
    ExpectMasks(expected);
  }
}

TEST_F(HandleLogConfigUpdate, SetsExactlyTheExistingCustomGroupItsTagNames) {
  for (uint32_t c = 0; c < kCustomCount; ++c) {
    SCOPED_TRACE(kCustomTags[c]);
    SetBaseline();
    if (HasFatalFailure()) return;
    EXPECT_EQ(Update(1, kCustomTags[c], 24 + c), VekError::kOk);
    Masks expected = Baseline();
    expected.custom[c] = 24 + c;
    ExpectMasks(expected);
  }
}

TEST_F(HandleLogConfigUpdate, TheGroupsStatementsFollowTheNewMask) {
  const PredefinedGroup sched = PredefinedGroup::kSched;
  ASSERT_EQ(Log().SetLogLevelMask("*", 0), VekError::kOk);
  ASSERT_EQ(Log().SetLogLevelMask("contract-one", 0), VekError::kOk);
  int counter = 0;
  for (uint32_t mask : {kWarningOnly, kAllLevels & ~kWarningOnly}) {
    SCOPED_TRACE(testing::Message() << "mask " << mask);
    ASSERT_EQ(Update(0, "vek-sched", mask), VekError::kOk);
    ASSERT_EQ(Update(1, "contract-one", mask), VekError::kOk);
    counter = 0;
    LOG_WARNING(sched, "contract: warning %d", Touch(counter));
    LOG_CUSTOM_WARNING("contract-one", "contract: warning %d", Touch(counter));
    EXPECT_EQ(counter, mask == kWarningOnly ? 2 : 0);
    counter = 0;
    LOG_INFO(sched, "contract: info %d", Touch(counter));
    LOG_CUSTOM_INFO("contract-one", "contract: info %d", Touch(counter));
    EXPECT_EQ(counter, mask == kWarningOnly ? 0 : 2);
  }
}

}  // namespace
}  // namespace zov_vek_contract
