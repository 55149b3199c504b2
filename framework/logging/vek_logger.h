// The framework's process-wide log configuration: one level mask per log
// group, sixteen predefined groups with fixed tags and up to eight custom
// groups created at run time under any tag.
//
// Logger::GetLogger and HandleLogConfigUpdate come from libvekosal, the
// rest is inline. Where their contract leaves a choice, "Our library:" says
// what this tree's libvekosal does (logging/vek_logger_core.cpp, built into
// every port).
#ifndef LOGGING_VEK_LOGGER_H_
#define LOGGING_VEK_LOGGER_H_

#include <cstddef>
#include <cstdint>
#include <string>
#include <unordered_map>
#include <utility>

#include "osal/vek_annotated_mutex.h"
#include "osal/vek_error.h"
#include "osal/vek_export.h"
#include "osal/vek_osal.h"
#include "osal/vek_thread_annotations.h"

namespace zov_vek {

enum class PredefinedGroup : uint32_t {
  kDependency = 0,
  kDescriptor = 1,
  kDiag = 2,
  kEngMngr = 3,
  kExtnLoader = 4,
  kFw = 5,
  kGraph = 6,
  kIpc = 7,
  kOsal = 8,
  kRm = 9,
  kSched = 10,
  kSession = 11,
  kSharedUtility = 12,
  kTxn = 13,
  kTxnData = 14,
  kUnassigned = 15,
};

namespace log_internal {

// Predefined masks are read on every log statement without the lock. These
// keep that read a single plain load while making the concurrent write a
// defined (relaxed atomic) access rather than a data race.
inline uint32_t LoadMask(const uint32_t& mask) {
  return __atomic_load_n(&mask, __ATOMIC_RELAXED);
}
inline void StoreMask(uint32_t& mask, uint32_t value) {
  __atomic_store_n(&mask, value, __ATOMIC_RELAXED);
}

}  // namespace log_internal

// Payload of a configuration update. type 0 sets the level mask to
// log_mask; param is reserved.
struct LogConfigUpdate {
  uint32_t type;
  uint32_t log_mask;
  uint32_t param;
};

// The group an update is aimed at: type 0 a predefined group, 1 a custom
// group, named by its tag.
struct LogConfigTargetGroup {
  uint32_t type;
  std::string name;
};

// Applies an update of type 0 to its target group: sets the group's level
// mask to log_mask and returns kOk, after which the group's statements see
// the new mask. Any thread may call it; it waits only for the logger's
// mutex. Our library: leaves `update` as it is and ignores param; refusals
// change nothing. An update type other than 0, kErrNotSupported; a
// predefined target naming no predefined tag, or a target type other than
// 0 and 1, kErrParam. A custom target that does not exist yet is created
// (kErrParam when eight exist already).
VEK_EXPORT VekError
HandleLogConfigUpdate(std::pair<LogConfigUpdate, LogConfigTargetGroup>& update);

class PredefinedLogGroupManager;
class CustomLogGroupManager;

class Logger {
 public:
  // Bit numbers in a level mask; a level's lines are written at Android
  // priority (level + 2).
  enum Level : uint32_t {
    kVerbose = 0,
    kDebug = 1,
    kInfo = 2,
    kWarning = 3,
    kError = 4,
  };

  static constexpr uint32_t kPredefinedGroupCount = 16;
  static constexpr uint32_t kMaxCustomLogGroups = 8;

  struct LogGroupConfig {
    uint32_t mask;
    std::string tag;
  };

  struct PredefinedGroupEntry {
    PredefinedGroup group;
    LogGroupConfig config;
  };

  // The one logger of the process, the same on every call, ready for use.
  // Never destroyed, so that threads and static destructors may log until
  // the process ends. Any thread may call it; a first call waits for
  // another thread's first call to finish making the logger. Our library:
  // the logger starts with Warning and Error (24) in every predefined mask
  // and as the mask of new custom groups; if its mutex cannot be made, the
  // process ends (trap) rather than log unguarded.
  VEK_EXPORT static Logger& GetLogger();

  // Tag of a predefined group; "vek-unassigned" for every value above 14.
  static const char* GetTag(PredefinedGroup group) {
    static const char* const kTags[] = {
        "vek-dependency",     "vek-descriptor", "vek-diag",     "vek-engmngr",
        "vek-extnloader",     "vek-fw",         "vek-graph",    "vek-ipc",
        "vek-osal",           "vek-rm",         "vek-sched",    "vek-session",
        "vek-shared-utility", "vek-txn",        "vek-txn-data",
    };
    const auto index = static_cast<uint32_t>(group);
    return index < sizeof(kTags) / sizeof(kTags[0]) ? kTags[index]
                                                    : "vek-unassigned";
  }

  // A group value past the table is refused rather than written out of
  // bounds.
  VekError SetLogLevelMask(PredefinedGroup group, uint32_t mask) {
    const auto index = static_cast<uint32_t>(group);
    if (index >= kPredefinedGroupCount) return VekError::kErrParam;
    mutex_.Lock();
    StorePredefinedMask(index, mask);
    mutex_.Unlock();
    return VekError::kOk;
  }

  // The hot path of every predefined-group statement: no lock. Values past
  // the table have every level disabled.
  uint32_t GetLogLevelMask(PredefinedGroup group) const {
    const auto index = static_cast<uint32_t>(group);
    if (index >= kPredefinedGroupCount) return 0;
    return log_internal::LoadMask(predefined_groups_[index].config.mask);
  }

  // "*" sets every group and the default of custom groups made later; a
  // predefined tag sets that predefined group; any other tag sets (and, if
  // there is room, creates) a custom group. kErrParam when a ninth custom
  // group would be needed.
  VekError SetLogLevelMask(const std::string& tag, uint32_t mask) {
    mutex_.Lock();
    if (tag.size() == 1 && tag[0] == '*') {
      for (uint32_t value = 0; value < kPredefinedGroupCount; ++value) {
        StorePredefinedMask(value, mask);
      }
      for (auto& node : custom_groups_) node.second.mask = mask;
      custom_default_mask_ = mask;
      mutex_.Unlock();
      return VekError::kOk;
    }
    for (uint32_t value = 0; value < kPredefinedGroupCount; ++value) {
      if (tag == GetTag(static_cast<PredefinedGroup>(value))) {
        StorePredefinedMask(value, mask);
        mutex_.Unlock();
        return VekError::kOk;
      }
    }
    LogGroupConfig* config = FindOrCreateCustomConfig(tag);
    if (config == nullptr) {
      mutex_.Unlock();
      return VekError::kErrParam;
    }
    config->mask = mask;
    mutex_.Unlock();
    return VekError::kOk;
  }

  // Looks at custom groups only (a predefined tag read this way names a
  // custom group of that text), and creates the group while there is room,
  // so that a statement under a new tag brings its group into being. 0 when
  // the group cannot exist.
  uint32_t GetLogLevelMask(const std::string& tag) {
    mutex_.Lock();
    const LogGroupConfig* config = FindOrCreateCustomConfig(tag);
    const uint32_t mask = config != nullptr ? config->mask : 0;
    mutex_.Unlock();
    return mask;
  }

  // Caller holds mutex_.
  LogGroupConfig* FindOrCreateCustomConfig(const std::string& tag)
      VEK_REQUIRES(mutex_) {
    auto found = custom_groups_.find(tag);
    if (found != custom_groups_.end()) return &found->second;
    if (custom_groups_.size() >= kMaxCustomLogGroups) return nullptr;
    return &custom_groups_
                .emplace(tag, LogGroupConfig{custom_default_mask_, tag})
                .first->second;
  }

  // Removes every custom group; the default mask of later groups stays.
  VekError ClearCustomGroups() {
    mutex_.Lock();
    if (!custom_groups_.empty()) custom_groups_.clear();
    mutex_.Unlock();
    return VekError::kOk;
  }

  // Number of custom groups that exist now.
  size_t CustomGroupCount() {
    mutex_.Lock();
    const size_t count = custom_groups_.size();
    mutex_.Unlock();
    return count;
  }

  Logger(const Logger&) = delete;
  Logger& operator=(const Logger&) = delete;

 private:
  friend class PredefinedLogGroupManager;
  friend class CustomLogGroupManager;
  friend VekError HandleLogConfigUpdate(
      std::pair<LogConfigUpdate, LogConfigTargetGroup>& update);

  // Made only by GetLogger, with the initial masks of this platform.
  VEK_EXPORT Logger(uint32_t predefined_mask, uint32_t custom_default_mask);
  ~Logger() = default;

  // Every write of a predefined mask goes through here, so the analysis
  // proves that writers serialise; the hot-path read stays lock-free.
  void StorePredefinedMask(uint32_t index, uint32_t mask) VEK_REQUIRES(mutex_) {
    log_internal::StoreMask(predefined_groups_[index].config.mask, mask);
  }

  // The OSAL mutex handle, wrapped so that the analysis can follow it.
  AnnotatedOsalMutex mutex_;
  PredefinedGroupEntry predefined_groups_[kPredefinedGroupCount];
  std::unordered_map<std::string, LogGroupConfig> custom_groups_
      VEK_GUARDED_BY(mutex_);
  uint32_t custom_default_mask_ VEK_GUARDED_BY(mutex_);
};

namespace log_internal {

// The logger's address, published by libvekosal once GetLogger has made
// the logger, so that a predefined-group statement reaches its mask with
// two loads: a call into the library (through the PLT, then the
// function-local static's guard) costs more than the rest of a disabled
// statement together. Zero-initialised data, so it may be read at any
// point of static initialisation; null means not published (yet), and the
// reader falls back to GetLogger. Weak, so that an executable built against
// this header still loads with a libvekosal that does not publish it.
VEK_EXPORT extern Logger* published_logger __attribute__((weak));

// The same logger as Logger::GetLogger(), without the call once it exists.
inline Logger& FastLogger() {
  Logger* const* const slot = &published_logger;
  if (slot != nullptr) {
    // Acquire pairs with the release in GetLogger: the logger's
    // construction is visible to whoever sees its address.
    Logger* const logger = __atomic_load_n(slot, __ATOMIC_ACQUIRE);
    if (logger != nullptr) return *logger;
  }
  return Logger::GetLogger();
}

}  // namespace log_internal

class PredefinedLogGroupManager {
 public:
  static VekError SetLogMask(PredefinedGroup group, uint32_t mask) {
    return Logger::GetLogger().SetLogLevelMask(group, mask);
  }

  // One lock per group, so that loggers on other threads are never held
  // off for the whole sweep.
  static VekError SetLogMaskAllGroups(uint32_t mask) {
    for (uint32_t value = 0; value < Logger::kPredefinedGroupCount; ++value) {
      Logger& logger = Logger::GetLogger();
      logger.mutex_.Lock();
      logger.StorePredefinedMask(value, mask);
      logger.mutex_.Unlock();
    }
    return VekError::kOk;
  }
};

class CustomLogGroupManager {
 public:
  // Unlike the logger's own setter, never creates a group: kErrParam when
  // no custom group has this tag.
  static VekError SetLogMask(const std::string& tag, uint32_t mask) {
    Logger& logger = Logger::GetLogger();
    logger.mutex_.Lock();
    const bool exists =
        logger.custom_groups_.find(tag) != logger.custom_groups_.end();
    logger.mutex_.Unlock();
    if (!exists) return VekError::kErrParam;
    return logger.SetLogLevelMask(tag, mask);
  }

  // Walks the map without holding the lock across the walk (each set locks
  // for itself, and the lock is not recursive); must not run while custom
  // groups are created or cleared. That rule is the caller's, which the
  // analysis cannot see, so it is exempted here and only here.
  static VekError SetLogMaskAllGroups(uint32_t mask)
      VEK_NO_THREAD_SAFETY_ANALYSIS {
    Logger& logger = Logger::GetLogger();
    for (const auto& node : logger.custom_groups_) {
      const std::pair<std::string, Logger::LogGroupConfig> entry = node;
      const VekError err = logger.SetLogLevelMask(entry.second.tag, mask);
      if (err != VekError::kOk) return err;
    }
    return VekError::kOk;
  }
};

}  // namespace zov_vek

#endif  // LOGGING_VEK_LOGGER_H_
