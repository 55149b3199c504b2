// Queue operation sequences against std::deque bounded to the same
// capacity: every result, every returned element, and every line written
// (exactly the error line of each misuse when the kOsal mask has the error
// bit, none otherwise) must match what the model predicts. Strings make
// every element a heap object, so AddressSanitizer sees any slot that is
// read after it was moved from or past the end of the ring.
#include <android/log.h>

#include <cstddef>
#include <cstdint>
#include <deque>
#include <string>
#include <vector>

#include "fuzz_input.h"
#include "logging/vek_logger.h"
#include "osal/vek_error.h"
#include "utils/vek_queue.h"
#include "vek_log_capture.h"

namespace {

using vek_test::LogLine;
using zov_vek::VekError;

enum Op { kEnqueue, kDequeue, kPop, kFront, kBack, kIndex, kNone };

// The operation a byte stands for in a phase.
Op Decode(uint8_t byte, vek_fuzz::Phase phase) {
  const Op op = byte % 8 < kNone ? static_cast<Op>(byte % 8) : kNone;
  if (phase == vek_fuzz::Phase::kFilling && (op == kDequeue || op == kPop)) {
    return kEnqueue;
  }
  if (phase == vek_fuzz::Phase::kDraining && op == kEnqueue) return kDequeue;
  return op;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static vek_test::LogCapture capture;
  vek_fuzz::FuzzInput in(data, size);
  const uint32_t capacity = in.Below(17);
  const uint32_t mask = in.Byte();
  zov_vek::Logger::GetLogger().SetLogLevelMask(zov_vek::PredefinedGroup::kOsal,
                                               mask);
  const bool logged = (mask >> zov_vek::Logger::kError) & 1u;
  const std::string default_object = "default:" + std::to_string(capacity);
  zov_vek::Queue<std::string> queue(capacity, default_object);
  std::deque<std::string> model;
  uint32_t next = 0;
  capture.Take();

  while (!in.empty()) {
    std::vector<LogLine> expected;
    // The one error line of a refused operation.
    const auto refused = [&](const char* op, const char* what,
                             const std::string& index) {
      if (!logged) return;
      expected.push_back({ANDROID_LOG_ERROR, "vek-osal",
                          std::string(op) + "() " + op + ": " + what + index +
                              "occupied_count=" + std::to_string(model.size()) +
                              ", queue_size=" + std::to_string(capacity)});
    };
    switch (Decode(in.OpByte(), in.phase())) {
      case kEnqueue: {
        // Long enough that the string lives on the heap.
        const std::string element =
            "element number " + std::to_string(next++) + " of the queue";
        const VekError err = queue.Enqueue(element);
        if (model.size() < capacity) {
          FUZZ_CHECK(err == VekError::kOk);
          model.push_back(element);
        } else {
          FUZZ_CHECK(err == VekError::kErrNoResource);
          refused("Enqueue", "queue overflow, ", "");
        }
        break;
      }
      case kDequeue: {
        const std::string value = queue.Dequeue();
        if (model.empty()) {
          FUZZ_CHECK(value == default_object);
          refused("Dequeue", "queue underflow, ", "");
        } else {
          FUZZ_CHECK(value == model.front());
          model.pop_front();
        }
        break;
      }
      case kPop:
        queue.Pop();
        if (model.empty()) {
          refused("Pop", "queue underflow, ", "");
        } else {
          model.pop_front();
        }
        break;
      case kFront:
        FUZZ_CHECK(queue.Front() ==
                   (model.empty() ? default_object : model.front()));
        if (model.empty()) refused("Front", "queue is empty, ", "");
        break;
      case kBack:
        FUZZ_CHECK(queue.Back() ==
                   (model.empty() ? default_object : model.back()));
        if (model.empty()) refused("Back", "queue is empty, ", "");
        break;
      case kIndex: {
        // Mostly around the occupied range, sometimes anywhere.
        const uint8_t pick = in.Byte();
        const size_t index = pick == 0xff ? SIZE_MAX
                             : pick == 0xfe
                                 ? static_cast<size_t>(in.U32()) << 16
                                 : pick % 20;
        const std::string& value = queue[index];
        if (index < model.size()) {
          FUZZ_CHECK(value == model[index]);
        } else {
          FUZZ_CHECK(value == default_object);
          refused("operator[]", "attempting to access invalid index=",
                  std::to_string(index) + ", ");
        }
        break;
      }
      case kNone:
        break;
    }
    FUZZ_CHECK(capture.Take() == expected);
    FUZZ_CHECK(queue.Size() == model.size());
    FUZZ_CHECK(queue.Capacity() == capacity);
    FUZZ_CHECK(queue.Empty() == model.empty());
  }

  // Everything still held comes out in order.
  while (!model.empty()) {
    FUZZ_CHECK(queue.Dequeue() == model.front());
    model.pop_front();
  }
  FUZZ_CHECK(queue.Empty());
  FUZZ_CHECK(capture.Take().empty());
  return 0;
}
