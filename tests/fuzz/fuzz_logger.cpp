// The logger's tag-addressed API and its managers against a small model:
// masks of the sixteen predefined groups, the custom groups (at most
// eight) with the default mask of new ones, and the lines that statements
// write. Every operation's result is compared with the model's, and so is
// every line that reaches liblog.
#include <android/log.h>

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "fuzz_input.h"
#include "logging/vek_log.h"
#include "logging/vek_logger.h"
#include "osal/vek_error.h"
#include "vek_log_capture.h"

namespace {

using zov_vek::CustomLogGroupManager;
using zov_vek::Logger;
using zov_vek::PredefinedGroup;
using zov_vek::PredefinedLogGroupManager;
using zov_vek::VekError;

constexpr uint32_t kGroups = Logger::kPredefinedGroupCount;

const char* const kTagTable[kGroups] = {
    "vek-dependency",     "vek-descriptor", "vek-diag",     "vek-engmngr",
    "vek-extnloader",     "vek-fw",         "vek-graph",    "vek-ipc",
    "vek-osal",           "vek-rm",         "vek-sched",    "vek-session",
    "vek-shared-utility", "vek-txn",        "vek-txn-data", "vek-unassigned",
};

class Model {
 public:
  explicit Model(uint32_t mask) {
    for (uint32_t& m : predefined_) m = mask;
    default_mask_ = mask;
  }

  static int PredefinedIndex(const std::string& tag) {
    for (uint32_t g = 0; g < kGroups; ++g) {
      if (tag == kTagTable[g]) return static_cast<int>(g);
    }
    return -1;
  }

  VekError SetGroup(uint32_t group, uint32_t mask) {
    if (group >= kGroups) return VekError::kErrParam;
    predefined_[group] = mask;
    return VekError::kOk;
  }
  uint32_t GetGroup(uint32_t group) const {
    return group < kGroups ? predefined_[group] : 0;
  }

  // The tag-addressed setter: "*", then the predefined tags, then custom.
  VekError SetTag(const std::string& tag, uint32_t mask) {
    if (tag == "*") {
      for (uint32_t& m : predefined_) m = mask;
      for (auto& entry : custom_) entry.second = mask;
      default_mask_ = mask;
      return VekError::kOk;
    }
    const int index = PredefinedIndex(tag);
    if (index >= 0) {
      predefined_[index] = mask;
      return VekError::kOk;
    }
    uint32_t* custom = FindOrCreate(tag);
    if (custom == nullptr) return VekError::kErrParam;
    *custom = mask;
    return VekError::kOk;
  }

  // The tag-addressed getter sees custom groups only, and creates them.
  uint32_t GetTag(const std::string& tag) {
    const uint32_t* custom = FindOrCreate(tag);
    return custom != nullptr ? *custom : 0;
  }

  void Clear() { custom_.clear(); }

  VekError ManagerSetCustom(const std::string& tag, uint32_t mask) {
    if (custom_.count(tag) == 0) return VekError::kErrParam;
    return SetTag(tag, mask);
  }

  // Each existing custom tag goes through the tag-addressed setter, so a
  // custom group named like a predefined one sets the predefined group.
  void ManagerSetAllCustom(uint32_t mask) {
    std::map<std::string, uint32_t> snapshot = custom_;
    for (const auto& entry : snapshot) SetTag(entry.first, mask);
  }

  VekError ConfigUpdate(uint32_t type, uint32_t mask, uint32_t target_type,
                        const std::string& name) {
    if (type != 0) return VekError::kErrNotSupported;
    if (target_type == 0) {
      const int index = PredefinedIndex(name);
      if (index < 0) return VekError::kErrParam;
      predefined_[index] = mask;
      return VekError::kOk;
    }
    if (target_type == 1) {
      uint32_t* custom = FindOrCreate(name);
      if (custom == nullptr) return VekError::kErrParam;
      *custom = mask;
      return VekError::kOk;
    }
    return VekError::kErrParam;
  }

  size_t CustomCount() const { return custom_.size(); }
  const std::map<std::string, uint32_t>& custom() const { return custom_; }

 private:
  uint32_t* FindOrCreate(const std::string& tag) {
    auto found = custom_.find(tag);
    if (found != custom_.end()) return &found->second;
    if (custom_.size() >= Logger::kMaxCustomLogGroups) return nullptr;
    return &custom_.emplace(tag, default_mask_).first->second;
  }

  uint32_t predefined_[kGroups];
  std::map<std::string, uint32_t> custom_;
  uint32_t default_mask_;
};

std::string PickTag(vek_fuzz::FuzzInput& in) {
  static const char* const kOthers[] = {
      "*",     "**",       "",        "TAG_0", "TAG_1",       "TAG_2",
      "TAG_3", "TAG_4",    "TAG_5",   "TAG_6", "TAG_7",       "TAG_8",
      "TAG_9", "vek-ipc ", "VEK-IPC", "vek-",  "VEK_UT_DIAG", "vek-ut-osal",
  };
  constexpr uint32_t kOtherCount = sizeof(kOthers) / sizeof(kOthers[0]);
  const uint32_t pick = in.Below(kGroups + kOtherCount + 1);
  if (pick < kGroups) return kTagTable[pick];
  if (pick < kGroups + kOtherCount) return kOthers[pick - kGroups];
  return in.Bytes(20);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static vek_test::LogCapture capture;
  vek_fuzz::FuzzInput in(data, size);
  Logger& logger = Logger::GetLogger();
  // Every input starts from the same logger state.
  const uint32_t initial = in.U32();
  FUZZ_CHECK(logger.ClearCustomGroups() == VekError::kOk);
  FUZZ_CHECK(logger.SetLogLevelMask("*", initial) == VekError::kOk);
  Model model(initial);
  capture.Take();

  while (!in.empty()) {
    // A statement's line must be written exactly when the model says the
    // level is enabled, with the tag and priority of its group; no other
    // operation writes anything.
    std::vector<vek_test::LogLine> expected;
    const uint32_t op = in.Below(14);
    switch (op) {
      case 0: {
        const uint32_t group = in.Below(kGroups + 4);
        const uint32_t mask = in.U32();
        FUZZ_CHECK(logger.SetLogLevelMask(static_cast<PredefinedGroup>(group),
                                          mask) == model.SetGroup(group, mask));
        break;
      }
      case 1: {
        const uint32_t group = in.Below(kGroups + 4);
        FUZZ_CHECK(logger.GetLogLevelMask(static_cast<PredefinedGroup>(
                       group)) == model.GetGroup(group));
        break;
      }
      case 2: {
        const std::string tag = PickTag(in);
        const uint32_t mask = in.U32();
        FUZZ_CHECK(logger.SetLogLevelMask(tag, mask) ==
                   model.SetTag(tag, mask));
        break;
      }
      case 3: {
        const std::string tag = PickTag(in);
        FUZZ_CHECK(logger.GetLogLevelMask(tag) == model.GetTag(tag));
        break;
      }
      case 4:
        FUZZ_CHECK(logger.ClearCustomGroups() == VekError::kOk);
        model.Clear();
        break;
      case 5: {
        const uint32_t group = in.Below(kGroups);
        const uint32_t mask = in.U32();
        FUZZ_CHECK(PredefinedLogGroupManager::SetLogMask(
                       static_cast<PredefinedGroup>(group), mask) ==
                   model.SetGroup(group, mask));
        break;
      }
      case 6: {
        const uint32_t mask = in.U32();
        FUZZ_CHECK(PredefinedLogGroupManager::SetLogMaskAllGroups(mask) ==
                   VekError::kOk);
        for (uint32_t g = 0; g < kGroups; ++g) model.SetGroup(g, mask);
        break;
      }
      case 7: {
        const std::string tag = PickTag(in);
        const uint32_t mask = in.U32();
        FUZZ_CHECK(CustomLogGroupManager::SetLogMask(tag, mask) ==
                   model.ManagerSetCustom(tag, mask));
        break;
      }
      case 8: {
        const uint32_t mask = in.U32();
        FUZZ_CHECK(CustomLogGroupManager::SetLogMaskAllGroups(mask) ==
                   VekError::kOk);
        model.ManagerSetAllCustom(mask);
        break;
      }
      case 9: {
        const uint32_t type = in.Below(3);
        const uint32_t mask = in.U32();
        const uint32_t target_type = in.Below(3);
        const std::string name = PickTag(in);
        std::pair<zov_vek::LogConfigUpdate, zov_vek::LogConfigTargetGroup>
            update{{type, mask, in.U32()}, {target_type, name}};
        FUZZ_CHECK(zov_vek::HandleLogConfigUpdate(update) ==
                   model.ConfigUpdate(type, mask, target_type, name));
        break;
      }
      case 10: {
        const uint32_t group = in.U32();
        const char* tag = Logger::GetTag(static_cast<PredefinedGroup>(group));
        FUZZ_CHECK(std::strcmp(tag, group < kGroups ? kTagTable[group]
                                                    : "vek-unassigned") == 0);
        break;
      }
      case 11: {
        // A predefined statement at a chosen level.
        const uint32_t group = in.Below(kGroups);
        const uint32_t level = in.Below(5);
        const bool enabled = (model.GetGroup(group) >> level) & 1u;
        switch (level) {
          case 0:
            LOG_VERBOSE(group, "line %d", 7);
            break;
          case 1:
            LOG_DEBUG(group, "line %d", 7);
            break;
          case 2:
            LOG_INFO(group, "line %d", 7);
            break;
          case 3:
            LOG_WARNING(group, "line %d", 7);
            break;
          default:
            LOG_ERROR(group, "line %d", 7);
            break;
        }
        if (enabled) {
          expected.push_back(
              {static_cast<int>(level) + 2, kTagTable[group],
               level == 4 ? "LLVMFuzzerTestOneInput() line 7" : "line 7"});
        }
        break;
      }
      case 12: {
        // A custom statement: its group comes into being if there is room.
        const std::string tag = PickTag(in);
        const bool enabled =
            (model.GetTag(tag) >> zov_vek::Logger::kWarning) & 1u;
        LOG_CUSTOM_WARNING(tag, "custom %s", "line");
        // liblog sees the tag as a C string, up to a NUL it may hold.
        if (enabled) {
          expected.push_back({ANDROID_LOG_WARN, tag.c_str(), "custom line"});
        }
        break;
      }
      default:
        FUZZ_CHECK(logger.CustomGroupCount() == model.CustomCount());
        break;
    }
    FUZZ_CHECK(capture.Take() == expected);
  }

  // The whole state, read without side effects: the predefined masks, and
  // the custom masks of the groups that exist.
  FUZZ_CHECK(logger.CustomGroupCount() == model.CustomCount());
  for (uint32_t g = 0; g < kGroups; ++g) {
    FUZZ_CHECK(logger.GetLogLevelMask(static_cast<PredefinedGroup>(g)) ==
               model.GetGroup(g));
  }
  for (const auto& entry : model.custom()) {
    FUZZ_CHECK(logger.GetLogLevelMask(entry.first) == entry.second);
  }
  FUZZ_CHECK(logger.CustomGroupCount() == model.CustomCount());
  return 0;
}
