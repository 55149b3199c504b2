// VectorMap operation sequences against std::map: membership, sizes,
// capacity growth through many doublings, the value object handed out for
// each key (the same object while the key is in the map, and one that
// keeps what its last user wrote), iteration with and without removal,
// and the lines that growth and failed removals write under each kOsal
// mask.
#include <android/log.h>

#include <cstddef>
#include <cstdint>
#include <iterator>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "fuzz_input.h"
#include "logging/vek_logger.h"
#include "osal/vek_error.h"
#include "utils/vek_vector_map.h"
#include "vek_log_capture.h"

namespace {

using vek_test::LogLine;
using zov_vek::VekError;

struct Value {
  uint32_t key;
};
using Map = zov_vek::VectorMap<uint32_t, Value>;

enum Op { kInsert, kRemoveByKey, kRemoveBySlot, kLookup, kWalk, kWalkRemoving };

// The operation a byte stands for in a phase.
Op Decode(uint8_t byte, vek_fuzz::Phase phase) {
  static const Op kOps[16] = {
      kInsert,      kInsert,      kInsert,       kInsert,
      kRemoveByKey, kRemoveByKey, kRemoveBySlot, kRemoveBySlot,
      kLookup,      kLookup,      kLookup,       kLookup,
      kWalk,        kWalk,        kWalkRemoving, kLookup};
  const Op op = kOps[byte % 16];
  if (phase == vek_fuzz::Phase::kFilling &&
      (op == kRemoveByKey || op == kRemoveBySlot || op == kWalkRemoving)) {
    return kInsert;
  }
  if (phase == vek_fuzz::Phase::kDraining && op == kInsert) {
    return kRemoveBySlot;
  }
  return op;
}

// The map's keys, walked with its iterator; each must come once.
bool WalkMatches(const Map& map, const std::map<uint32_t, Value*>& model) {
  std::set<uint32_t> walked;
  for (auto it = map.begin(); it != map.end(); ++it) {
    const std::pair<uint32_t, Value*> element = *it;
    if (!walked.insert(element.first).second) return false;
    auto found = model.find(element.first);
    if (found == model.end() || found->second != element.second) return false;
  }
  return walked.size() == model.size();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static vek_test::LogCapture capture;
  vek_fuzz::FuzzInput in(data, size);
  uint32_t capacity = in.Below(9);
  const uint32_t mask = in.Byte();
  // Narrow ranges repeat keys; wide ones grow the map through doublings.
  const uint32_t key_range = 8u << in.Below(7);
  zov_vek::Logger::GetLogger().SetLogLevelMask(zov_vek::PredefinedGroup::kOsal,
                                               mask);
  const auto line = [mask](zov_vek::Logger::Level level, int priority,
                           std::vector<LogLine>* lines, std::string text) {
    if ((mask >> level) & 1u) {
      lines->push_back({priority, "vek-osal", std::move(text)});
    }
  };
  const auto pick_key = [&in, key_range]() -> uint32_t {
    return in.Byte() == 0xff ? in.U32() : in.Below(key_range);
  };

  std::unique_ptr<Map> map = Map::Create(capacity);
  FUZZ_CHECK(map != nullptr);
  FUZZ_CHECK(map->Capacity() == capacity);
  std::map<uint32_t, Value*> model;
  // What was last written into each value object handed out so far.
  std::map<const Value*, uint32_t> written;
  capture.Take();

  // Removes `key`, which the model holds, by key or by its slot.
  const auto remove = [&](uint32_t key, bool by_slot) {
    if (by_slot) {
      const std::pair<uint32_t, Value*> found = map->FindWithIndex(key);
      FUZZ_CHECK(found.first != Map::kInvalidIndex);
      FUZZ_CHECK(found.second == model[key]);
      map->RemoveWithIndex(found.first);
    } else {
      map->RemoveWithKey(key);
    }
    model.erase(key);
  };

  while (!in.empty()) {
    std::vector<LogLine> expected;
    switch (Decode(in.OpByte(), in.phase())) {
      case kInsert: {
        const uint32_t key = pick_key();
        const std::pair<VekError, Value*> result = map->Insert(key);
        auto found = model.find(key);
        if (found != model.end()) {
          FUZZ_CHECK(result.first == VekError::kErrExists);
          FUZZ_CHECK(result.second == found->second);
          break;
        }
        if (model.size() == capacity) {
          const uint32_t grown = capacity == 0 ? 1 : capacity * 2;
          line(zov_vek::Logger::kInfo, ANDROID_LOG_INFO, &expected,
               "expand() is called, old capacity=" + std::to_string(capacity) +
                   ", new capacity=" + std::to_string(grown));
          capacity = grown;
        }
        FUZZ_CHECK(result.first == VekError::kOk);
        FUZZ_CHECK(result.second != nullptr);
        // A value object belongs to one key at a time, and nothing resets
        // it between users; a new one starts value-initialised.
        for (const auto& entry : model) {
          FUZZ_CHECK(entry.second != result.second);
        }
        const auto last = written.find(result.second);
        FUZZ_CHECK(result.second->key ==
                   (last != written.end() ? last->second : 0));
        result.second->key = key;
        written[result.second] = key;
        model.emplace(key, result.second);
        break;
      }
      case kRemoveByKey: {
        const uint32_t key = pick_key();
        if (model.count(key) != 0) {
          remove(key, false);
        } else {
          map->RemoveWithKey(key);
          line(zov_vek::Logger::kError, ANDROID_LOG_ERROR, &expected,
               "RemoveWithKey() VectorMap failed to remove, failed to find "
               "key");
        }
        break;
      }
      case kRemoveBySlot:
        if (!model.empty()) {
          auto victim = model.begin();
          std::advance(victim, in.Below(static_cast<uint32_t>(model.size())));
          remove(victim->first, true);
        }
        break;
      case kLookup: {
        const uint32_t key = pick_key();
        auto known = model.find(key);
        Value* const value = known != model.end() ? known->second : nullptr;
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
      case kWalk:
        FUZZ_CHECK(WalkMatches(*map, model));
        break;
      case kWalkRemoving: {
        // Removes the element it stands on when its key is in one residue
        // class, and now and then another key, ahead of the walk or behind
        // it. Every key there at the start is met exactly once unless it
        // was removed before the walk reached it; a removed key never is.
        const uint32_t modulus = 2 + in.Below(3);
        const uint32_t residue = in.Below(modulus);
        const uint32_t other_every = in.Below(4);  // 0: never
        const std::map<uint32_t, Value*> at_start = model;
        std::set<uint32_t> met;
        std::set<uint32_t> removed_ahead;
        for (auto it = map->begin(); it != map->end(); ++it) {
          const uint32_t key = (*it).first;
          FUZZ_CHECK(model.count(key) == 1);
          FUZZ_CHECK(met.insert(key).second);
          if (key % modulus == residue) {
            remove(key, true);
          } else if (other_every != 0 && met.size() % other_every == 0) {
            auto other = model.begin();
            std::advance(other, in.Below(static_cast<uint32_t>(model.size())));
            if (met.count(other->first) == 0)
              removed_ahead.insert(other->first);
            remove(other->first, false);
          }
        }
        for (const auto& entry : at_start) {
          FUZZ_CHECK(met.count(entry.first) !=
                     removed_ahead.count(entry.first));
        }
        break;
      }
    }
    FUZZ_CHECK(capture.Take() == expected);
    FUZZ_CHECK(map->Size() == model.size());
    FUZZ_CHECK(map->Capacity() == capacity);
    FUZZ_CHECK(map->IsFull() == (model.size() == capacity));
  }

  FUZZ_CHECK(WalkMatches(*map, model));
  // Every value object still carries the key it was handed out for.
  for (const auto& entry : model) FUZZ_CHECK(entry.second->key == entry.first);
  return 0;
}
