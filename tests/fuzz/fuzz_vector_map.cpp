// VectorMap operation sequences against std::map: membership, sizes,
// capacity growth, the value object handed out for each key (which must
// stay the same object while the key is in the map), iteration with and
// without removal, and the lines that growth and failed removals write.
#include <android/log.h>

#include <cstddef>
#include <cstdint>
#include <iterator>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <utility>

#include "fuzz_input.h"
#include "logging/vek_logger.h"
#include "osal/vek_error.h"
#include "utils/vek_vector_map.h"

namespace {

using zov_vek::VekError;

struct Value {
  uint32_t key;
  uint32_t generation;
};
using Map = zov_vek::VectorMap<uint32_t, Value>;

struct Captured {
  int errors = 0;
  int infos = 0;
  std::string text;
} g_captured;

void Capture(const struct __android_logger_data* data, const char* message) {
  if (data->priority == ANDROID_LOG_ERROR) g_captured.errors++;
  if (data->priority == ANDROID_LOG_INFO) g_captured.infos++;
  g_captured.text = message != nullptr ? message : "";
}

uint32_t PickKey(vek_fuzz::FuzzInput& in) {
  const uint8_t pick = in.Byte();
  // Mostly a small range, so that keys repeat; now and then any value.
  return pick < 0xf0 ? pick % 24 : in.U32();
}

// The map's keys, walked with its iterator; each must come once.
bool WalkMatches(const Map& map, const std::map<uint32_t, Value*>& model) {
  std::set<uint32_t> walked;
  size_t steps = 0;
  for (auto it = map.begin(); it != map.end(); ++it) {
    const std::pair<uint32_t, Value*> element = *it;
    if (!walked.insert(element.first).second) return false;
    auto found = model.find(element.first);
    if (found == model.end() || found->second != element.second) return false;
    if (++steps > model.size()) return false;
  }
  return walked.size() == model.size();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static const bool installed = [] {
    __android_log_set_logger(&Capture);
    return true;
  }();
  (void)installed;
  zov_vek::Logger::GetLogger().SetLogLevelMask(
      zov_vek::PredefinedGroup::kOsal,
      (1u << zov_vek::Logger::kError) | (1u << zov_vek::Logger::kInfo));

  vek_fuzz::FuzzInput in(data, size);
  uint32_t capacity = in.Below(9);
  std::unique_ptr<Map> map = Map::Create(capacity);
  FUZZ_CHECK(map != nullptr);
  FUZZ_CHECK(map->Capacity() == capacity);
  std::map<uint32_t, Value*> model;
  uint32_t generation = 0;

  while (!in.empty()) {
    const int errors = g_captured.errors;
    const int infos = g_captured.infos;
    switch (in.Below(8)) {
      case 0:
      case 1: {
        const uint32_t key = PickKey(in);
        const std::pair<VekError, Value*> result = map->Insert(key);
        auto found = model.find(key);
        if (found != model.end()) {
          FUZZ_CHECK(result.first == VekError::kErrExists);
          FUZZ_CHECK(result.second == found->second);
          FUZZ_CHECK(g_captured.infos == infos);
          break;
        }
        FUZZ_CHECK(result.first == VekError::kOk);
        FUZZ_CHECK(result.second != nullptr);
        // A value object belongs to one key at a time.
        for (const auto& entry : model) {
          FUZZ_CHECK(entry.second != result.second);
        }
        if (model.size() == capacity) {
          const uint32_t grown = capacity == 0 ? 1 : capacity * 2;
          FUZZ_CHECK(g_captured.infos == infos + 1);
          FUZZ_CHECK(
              g_captured.text ==
              "expand() is called, old capacity=" + std::to_string(capacity) +
                  ", new capacity=" + std::to_string(grown));
          capacity = grown;
        } else {
          FUZZ_CHECK(g_captured.infos == infos);
        }
        // Value objects keep what their last user wrote; mark this one.
        result.second->key = key;
        result.second->generation = ++generation;
        model.emplace(key, result.second);
        break;
      }
      case 2: {
        const uint32_t key = PickKey(in);
        map->RemoveWithKey(key);
        if (model.erase(key) == 0) {
          FUZZ_CHECK(g_captured.errors == errors + 1);
          FUZZ_CHECK(g_captured.text ==
                     "RemoveWithKey() VectorMap failed to remove, failed to "
                     "find key");
        } else {
          FUZZ_CHECK(g_captured.errors == errors);
        }
        break;
      }
      case 3: {
        if (model.empty()) break;
        auto victim = model.begin();
        std::advance(victim, in.Below(static_cast<uint32_t>(model.size())));
        const std::pair<uint32_t, Value*> found =
            map->FindWithIndex(victim->first);
        FUZZ_CHECK(found.first != Map::kInvalidIndex);
        FUZZ_CHECK(found.second == victim->second);
        map->RemoveWithIndex(found.first);
        model.erase(victim);
        FUZZ_CHECK(g_captured.errors == errors);
        break;
      }
      case 4: {
        const uint32_t key = PickKey(in);
        auto expected = model.find(key);
        Value* const value =
            expected != model.end() ? expected->second : nullptr;
        FUZZ_CHECK(map->Contains(key) == (value != nullptr));
        FUZZ_CHECK(map->Find(key) == value);
        const std::pair<uint32_t, Value*> found = map->FindWithIndex(key);
        FUZZ_CHECK(found.second == value);
        if (value == nullptr) {
          FUZZ_CHECK(found.first == Map::kInvalidIndex);
        } else {
          FUZZ_CHECK(found.first < capacity);
          const std::pair<uint32_t, Value*> element =
              map->ElementAt(found.first);
          FUZZ_CHECK(element.first == key);
          FUZZ_CHECK(element.second == value);
          FUZZ_CHECK(value->key == key);
        }
        break;
      }
      case 5:
        FUZZ_CHECK(WalkMatches(*map, model));
        break;
      case 6: {
        // Walk and remove every key in one residue class as it is met; the
        // rest must be met exactly once.
        const uint32_t modulus = 2 + in.Below(3);
        const uint32_t residue = in.Below(modulus);
        std::set<uint32_t> met;
        size_t steps = 0;
        for (auto it = map->begin(); it != map->end(); ++it) {
          const uint32_t key = (*it).first;
          FUZZ_CHECK(met.insert(key).second);
          FUZZ_CHECK(++steps <= model.size());
          if (key % modulus == residue) {
            map->RemoveWithIndex(map->FindWithIndex(key).first);
          }
        }
        FUZZ_CHECK(met.size() == model.size());
        for (auto entry = model.begin(); entry != model.end();) {
          entry = entry->first % modulus == residue ? model.erase(entry)
                                                    : std::next(entry);
        }
        FUZZ_CHECK(g_captured.errors == errors);
        break;
      }
      default:
        break;
    }
    FUZZ_CHECK(map->Size() == model.size());
    FUZZ_CHECK(map->Capacity() == capacity);
    FUZZ_CHECK(map->IsFull() == (model.size() == capacity));
  }

  FUZZ_CHECK(WalkMatches(*map, model));
  // Every value object still carries the key it was handed out for.
  for (const auto& entry : model) FUZZ_CHECK(entry.second->key == entry.first);
  return 0;
}
