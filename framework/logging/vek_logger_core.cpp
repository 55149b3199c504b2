// The process-wide logger and the configuration-update entry point.
#include <atomic>
#include <string>
#include <utility>

#include "logging/vek_logger.h"
#include "logging/vek_logger_fork.h"
#include "osal/vek_osal.h"

namespace zov_vek {

namespace {

constexpr uint32_t Bit(Logger::Level level) { return 1u << level; }

// Warnings and errors of every group reach the system log until a
// configuration says otherwise: what an operator needs to see on a device,
// without the volume of info and debug lines.
constexpr uint32_t kInitialPredefinedMask =
    Bit(Logger::kWarning) | Bit(Logger::kError);
constexpr uint32_t kInitialCustomMask =
    Bit(Logger::kWarning) | Bit(Logger::kError);

// The logger's mutex once the logger exists, for the fork hooks below.
std::atomic<AnnotatedOsalMutex*> fork_guarded_mutex{nullptr};
// Set only between the two hooks of one thread's fork(); per thread,
// because the C library lets other threads' fork handlers run in between.
thread_local AnnotatedOsalMutex* held_for_fork = nullptr;

}  // namespace

Logger::Logger(uint32_t predefined_mask, uint32_t custom_default_mask)
    : custom_default_mask_(custom_default_mask) {
  // Without its mutex the logger cannot work at all; there is no caller to
  // report to, so failing loudly here is the only honest option.
  if (mutex_.Init() != VekError::kOk) __builtin_trap();
  fork_guarded_mutex.store(&mutex_, std::memory_order_release);
  for (uint32_t value = 0; value < kPredefinedGroupCount; ++value) {
    const auto group = static_cast<PredefinedGroup>(value);
    predefined_groups_[value] = {group, {predefined_mask, GetTag(group)}};
  }
}

namespace log_internal {

Logger* published_logger = nullptr;

// The analysis cannot pair a lock taken in one hook with its release in the
// other.
void HoldLoggerForFork() VEK_NO_THREAD_SAFETY_ANALYSIS {
  AnnotatedOsalMutex* mutex =
      fork_guarded_mutex.load(std::memory_order_acquire);
  if (mutex == nullptr) return;
  mutex->Lock();
  held_for_fork = mutex;
}

void ReleaseLoggerAfterFork() VEK_NO_THREAD_SAFETY_ANALYSIS {
  if (held_for_fork == nullptr) return;
  held_for_fork->Unlock();
  held_for_fork = nullptr;
}

}  // namespace log_internal

Logger& Logger::GetLogger() {
  // Deliberately leaked: log statements stay valid in static destructors
  // and in threads that outlive main.
  static Logger* const logger = [] {
    auto* made = new Logger(kInitialPredefinedMask, kInitialCustomMask);
    __atomic_store_n(&log_internal::published_logger, made, __ATOMIC_RELEASE);
    return made;
  }();
  return *logger;
}

VekError HandleLogConfigUpdate(
    std::pair<LogConfigUpdate, LogConfigTargetGroup>& update) {
  const LogConfigUpdate& config = update.first;
  const LogConfigTargetGroup& target = update.second;
  constexpr uint32_t kSetLevelMask = 0;
  constexpr uint32_t kPredefinedTarget = 0;
  constexpr uint32_t kCustomTarget = 1;
  if (config.type != kSetLevelMask) return VekError::kErrNotSupported;

  Logger& logger = Logger::GetLogger();
  if (target.type == kPredefinedTarget) {
    for (uint32_t value = 0; value < Logger::kPredefinedGroupCount; ++value) {
      const auto group = static_cast<PredefinedGroup>(value);
      if (target.name == Logger::GetTag(group)) {
        return logger.SetLogLevelMask(group, config.log_mask);
      }
    }
    return VekError::kErrParam;
  }
  if (target.type == kCustomTarget) {
    // A custom group that has not logged yet is created, so the update is
    // in force from its first statement; kErrParam when no room is left.
    logger.mutex_.Lock();
    Logger::LogGroupConfig* group =
        logger.FindOrCreateCustomConfig(target.name);
    if (group != nullptr) group->mask = config.log_mask;
    logger.mutex_.Unlock();
    return group != nullptr ? VekError::kOk : VekError::kErrParam;
  }
  return VekError::kErrParam;
}

}  // namespace zov_vek
