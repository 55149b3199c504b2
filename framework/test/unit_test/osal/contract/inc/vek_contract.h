// What the contract cases share: threads of the port under test that start
// together, bounded waits, poisoned out-parameters and the operating
// system's own view of a thread.
//
// Everything here goes through libvekosal or the C/C++ runtime; nothing
// reads files or starts programs, so the executable runs on a device as it
// runs on the host.
#ifndef UT_CONTRACT_VEK_CONTRACT_H_
#define UT_CONTRACT_VEK_CONTRACT_H_

#include <gtest/gtest.h>
#include <sys/prctl.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <cstring>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "osal/vek_error.h"
#include "osal/vek_osal.h"

namespace zov_vek_contract {

using zov_vek::VekError;

// How long a case waits for something a correct port does at once (a thread
// reaching a point, a woken waiter returning) before it calls it a failure.
// Far above what any device or emulator needs, and below the per-case
// deadline of a fault-injection run, so that a broken port fails the case
// rather than hanging it.
constexpr std::chrono::milliseconds kPatience{2000};
// How long a case gives a broken port to show itself where a correct one
// does nothing: a blocked thread that should stay blocked, a refused thread
// that should never run.
constexpr std::chrono::milliseconds kSettle{30};

// Stack size of the helper threads: ample for googletest's checks.
constexpr unsigned int kHelperStackSize = 65536;

// Written into out-parameters and buffers before a call that must leave
// them alone.
inline void* const kPoisonHandle =
    reinterpret_cast<void*>(uintptr_t{0x5a5a5a5a});
constexpr unsigned int kPoisonSize = 0xa5a5a5a5u;
constexpr int kPoisonInt = -12345;
constexpr char kPoisonChar = '~';

// Waits, yielding, until `done()` is true or kPatience has passed; returns
// `done()`.
template <typename Done>
bool WaitFor(Done done, std::chrono::milliseconds patience = kPatience) {
  const auto until = std::chrono::steady_clock::now() + patience;
  while (!done()) {
    if (std::chrono::steady_clock::now() > until) return done();
    std::this_thread::yield();
  }
  return true;
}

inline void Settle() { std::this_thread::sleep_for(kSettle); }

// The name of the calling thread as the operating system keeps it, read
// without the library.
inline std::string OsThreadName() {
  char name[17] = {};
  if (prctl(PR_GET_NAME, name, 0, 0, 0) != 0) return "<prctl failed>";
  return name;
}

// A thread attribute of the port with a name and a library stack, for the
// threads a case needs besides the one under test.
class Attr {
 public:
  // Nothing set: for the cases that set the attribute up themselves.
  Attr() { EXPECT_EQ(zov_vek::OsalThreadAttrInit(&attr_), VekError::kOk); }
  explicit Attr(const char* name, unsigned int stack_size = kHelperStackSize) {
    EXPECT_EQ(zov_vek::OsalThreadAttrInit(&attr_), VekError::kOk);
    EXPECT_EQ(zov_vek::OsalThreadAttrSetName(attr_, name), VekError::kOk);
    EXPECT_EQ(zov_vek::OsalThreadAttrSetStackSize(attr_, stack_size),
              VekError::kOk);
  }
  ~Attr() {
    if (attr_ != nullptr) {
      EXPECT_EQ(zov_vek::OsalThreadAttrDestroy(attr_), VekError::kOk);
    }
  }
  Attr(const Attr&) = delete;
  Attr& operator=(const Attr&) = delete;

  void* get() const { return attr_; }

 private:
  void* attr_ = nullptr;
};

// Threads of the port that run one function each, `fn(index)`, and start
// it together: every thread first reports at a gate and waits there until
// Release(), so that their work overlaps instead of running one after the
// other as each is created.
class ThreadGroup {
 public:
  explicit ThreadGroup(const char* name,
                       unsigned int stack_size = kHelperStackSize)
      : attr_(name, stack_size) {}
  ~ThreadGroup() {
    Release();
    JoinAll();
  }
  ThreadGroup(const ThreadGroup&) = delete;
  ThreadGroup& operator=(const ThreadGroup&) = delete;

  // Creates `count` threads; false (with a failure recorded) when the port
  // refuses one.
  bool Start(int count, std::function<void(int)> fn) {
    fn_ = std::move(fn);
    for (int i = 0; i < count; ++i) {
      auto slot = std::make_unique<Slot>();
      slot->group = this;
      slot->index = i;
      void* handle = nullptr;
      const VekError err =
          zov_vek::OsalThreadCreate(&handle, attr_.get(), &Entry, slot.get());
      EXPECT_EQ(err, VekError::kOk) << "thread " << i;
      if (err != VekError::kOk) return false;
      slot->handle = handle;
      slots_.push_back(std::move(slot));
    }
    return true;
  }

  // True once every started thread waits at the gate.
  bool AwaitArrival() {
    return WaitFor(
        [this] { return arrived_.load() == static_cast<int>(slots_.size()); });
  }

  void Release() { go_.store(true); }

  // Joins every thread still unjoined; each join must succeed.
  void JoinAll() {
    for (auto& slot : slots_) {
      if (slot->handle == nullptr) continue;
      EXPECT_EQ(zov_vek::OsalThreadJoin(slot->handle), VekError::kOk);
      slot->handle = nullptr;
    }
  }

  // Start, wait for all to arrive, release, join: the common case.
  void Run(int count, std::function<void(int)> fn) {
    if (!Start(count, std::move(fn))) return;
    EXPECT_TRUE(AwaitArrival()) << "not every thread started";
    Release();
    JoinAll();
  }

  void* handle(int index) const { return slots_[index]->handle; }

 private:
  struct Slot {
    ThreadGroup* group = nullptr;
    int index = 0;
    void* handle = nullptr;
  };

  static void Entry(void* arg) {
    auto* slot = static_cast<Slot*>(arg);
    ThreadGroup* group = slot->group;
    group->arrived_.fetch_add(1);
    while (!group->go_.load()) std::this_thread::yield();
    group->fn_(slot->index);
  }

  Attr attr_;
  std::function<void(int)> fn_;
  std::vector<std::unique_ptr<Slot>> slots_;
  std::atomic<int> arrived_{0};
  std::atomic<bool> go_{false};
};

}  // namespace zov_vek_contract

#endif  // UT_CONTRACT_VEK_CONTRACT_H_
