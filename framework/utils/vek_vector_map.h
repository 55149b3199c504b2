// A map from small keys to value objects that the map preallocates and owns.
//
// The map is a slot table of three parallel vectors: an occupancy bit, a key
// and a heap-allocated value per slot. Every slot has its value object from
// the moment the slot exists until the map is destroyed, so the pointers
// that Insert and Find hand out stay valid across growth and removal; a
// removed key's object is handed out again by a later insert into its slot,
// with whatever its last user left in it. Lookups are linear scans of the
// slots (for 32-bit integer keys, sixteen keys to a compare), so the map is
// meant for small tables.
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
#include <type_traits>
#include <utility>
#include <vector>

#if defined(__SSE2__)
#include <emmintrin.h>
#elif defined(__aarch64__) && defined(__ARM_NEON)
#include <arm_neon.h>
#endif

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
  // is not in the map: the first occupied slot holding the key in circular
  // order from head_.
  std::pair<uint32_t, V*> FindWithIndex(const K& key) const {
    if constexpr (kCompareKeysInBlocks) {
      return FindByKeyBlocks(key);
    } else {
      if (size_ == 0) return {kInvalidIndex, nullptr};
      return FindBySlotWalk(key);
    }
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

  // Whether lookups compare the keys sixteen at a time with vector
  // instructions. Walking slot by slot, each slot costs an occupancy bit
  // test, a key compare, a counter and the wrap, and the branch that ends
  // the walk goes another way on nearly every lookup, so it is mostly
  // mispredicted. Compared in blocks, a map of 16 is one block and no
  // branch on where the key lies, and only a slot whose key matches has
  // its occupancy bit read. Only for 32-bit integer keys: their == is a
  // bitwise compare without side effects, so comparing more keys than the
  // walk would, and in another order, changes nothing but the time.
#if defined(__SSE2__) || (defined(__aarch64__) && defined(__ARM_NEON))
  static constexpr bool kCompareKeysInBlocks =
      std::is_integral<K>::value && sizeof(K) == sizeof(uint32_t);
#else
  static constexpr bool kCompareKeysInBlocks = false;
#endif

  // Walks the slots in circular order from head_ and stops after the last
  // occupied one; so it looks at no more occupied slots than the map holds.
  std::pair<uint32_t, V*> FindBySlotWalk(const K& key) const {
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

  // The same answer as FindBySlotWalk, from a scan in the order of the
  // slots rather than from head_: Insert refuses a key that is in the map,
  // so at most one occupied slot holds any key, and the order in which the
  // slots are looked at cannot change which one is found. Starting at slot
  // 0 spares the loads and the arithmetic of head_ on the way to the first
  // block. The first slot of the first block whose key matches is looked at
  // here, inline: in a map of up to 16 slots that is the answer unless a
  // free slot keeps a stale copy of the key. The rest of the scan is a
  // call, so that the caller does not pay registers and branches for it.
  // An empty map is tested for there too: a match in an occupied slot
  // implies a map that is not empty.
  std::pair<uint32_t, V*> FindByKeyBlocks(const K& key) const {
    const uint32_t wanted = static_cast<uint32_t>(key);
    if (capacity_ < kKeyBlock) return FindByKeyBlocksFrom(0, 0, wanted);
    const uint32_t matches = KeyBlockMatches(keys_.data(), wanted);
    if (matches != 0) {
      const auto candidate = static_cast<uint32_t>(__builtin_ctz(matches));
      if (occupied_[candidate]) return {candidate, values_[candidate]};
    }
    return FindByKeyBlocksFrom(kKeyBlock, matches & (matches - 1), wanted);
  }

  // The rest of a scan: the slots of the first block that `pending` names,
  // then the slots from `slot` to the end.
  __attribute__((noinline)) std::pair<uint32_t, V*> FindByKeyBlocksFrom(
      uint32_t slot, uint32_t pending, uint32_t wanted) const {
    if (size_ == 0) return {kInvalidIndex, nullptr};
    uint32_t found = FirstOccupied(0, pending);
    if (found == kInvalidIndex) found = FindInRange(slot, capacity_, wanted);
    if (found == kInvalidIndex) return {kInvalidIndex, nullptr};
    return {found, values_[found]};
  }

  // The first occupied slot of [begin, end) whose key is `wanted`, or
  // kInvalidIndex.
  uint32_t FindInRange(uint32_t begin, uint32_t end, uint32_t wanted) const {
    const K* const keys = keys_.data();
    uint32_t slot = begin;
    for (; slot < end && end - slot >= kKeyBlock; slot += kKeyBlock) {
      const uint32_t found =
          FirstOccupied(slot, KeyBlockMatches(keys + slot, wanted));
      if (found != kInvalidIndex) return found;
    }
    for (; slot < end; ++slot) {
      if (static_cast<uint32_t>(keys[slot]) == wanted && occupied_[slot]) {
        return slot;
      }
    }
    return kInvalidIndex;
  }

  // The first occupied slot among those that bit i of `matches` names as
  // `block` + i, or kInvalidIndex.
  uint32_t FirstOccupied(uint32_t block, uint32_t matches) const {
    for (; matches != 0; matches &= matches - 1) {
      const uint32_t slot =
          block + static_cast<uint32_t>(__builtin_ctz(matches));
      if (occupied_[slot]) return slot;
    }
    return kInvalidIndex;
  }

  static constexpr uint32_t kKeyBlock = 16;

  // Bit i set when keys[i] equals `wanted`, for the kKeyBlock keys from
  // `keys` (which need no particular alignment).
  static uint32_t KeyBlockMatches(const K* keys, uint32_t wanted) {
#if defined(__SSE2__)
    const __m128i key = _mm_set1_epi32(static_cast<int>(wanted));
    const auto equal = [&](int block) {
      return _mm_cmpeq_epi32(
          _mm_loadu_si128(reinterpret_cast<const __m128i*>(keys) + block), key);
    };
    // Each equal lane is all ones; saturating packs keep it so down to one
    // byte a key, whose top bits movemask collects.
    const __m128i low = _mm_packs_epi32(equal(0), equal(1));
    const __m128i high = _mm_packs_epi32(equal(2), equal(3));
    return static_cast<uint32_t>(_mm_movemask_epi8(_mm_packs_epi16(low, high)));
#elif defined(__aarch64__) && defined(__ARM_NEON)
    const uint32x4_t key = vdupq_n_u32(wanted);
    const auto equal = [&](int block) {
      return vmovn_u32(vceqq_u32(
          vld1q_u32(reinterpret_cast<const uint32_t*>(keys) + 4 * block), key));
    };
    const uint8x16_t bytes =
        vcombine_u8(vmovn_u16(vcombine_u16(equal(0), equal(1))),
                    vmovn_u16(vcombine_u16(equal(2), equal(3))));
    // One bit a key: weigh each byte by its place in its half and add the
    // halves' bytes up.
    static const uint8_t kWeights[16] = {1, 2, 4, 8, 16, 32, 64, 128,
                                         1, 2, 4, 8, 16, 32, 64, 128};
    const uint8x16_t weighed = vandq_u8(bytes, vld1q_u8(kWeights));
    return static_cast<uint32_t>(vaddv_u8(vget_low_u8(weighed))) |
           (static_cast<uint32_t>(vaddv_u8(vget_high_u8(weighed))) << 8);
#else
    (void)keys;
    (void)wanted;
    return 0;
#endif
  }

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
