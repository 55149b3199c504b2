// A fixed-capacity first-in-first-out ring queue.
//
// Components compile this into their hot paths, so it never grows, never
// allocates after construction and never throws. Misuse (a full queue on
// Enqueue, an empty one on a read or removal, an index past the occupied
// range) writes one error line in the kOsal group and then either returns
// kErrNoResource or hands back the default object given at construction;
// the queue is left exactly as it was.
//
// There is no lock: a caller that shares a queue between threads serialises
// every operation, the read-only ones included.
#ifndef UTILS_VEK_QUEUE_H_
#define UTILS_VEK_QUEUE_H_

#include <cstddef>
#include <cstdint>
#include <utility>
#include <vector>

#include "logging/vek_log.h"
#include "osal/vek_error.h"

namespace zov_vek {

template <typename T>
class Queue {
 public:
  // A size of 0 is accepted: such a queue is at once full and empty.
  Queue(uint32_t queue_size, const T& default_object)
      : default_object_(default_object),
        buffer_(queue_size, default_object_),
        queue_size_(buffer_.size()),
        head_(0),
        tail_(SIZE_MAX),
        occupied_count_(0) {}

  // Copies `element` behind the newest one. On a full queue nothing is
  // stored and the oldest element is not overwritten.
  VekError Enqueue(const T& element) {
    const size_t count = occupied_count_;
    // The slot count came from a 32-bit number. Told so, the compiler sees
    // that the count after a successful Enqueue is not 0 and drops the
    // test for an empty queue of a Dequeue that follows it.
    if (queue_size_ > UINT32_MAX) __builtin_unreachable();
    if (count < queue_size_) {
      const size_t tail = Advance(tail_);
      // The element goes in first and the counters are written after it
      // from registers: where the element's store may change them (a T of
      // the counters' own type), the compiler would otherwise reload them
      // after it. A copy that throws also leaves the queue as it was.
      buffer_[tail] = element;
      tail_ = tail;
      occupied_count_ = count + 1;
      return VekError::kOk;
    }
    LogOverflow(__func__);
    return VekError::kErrNoResource;
  }

  // Removes the oldest element and returns it, moved out of its slot; a
  // copy of the default object when the queue is empty.
  T Dequeue() {
    const size_t count = occupied_count_;
    if (count == 0) {
      LogUnderflow(__func__);
      return default_object_;
    }
    // The counters are written before the element is read. For a T of the
    // counters' type that read may alias them, so between an Enqueue and this
    // it would keep the Enqueue's store of the count alive; with nothing
    // between the two stores the compiler keeps only this one (a memory access
    // fewer per pair, where memory accesses bound the pair's throughput).
    T& slot = buffer_[head_];
    occupied_count_ = count - 1;
    head_ = Advance(head_);
    return std::move(slot);
  }

  // Removes the oldest element; its slot keeps the value until it is
  // written again.
  void Pop() {
    if (occupied_count_ == 0) {
      LogUnderflow(__func__);
      return;
    }
    --occupied_count_;
    head_ = Advance(head_);
  }

  const T& Front() const {
    if (occupied_count_ == 0) {
      LogEmpty(__func__);
      return default_object_;
    }
    return buffer_[head_];
  }

  // The most recently enqueued element.
  const T& Back() const {
    if (occupied_count_ == 0) {
      LogEmpty(__func__);
      return default_object_;
    }
    return buffer_[tail_];
  }

  // The element `index` places behind the front; index 0 is the front.
  const T& operator[](size_t index) const {
    if (index < occupied_count_) {
      uint64_t position = static_cast<uint64_t>(head_) + index;
      if (position >= queue_size_) position -= queue_size_;
      return buffer_[static_cast<size_t>(position)];
    }
    LogInvalidIndex(__func__, index);
    return default_object_;
  }

  size_t Size() const { return occupied_count_; }
  size_t Capacity() const { return queue_size_; }
  bool Empty() const { return occupied_count_ == 0; }

 private:
  // The successor of a slot index. A compare instead of a modulo: this is
  // on every operation and the slot count is not a power of two in general.
  // The wrap is a branch, taken once a lap and so well predicted; the empty
  // volatile statement keeps the compiler from turning it into a
  // conditional move, which would put the compare and the move on the
  // chain from one operation's store of the index to the next one's load
  // of it.
  size_t Advance(size_t index) const {
    const size_t next = index + 1;
    if (next == queue_size_) {
      __asm__ volatile("");
      return 0;
    }
    return next;
  }

  // The misuse lines, out of line and marked cold. Inlined, the constant
  // arguments of every statement were hoisted into callee-saved registers
  // for the whole of a caller's loop, which then kept its own counters in
  // memory. `name` is the operation's __func__, which each line carries
  // twice, as LOG_ERROR would write it from inside the operation.
  __attribute__((cold, noinline)) void LogOverflow(const char* name) const {
    VEK_LOG_PREDEFINED_(
        PredefinedGroup::kOsal, kError,
        "%s() %s: queue overflow, occupied_count=%zu, queue_size=%zu", name,
        name, occupied_count_, queue_size_);
  }
  __attribute__((cold, noinline)) void LogUnderflow(const char* name) const {
    VEK_LOG_PREDEFINED_(
        PredefinedGroup::kOsal, kError,
        "%s() %s: queue underflow, occupied_count=%zu, queue_size=%zu", name,
        name, occupied_count_, queue_size_);
  }
  __attribute__((cold, noinline)) void LogEmpty(const char* name) const {
    VEK_LOG_PREDEFINED_(
        PredefinedGroup::kOsal, kError,
        "%s() %s: queue is empty, occupied_count=%zu, queue_size=%zu", name,
        name, occupied_count_, queue_size_);
  }
  __attribute__((cold, noinline)) void LogInvalidIndex(const char* name,
                                                       size_t index) const {
    VEK_LOG_PREDEFINED_(PredefinedGroup::kOsal, kError,
                        "%s() %s: attempting to access invalid index=%zu, "
                        "occupied_count=%zu, queue_size=%zu",
                        name, name, index, occupied_count_, queue_size_);
  }

  T default_object_;  // never written after construction
  std::vector<T> buffer_;
  // The counters are size_t, the width of the addresses they index. As
  // 32-bit fields each one was widened on the chain from its store to the
  // next operation's load of it, and an Enqueue and Dequeue pair of
  // unsigned int took 1.1 ns, as long as boost::circular_buffer's, where
  // it now takes 0.8 ns.
  size_t queue_size_;
  size_t head_;  // slot of the oldest element
  size_t tail_;  // slot of the newest element; SIZE_MAX before the first write
  size_t occupied_count_;
};

}  // namespace zov_vek

#endif  // UTILS_VEK_QUEUE_H_
