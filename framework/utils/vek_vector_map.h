// A map from small keys to value objects that the map preallocates and owns.
//
// The map is a slot table of three parallel vectors: an occupancy bit, a key
// and a heap-allocated value per slot. Every slot has its value object from
// the moment the slot exists until the map is destroyed, so the pointers
// that Insert and Find hand out stay valid across growth and removal; a
// removed key's object is handed out again by a later insert into its slot,
// with whatever its last user left in it. Lookups scan the occupied slots
// circularly from head_, so the map is meant for small tables.
//
// A full map doubles its slot count on the next insert; nothing else
// allocates. There is no lock: callers serialise access.
#ifndef UTILS_VEK_VECTOR_MAP_H_
#define UTILS_VEK_VECTOR_MAP_H_

#include <cstddef>
#include <cstdint>
#include <iterator>
#include <limits>
#include <memory>
#include <new>
#include <utility>
#include <vector>

#include "logging/vek_log.h"
#include "osal/vek_error.h"

namespace zov_vek {

template <typename K, typename V>
class VectorMap {
 public:
  // FindWithIndex's slot index for a key that is not in the map.
  static constexpr uint32_t kInvalidIndex =
      std::numeric_limits<uint32_t>::max();

  // Walks the occupied slots in circular order from head_. Removing the
  // element the iterator stands on (RemoveWithIndex) and then advancing is
  // supported, as is removing any other element; an insert invalidates
  // every iterator, since it may grow the map.
  class Iterator {
   public:
    using iterator_category = std::forward_iterator_tag;
    using value_type = std::pair<K, V*>;
    using difference_type = std::ptrdiff_t;
    using pointer = void;
    using reference = value_type;

    // The slot's key and value object.
    value_type operator*() const {
      return {map_->keys_[index_], map_->values_[index_]};
    }

    Iterator& operator++() {
      if (map_->size_ == 0) {
        index_ = kInvalidIndex;
        return *this;
      }
      // The walk ends where it began rather than at the current head_: a
      // removal during the walk may move head_ onto a slot that is still
      // ahead of the iterator.
      do {
        index_ = map_->Next(index_);
        if (index_ == start_) {
          index_ = kInvalidIndex;
          return *this;
        }
      } while (!map_->occupied_[index_]);
      return *this;
    }

    Iterator operator++(int) {
      Iterator previous = *this;
      ++*this;
      return previous;
    }

    bool operator==(const Iterator& other) const {
      return map_ == other.map_ && index_ == other.index_;
    }
    bool operator!=(const Iterator& other) const { return !(*this == other); }

   private:
    friend class VectorMap;

    Iterator(const VectorMap* map, uint32_t index, uint32_t start)
        : map_(map), index_(index), start_(start) {}

    const VectorMap* map_;
    uint32_t index_;  // kInvalidIndex at the end
    uint32_t start_;  // the slot the walk began at
  };

  // A map of `capacity` slots, or null (with an error line) when its value
  // objects cannot all be made.
  static std::unique_ptr<VectorMap> Create(uint32_t capacity) {
    std::unique_ptr<VectorMap> map(new (std::nothrow) VectorMap());
    if (map != nullptr) {
      map->occupied_.assign(capacity, false);
      map->keys_.assign(capacity, K());
      map->values_.reserve(capacity);
      for (uint32_t slot = 0; slot < capacity; ++slot) {
        V* value = new (std::nothrow) V();
        if (value == nullptr) break;
        map->values_.push_back(value);
      }
      map->capacity_ = capacity;
      if (map->values_.size() == capacity) return map;
      map->DeleteValues();
      map->capacity_ = 0;
    }
    LOG_ERROR(PredefinedGroup::kOsal, "Failed to init vector map, err=%d",
              static_cast<int>(VekError::kErrNoResource));
    return nullptr;
  }

  ~VectorMap() { DeleteValues(); }

  VectorMap(const VectorMap&) = delete;
  VectorMap& operator=(const VectorMap&) = delete;

  // Adds `key` and returns its slot's value object. For a key already in
  // the map: kErrExists with that key's value object, and no change. A full
  // map doubles first; kErrNoResource and a null value if it cannot.
  std::pair<VekError, V*> Insert(const K& key) {
    const std::pair<uint32_t, V*> found = FindWithIndex(key);
    if (found.first != kInvalidIndex) {
      return {VekError::kErrExists, found.second};
    }
    if (size_ == capacity_ && !Expand()) {
      return {VekError::kErrNoResource, nullptr};
    }
    uint32_t slot = next_free_;
    while (occupied_[slot]) slot = Next(slot);
    ++size_;
    occupied_[slot] = true;
    keys_[slot] = key;
    next_free_ = Next(slot);
    return {VekError::kOk, values_[slot]};
  }

  // The key's value object is kept for a later insert.
  void RemoveWithKey(const K& key) {
    const uint32_t slot = FindWithIndex(key).first;
    if (slot == kInvalidIndex) {
      LOG_ERROR(PredefinedGroup::kOsal,
                "VectorMap failed to remove, failed to find key");
      return;
    }
    RemoveAt(slot);
  }

  // Removes the key of slot `index` without looking it up. The caller
  // passes the slot of a key that is in the map (from FindWithIndex or an
  // iterator): neither the range nor the occupancy is checked.
  void RemoveWithIndex(uint32_t index) { RemoveAt(index); }

  bool Contains(const K& key) const {
    return FindWithIndex(key).first != kInvalidIndex;
  }

  // The key's value object, or null when the key is not in the map.
  V* Find(const K& key) const { return FindWithIndex(key).second; }

  // The key's slot and value object; kInvalidIndex and null when the key
  // is not in the map. The scan looks at no more occupied slots than the
  // map holds.
  std::pair<uint32_t, V*> FindWithIndex(const K& key) const {
    if (size_ == 0) return {kInvalidIndex, nullptr};
    uint32_t slot = head_;
    uint32_t seen = 0;
    do {
      if (occupied_[slot]) {
        if (keys_[slot] == key) return {slot, values_[slot]};
        if (++seen == size_) break;
      }
      slot = Next(slot);
    } while (slot != head_);
    return {kInvalidIndex, nullptr};
  }

  // Key and value object of slot `index`, occupied or not. The caller
  // passes an index below the slot count; it is not checked.
  std::pair<K, V*> ElementAt(uint32_t index) const {
    return {keys_[index], values_[index]};
  }

  Iterator begin() const {
    if (size_ == 0) return end();
    Iterator it(this, head_, head_);
    if (!occupied_[head_]) ++it;
    return it;
  }
  Iterator end() const { return Iterator(this, kInvalidIndex, kInvalidIndex); }

  uint32_t Size() const { return size_; }
  bool IsFull() const { return size_ == capacity_; }
  // Number of slots; grows by doubling, never shrinks.
  uint32_t Capacity() const { return capacity_; }

 private:
  VectorMap() : size_(0), capacity_(0), head_(0), next_free_(0) {}

  uint32_t Next(uint32_t slot) const {
    const uint32_t next = slot + 1;
    return next < capacity_ ? next : 0;
  }

  void RemoveAt(uint32_t slot) {
    --size_;
    occupied_[slot] = false;
    // Keep scans starting on an occupied slot, but never walk past the
    // slot where the next insert will look first.
    while (!occupied_[head_]) {
      head_ = Next(head_);
      if (head_ == next_free_) break;
    }
  }

  // Doubles the slot count; a map made with no slots gets one. The new
  // slots follow the old ones, so the next insert goes to the first of
  // them. False, with the map unchanged, when the value objects cannot be
  // made or the count would overflow.
  bool Expand() {
    const uint32_t old_capacity = capacity_;
    if (old_capacity > std::numeric_limits<uint32_t>::max() / 2) {
      LOG_ERROR(PredefinedGroup::kOsal,
                "VectorMap cannot grow past capacity=%u", old_capacity);
      return false;
    }
    const uint32_t new_capacity = old_capacity == 0 ? 1 : old_capacity * 2;
    occupied_.reserve(new_capacity);
    keys_.reserve(new_capacity);
    values_.reserve(new_capacity);
    for (uint32_t slot = old_capacity; slot < new_capacity; ++slot) {
      V* value = new (std::nothrow) V();
      if (value == nullptr) {
        for (uint32_t made = old_capacity; made < slot; ++made) {
          delete values_[made];
        }
        occupied_.resize(old_capacity);
        keys_.resize(old_capacity);
        values_.resize(old_capacity);
        LOG_ERROR(PredefinedGroup::kOsal,
                  "VectorMap failed to grow, capacity=%u, err=%d", old_capacity,
                  static_cast<int>(VekError::kErrNoResource));
        return false;
      }
      occupied_.push_back(false);
      keys_.push_back(K());
      values_.push_back(value);
    }
    next_free_ = size_;
    capacity_ = new_capacity;
    LOG_INFO(PredefinedGroup::kOsal,
             "expand() is called, old capacity=%u, new capacity=%u",
             old_capacity, new_capacity);
    return true;
  }

  void DeleteValues() {
    for (V* value : values_) delete value;
    values_.clear();
  }

  std::vector<bool> occupied_;
  std::vector<K> keys_;
  std::vector<V*> values_;
  uint32_t size_;
  uint32_t capacity_;
  uint32_t head_;       // where every scan starts
  uint32_t next_free_;  // where the search for a free slot starts
};

}  // namespace zov_vek

#endif  // UTILS_VEK_VECTOR_MAP_H_
