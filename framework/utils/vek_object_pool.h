// A pool of reusable objects of one type.
//
// The pool makes `size` objects up front and grows by exactly one object
// whenever Get finds none free; it never shrinks and has no upper bound.
// It keeps a shared pointer to every object it ever made and hands out
// further shared pointers to the same objects. Handing an object back is an
// explicit Release: dropping the pointer that Get returned does not free the
// object for the next Get.
//
// The element type may provide three hooks, found at compile time:
//   static T* Create();  makes one object (null on failure); without it the
//                        pool uses std::make_shared<T>()
//   void Update(...);    runs on every hand-out, with Get's arguments
//   void Cleanup();      runs on every hand-back
//
// There is no lock: callers that share a pool serialise Get and Release.
#ifndef UTILS_VEK_OBJECT_POOL_H_
#define UTILS_VEK_OBJECT_POOL_H_

#include <cstddef>
#include <cstdint>
#include <limits>
#include <memory>
#include <type_traits>
#include <utility>
#include <vector>

namespace zov_vek {
namespace object_pool_internal {

template <typename T, typename = void>
struct HasCreate : std::false_type {};
template <typename T>
struct HasCreate<T, std::void_t<decltype(T::Create())>>
    : std::is_convertible<decltype(T::Create()), T*> {};

template <typename Void, typename T, typename... Args>
struct HasUpdateImpl : std::false_type {};
template <typename T, typename... Args>
struct HasUpdateImpl<
    std::void_t<decltype(std::declval<T&>().Update(std::declval<Args>()...))>,
    T, Args...> : std::true_type {};
template <typename T, typename... Args>
using HasUpdate = HasUpdateImpl<void, T, Args...>;

template <typename T, typename = void>
struct HasCleanup : std::false_type {};
template <typename T>
struct HasCleanup<T, std::void_t<decltype(std::declval<T&>().Cleanup())>>
    : std::true_type {};

}  // namespace object_pool_internal

template <typename T>
class ObjectPool {
 public:
  // A pool holding `size` free objects, or null if the element type's
  // Create hook failed for any of them. `capacity` only reserves room for
  // that many objects; it never limits the pool, so it may be below `size`.
  static std::unique_ptr<ObjectPool> Create(uint32_t size, uint32_t capacity) {
    std::unique_ptr<ObjectPool> pool(new ObjectPool());
    pool->objects_.reserve(capacity);
    pool->in_use_.reserve(capacity);
    for (uint32_t made = 0; made < size; ++made) {
      pool->objects_.push_back(MakeObject());
      if (pool->objects_.back() == nullptr) return nullptr;
      pool->in_use_.push_back(false);
    }
    pool->available_count_ = size;
    return pool;
  }

  ObjectPool(const ObjectPool&) = delete;
  ObjectPool& operator=(const ObjectPool&) = delete;

  // Hands out the lowest-indexed free object, or a new one when none is
  // free. Empty only when the free count and the flags disagree (see
  // Release) or the pool has outgrown a signed 32-bit index.
  template <typename... Args>
  std::shared_ptr<T> Get(Args&&... args) {
    if (available_count_ != 0) {
      size_t index = 0;
      while (index < in_use_.size() && in_use_[index]) ++index;
      if (index == in_use_.size()) return nullptr;
      RunUpdate(objects_[index].get(), std::forward<Args>(args)...);
      in_use_[index] = true;
      --available_count_;
      return objects_[index];
    }
    objects_.push_back(MakeObject());
    in_use_.push_back(false);
    ++available_count_;
    const size_t index = objects_.size() - 1;
    if (index > static_cast<size_t>(std::numeric_limits<int32_t>::max())) {
      return nullptr;
    }
    RunUpdate(objects_[index].get(), std::forward<Args>(args)...);
    --available_count_;
    in_use_[index] = true;
    return objects_[index];
  }

  // Hands back the object at `object`; an address the pool never made is
  // ignored. The flag is cleared without testing it, so a second hand-back
  // of one object raises the free count past the free flags; Get tolerates
  // that rather than every Release paying for a test.
  void Release(T* object) {
    for (size_t index = 0; index < objects_.size(); ++index) {
      if (objects_[index].get() == object) {
        RunCleanup(object);
        in_use_[index] = false;
        ++available_count_;
        return;
      }
    }
  }

  void Release(std::shared_ptr<T> object) { Release(object.get()); }

  // Number of objects the pool has made.
  size_t ObjectCount() const { return objects_.size(); }
  // Number of objects the pool counts as free.
  uint32_t AvailableCount() const { return available_count_; }

 private:
  ObjectPool() : available_count_(0) {}

  static std::shared_ptr<T> MakeObject() {
    if constexpr (object_pool_internal::HasCreate<T>::value) {
      return std::shared_ptr<T>(T::Create());
    } else {
      return std::make_shared<T>();
    }
  }

  // Hooks never run on the null entry that a failed Create hook leaves
  // behind when the pool grows.
  template <typename... Args>
  static void RunUpdate(T* object, Args&&... args) {
    if constexpr (object_pool_internal::HasUpdate<T, Args...>::value) {
      if (object != nullptr) object->Update(std::forward<Args>(args)...);
    } else {
      static_assert(sizeof...(Args) == 0,
                    "Get's arguments go to T::Update, which cannot take them");
    }
  }

  static void RunCleanup(T* object) {
    if constexpr (object_pool_internal::HasCleanup<T>::value) {
      if (object != nullptr) object->Cleanup();
    }
  }

  uint32_t available_count_;
  std::vector<bool> in_use_;
  std::vector<std::shared_ptr<T>> objects_;
};

}  // namespace zov_vek

#endif  // UTILS_VEK_OBJECT_POOL_H_
