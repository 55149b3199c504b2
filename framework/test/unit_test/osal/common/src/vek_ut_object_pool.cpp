// The object pool: creation with any capacity, growth past its size and
// its capacity, uniqueness of what it hands out, re-use after hand-back,
// and that the Update and Cleanup hooks run exactly when they should. The
// element types check their hooks themselves, in their destructors, so a
// check fires whenever an object dies, inside or after a case.
#include <gtest/gtest.h>

#include <memory>
#include <unordered_set>

#include "utils/vek_object_pool.h"

namespace zov_vek_unit_test {

using zov_vek::ObjectPool;

// Made through its Create hook only; the constructor is out of reach.
class ObjectPoolWithCreate {
 public:
  static ObjectPoolWithCreate* Create() { return new ObjectPoolWithCreate(); }

 private:
  ObjectPoolWithCreate() = default;
};

class ObjectPoolWithPublicConstructor {
 public:
  ObjectPoolWithPublicConstructor() = default;
};

// With CHECK set, the destructor demands that Update ran (EXPECTED true) or
// never ran (EXPECTED false) on this object.
template <bool CHECK, bool EXPECTED>
class ObjectPoolWithPublicConstructorUpdateImpl {
 public:
  ObjectPoolWithPublicConstructorUpdateImpl() = default;
  ~ObjectPoolWithPublicConstructorUpdateImpl() {
    if (CHECK) {
      EXPECT_EQ(EXPECTED, update_called_);
    }
  }

  void Update() { update_called_ = true; }

 private:
  bool update_called_ = false;
};

// With CHECK set, the destructor demands that Cleanup ran (EXPECTED true)
// or never ran (EXPECTED false) on this object.
template <bool CHECK, bool EXPECTED>
class ObjectPoolWithPublicConstructorCleanupImpl {
 public:
  ObjectPoolWithPublicConstructorCleanupImpl() = default;
  ~ObjectPoolWithPublicConstructorCleanupImpl() {
    if (CHECK) {
      EXPECT_EQ(EXPECTED, cleanup_called_);
    }
  }

  void Cleanup() { cleanup_called_ = true; }

 private:
  bool cleanup_called_ = false;
};

// As the public-constructor Update type, but made through its Create hook.
template <bool CHECK, bool EXPECTED>
class ObjectPoolWithCreateUpdateImpl {
 public:
  static ObjectPoolWithCreateUpdateImpl* Create() {
    return new ObjectPoolWithCreateUpdateImpl();
  }
  ~ObjectPoolWithCreateUpdateImpl() {
    if (CHECK) {
      EXPECT_EQ(EXPECTED, update_called_);
    }
  }

  void Update() { update_called_ = true; }

 private:
  ObjectPoolWithCreateUpdateImpl() = default;

  bool update_called_ = false;
};

constexpr unsigned int kCapacity = 10;

template <typename T>
class ObjectPoolTest : public testing::Test {
 protected:
  void CreatePool(unsigned int size, unsigned int capacity) {
    pool_ = ObjectPool<T>::Create(size, capacity);
    ASSERT_NE(pool_, nullptr);
  }

  void TearDown() override { pool_.reset(); }

  std::unique_ptr<ObjectPool<T>> pool_;
};

// Ends the case when the pool could not be made.
#define UT_CREATE_POOL(size, capacity)   \
  do {                                   \
    this->CreatePool(size, capacity);    \
    if (this->HasFatalFailure()) return; \
  } while (0)

template <typename T>
class ObjectPoolGetTests : public ObjectPoolTest<T> {
 protected:
  // The shared pointer is dropped at once: the object must still count as
  // handed out until it is released, or the pool would hand it out twice.
  void PullRawCheckUnique(unsigned int count) {
    std::unordered_set<T*> pointers;
    for (unsigned int i = 0; i < count; ++i) {
      T* p = this->pool_->Get().get();
      EXPECT_NE(p, nullptr);
      EXPECT_EQ(pointers.find(p), pointers.end());
      pointers.insert(p);
    }
    for (T* p : pointers) {
      this->pool_->Release(p);
    }
  }

  void PullSharedPointerCheckUnique(unsigned int count) {
    std::unordered_set<std::shared_ptr<T>> pointers;
    for (unsigned int i = 0; i < count; ++i) {
      std::shared_ptr<T> p = this->pool_->Get();
      EXPECT_NE(p, nullptr);
      EXPECT_EQ(pointers.find(p), pointers.end());
      pointers.insert(p);
    }
    for (const std::shared_ptr<T>& p : pointers) {
      this->pool_->Release(p);
    }
  }
};

using ObjectPoolGetTypes =
    testing::Types<ObjectPoolWithCreateUpdateImpl<true, true>,
                   ObjectPoolWithPublicConstructorCleanupImpl<true, true>,
                   ObjectPoolWithPublicConstructorUpdateImpl<true, true>,
                   ObjectPoolWithCreate, ObjectPoolWithPublicConstructor>;
TYPED_TEST_SUITE(ObjectPoolGetTests, ObjectPoolGetTypes);

// After a full hand-back the pool must re-use the same ten objects rather
// than make new ones.
TYPED_TEST(ObjectPoolGetTests, GetGetRawUnique) {
  UT_CREATE_POOL(kCapacity, kCapacity);

  std::unordered_set<TypeParam*> pointers_raw;
  for (unsigned int i = 0; i < kCapacity; ++i) {
    TypeParam* p = this->pool_->Get().get();
    EXPECT_NE(p, nullptr);
    EXPECT_EQ(pointers_raw.find(p), pointers_raw.end());
    pointers_raw.insert(p);
  }
  for (TypeParam* p : pointers_raw) {
    this->pool_->Release(p);
  }

  std::unordered_set<std::shared_ptr<TypeParam>> pointers_shared;
  for (unsigned int i = 0; i < kCapacity; ++i) {
    std::shared_ptr<TypeParam> sp = this->pool_->Get();
    TypeParam* raw = sp.get();
    EXPECT_NE(raw, nullptr);
    EXPECT_NE(pointers_raw.find(raw), pointers_raw.end());
    EXPECT_EQ(pointers_shared.find(sp), pointers_shared.end());
    pointers_shared.insert(sp);
  }
  for (const std::shared_ptr<TypeParam>& sp : pointers_shared) {
    this->pool_->Release(sp);
  }
}

// Ten hand-outs from a pool of five: five expansions within the capacity.
TYPED_TEST(ObjectPoolGetTests, ExpandPastSize) {
  UT_CREATE_POOL(kCapacity / 2, kCapacity);
  this->PullRawCheckUnique(kCapacity);
  this->pool_.reset();

  UT_CREATE_POOL(kCapacity / 2, kCapacity);
  this->PullSharedPointerCheckUnique(kCapacity);
  this->pool_.reset();
}

// Twenty hand-outs: the pool grows past its capacity as well.
TYPED_TEST(ObjectPoolGetTests, ExpandPastCapacity) {
  UT_CREATE_POOL(kCapacity / 2, kCapacity);
  this->PullRawCheckUnique(2 * kCapacity);
  this->pool_.reset();

  UT_CREATE_POOL(kCapacity / 2, kCapacity);
  this->PullSharedPointerCheckUnique(2 * kCapacity);
  this->pool_.reset();
}

template <typename T>
class ObjectPoolAllocationTests : public ObjectPoolTest<T> {};

using ObjectPoolAllocationTypes =
    testing::Types<ObjectPoolWithCreateUpdateImpl<false, false>,
                   ObjectPoolWithPublicConstructorCleanupImpl<false, false>,
                   ObjectPoolWithPublicConstructorUpdateImpl<false, false>,
                   ObjectPoolWithPublicConstructor>;
TYPED_TEST_SUITE(ObjectPoolAllocationTests, ObjectPoolAllocationTypes);

// The capacity is a reservation, not a limit.
TYPED_TEST(ObjectPoolAllocationTests, AllocationCapacityLessThanSize) {
  UT_CREATE_POOL(kCapacity / 2, 2);
  this->pool_.reset();
}

TYPED_TEST(ObjectPoolAllocationTests, AllocationCapacityZeroNonZeroSize) {
  UT_CREATE_POOL(kCapacity / 2, 0);
  this->pool_.reset();
}

template <typename T>
class ObjectPoolAllocationDoesNotCallUpdate : public ObjectPoolTest<T> {};

using ObjectPoolNoHookTypes =
    testing::Types<ObjectPoolWithCreateUpdateImpl<true, false>,
                   ObjectPoolWithPublicConstructorCleanupImpl<true, false>,
                   ObjectPoolWithPublicConstructorUpdateImpl<true, false>>;
TYPED_TEST_SUITE(ObjectPoolAllocationDoesNotCallUpdate, ObjectPoolNoHookTypes);

// The objects die in TearDown with their flags clear: making them must not
// run Update, and destroying the pool must not run Cleanup.
TYPED_TEST(ObjectPoolAllocationDoesNotCallUpdate, Test) {
  UT_CREATE_POOL(kCapacity / 2, kCapacity / 2);
}

}  // namespace zov_vek_unit_test
