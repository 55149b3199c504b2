// What the thread cases share: thread bodies written in place, a block of
// the caller's for a thread to run on, a thread that stays alive while a
// case looks at it, and the name an attribute reads back.
#ifndef UT_CONTRACT_VEK_CONTRACT_THREAD_H_
#define UT_CONTRACT_VEK_CONTRACT_THREAD_H_

#include <atomic>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <string>
#include <utility>

#include "vek_contract.h"

namespace zov_vek_contract {

using Body = std::function<void()>;

// The thread function of a body written in place; the caller keeps the
// Body alive until the join.
inline void RunBody(void* body) { (*static_cast<Body*>(body))(); }

// Runs `body` on a new thread of `attr` and joins it: kOk when both
// succeed, else the code of the call that failed.
inline VekError RunToEnd(void* attr, Body body) {
  void* thread = nullptr;
  const VekError err =
      zov_vek::OsalThreadCreate(&thread, attr, &RunBody, &body);
  if (err != VekError::kOk) return err;
  return zov_vek::OsalThreadJoin(thread);
}

// A page-aligned block of the caller's for a thread to run on, as the
// conformance suites make theirs.
class CallerStack {
 public:
  explicit CallerStack(unsigned int size) : size_(size) {
    if (posix_memalign(&block_, 4096, size) != 0) block_ = nullptr;
  }
  ~CallerStack() { free(block_); }
  CallerStack(const CallerStack&) = delete;
  CallerStack& operator=(const CallerStack&) = delete;

  void* get() const { return block_; }
  unsigned int size() const { return size_; }
  bool Holds(const void* address) const {
    const auto at = reinterpret_cast<uintptr_t>(address);
    const auto low = reinterpret_cast<uintptr_t>(block_);
    return at >= low && at < low + size_;
  }

 private:
  unsigned int size_;
  void* block_ = nullptr;
};

// A named attribute with a 64 KiB stack, the caller's or the library's.
class NamedAttr {
 public:
  NamedAttr(const char* name, bool caller_stack) : stack_(65536) {
    EXPECT_EQ(zov_vek::OsalThreadAttrSetName(attr_.get(), name), VekError::kOk);
    EXPECT_EQ(caller_stack
                  ? zov_vek::OsalThreadAttrSetStack(attr_.get(), stack_.get(),
                                                    stack_.size())
                  : zov_vek::OsalThreadAttrSetStackSize(attr_.get(), 65536),
              VekError::kOk);
  }
  void* get() const { return attr_.get(); }

 private:
  // Declared first: the attribute goes before the stack it names.
  CallerStack stack_;
  Attr attr_;
};

// A thread of `attr` that runs `body` and then stays alive, so that a case
// can look at it, until Finish() or the end of the case lets it go.
class LiveThread {
 public:
  explicit LiveThread(
      void* attr, Body body = [] {})
      : body_(std::move(body)) {
    created_ = zov_vek::OsalThreadCreate(&handle_, attr, &Entry, this);
  }
  ~LiveThread() { Finish(); }
  LiveThread(const LiveThread&) = delete;
  LiveThread& operator=(const LiveThread&) = delete;

  VekError created() const { return created_; }
  void* handle() const { return handle_; }
  // True once the body has run.
  bool AwaitBody() {
    return WaitFor([this] { return body_done_.load(); });
  }
  void Finish() {
    release_.store(true);
    if (created_ == VekError::kOk && handle_ != nullptr) {
      EXPECT_EQ(zov_vek::OsalThreadJoin(handle_), VekError::kOk);
    }
    handle_ = nullptr;
  }

 private:
  static void Entry(void* arg) {
    auto* self = static_cast<LiveThread*>(arg);
    self->body_();
    self->body_done_.store(true);
    WaitFor([self] { return self->release_.load(); });
  }

  Body body_;
  void* handle_ = nullptr;
  VekError created_ = VekError::kErr;
  std::atomic<bool> body_done_{false};
  std::atomic<bool> release_{false};
};

// Whether `attr` reads back exactly `name` through a buffer of
// kOsalThreadNameLengthMax bytes.
inline testing::AssertionResult HasName(void* attr, const char* name) {
  char buf[zov_vek::kOsalThreadNameLengthMax];
  std::memset(buf, kPoisonChar, sizeof(buf));
  const VekError err = zov_vek::OsalThreadAttrGetName(attr, buf, sizeof(buf));
  if (err != VekError::kOk) {
    return testing::AssertionFailure() << "OsalThreadAttrGetName refused";
  }
  const std::string read(buf, strnlen(buf, sizeof(buf)));
  if (read.size() == sizeof(buf) || read != name) {
    return testing::AssertionFailure()
           << "the attribute reads \"" << read << "\", not \"" << name << "\"";
  }
  return testing::AssertionSuccess();
}

}  // namespace zov_vek_contract

#endif  // UT_CONTRACT_VEK_CONTRACT_THREAD_H_
