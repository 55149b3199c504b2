// Compiled, never run: each VEK_CASE is one way of touching the logger's
// locked state that -Wthread-safety must reject, and VEK_CASE_CORRECT the
// same work done right, which must compile. The friend function below is
// one of the few places allowed to reach the logger's internals.
#include <string>
#include <utility>

#include "logging/vek_logger.h"

namespace zov_vek {

VekError HandleLogConfigUpdate(
    std::pair<LogConfigUpdate, LogConfigTargetGroup>& update) {
  Logger& logger = Logger::GetLogger();
  [[maybe_unused]] const std::string& tag = update.second.name;
#if defined(VEK_CASE_CORRECT)
  logger.mutex_.Lock();
  Logger::LogGroupConfig* config = logger.FindOrCreateCustomConfig(tag);
  if (config != nullptr) config->mask = update.first.log_mask;
  logger.custom_default_mask_ = update.first.log_mask;
  logger.mutex_.Unlock();
  return config != nullptr ? VekError::kOk : VekError::kErrParam;
#elif defined(VEK_CASE_UNLOCKED_MAP_READ)
  return logger.custom_groups_.count(tag) != 0 ? VekError::kOk
                                               : VekError::kErrParam;
#elif defined(VEK_CASE_UNLOCKED_DEFAULT_WRITE)
  logger.custom_default_mask_ = update.first.log_mask;
  return VekError::kOk;
#elif defined(VEK_CASE_UNLOCKED_FIND_OR_CREATE)
  return logger.FindOrCreateCustomConfig(tag) != nullptr ? VekError::kOk
                                                         : VekError::kErrParam;
#elif defined(VEK_CASE_UNLOCKED_PREDEFINED_WRITE)
  logger.StorePredefinedMask(0, update.first.log_mask);
  return VekError::kOk;
#else
#error "define one VEK_CASE_*"
#endif
}

}  // namespace zov_vek
