// Queue operation sequences against std::deque bounded to the same
// capacity: every result, every returned element, and every error line
// (text included) must match what the model predicts. Strings make every
// element a heap object, so AddressSanitizer sees any slot that is read
// after it was moved from or past the end of the ring.
#include <android/log.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <deque>
#include <string>

#include "fuzz_input.h"
#include "logging/vek_logger.h"
#include "osal/vek_error.h"
#include "utils/vek_queue.h"

namespace {

using zov_vek::VekError;

struct Captured {
  int count = 0;
  int priority = 0;
  std::string tag;
  std::string text;
} g_captured;

void Capture(const struct __android_logger_data* data, const char* message) {
  g_captured.count++;
  g_captured.priority = data->priority;
  g_captured.tag = data->tag != nullptr ? data->tag : "";
  g_captured.text = message != nullptr ? message : "";
}

// The one error line that a refused operation writes.
void ExpectError(int before, const char* op, const char* what,
                 const std::string& detail) {
  FUZZ_CHECK(g_captured.count == before + 1);
  FUZZ_CHECK(g_captured.priority == ANDROID_LOG_ERROR);
  FUZZ_CHECK(g_captured.tag == "vek-osal");
  const std::string expected =
      std::string(op) + "() " + op + ": " + what + detail;
  FUZZ_CHECK(g_captured.text == expected);
}

std::string Counts(size_t occupied, size_t capacity) {
  char text[96];
  std::snprintf(text, sizeof(text), "occupied_count=%zu, queue_size=%zu",
                occupied, capacity);
  return text;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static const bool installed = [] {
    __android_log_set_logger(&Capture);
    return true;
  }();
  (void)installed;
  // Error lines of the kOsal group are on, so that each refusal can be
  // checked by its line.
  zov_vek::Logger::GetLogger().SetLogLevelMask(zov_vek::PredefinedGroup::kOsal,
                                               1u << zov_vek::Logger::kError);

  vek_fuzz::FuzzInput in(data, size);
  const uint32_t capacity = in.Below(17);
  const std::string default_object = "default:" + std::to_string(capacity);
  zov_vek::Queue<std::string> queue(capacity, default_object);
  std::deque<std::string> model;
  uint32_t next = 0;

  while (!in.empty()) {
    const int before = g_captured.count;
    switch (in.Below(8)) {
      case 0: {
        // Long enough that the string lives on the heap.
        const std::string element =
            "element number " + std::to_string(next++) + " of the queue";
        const VekError err = queue.Enqueue(element);
        if (model.size() < capacity) {
          FUZZ_CHECK(err == VekError::kOk);
          model.push_back(element);
          FUZZ_CHECK(g_captured.count == before);
        } else {
          FUZZ_CHECK(err == VekError::kErrNoResource);
          ExpectError(before, "Enqueue", "queue overflow, ",
                      Counts(model.size(), capacity));
        }
        break;
      }
      case 1: {
        const std::string value = queue.Dequeue();
        if (model.empty()) {
          FUZZ_CHECK(value == default_object);
          ExpectError(before, "Dequeue", "queue underflow, ",
                      Counts(0, capacity));
        } else {
          FUZZ_CHECK(value == model.front());
          model.pop_front();
          FUZZ_CHECK(g_captured.count == before);
        }
        break;
      }
      case 2:
        queue.Pop();
        if (model.empty()) {
          ExpectError(before, "Pop", "queue underflow, ", Counts(0, capacity));
        } else {
          model.pop_front();
          FUZZ_CHECK(g_captured.count == before);
        }
        break;
      case 3:
        if (model.empty()) {
          FUZZ_CHECK(queue.Front() == default_object);
          ExpectError(before, "Front", "queue is empty, ", Counts(0, capacity));
        } else {
          FUZZ_CHECK(queue.Front() == model.front());
        }
        break;
      case 4:
        if (model.empty()) {
          FUZZ_CHECK(queue.Back() == default_object);
          ExpectError(before, "Back", "queue is empty, ", Counts(0, capacity));
        } else {
          FUZZ_CHECK(queue.Back() == model.back());
        }
        break;
      case 5: {
        // Mostly around the occupied range, sometimes anywhere.
        const uint8_t pick = in.Byte();
        const size_t index = pick == 0xff ? SIZE_MAX
                             : pick == 0xfe
                                 ? static_cast<size_t>(in.U32()) << 16
                                 : pick % 20;
        const std::string& value = queue[index];
        if (index < model.size()) {
          FUZZ_CHECK(value == model[index]);
          FUZZ_CHECK(g_captured.count == before);
        } else {
          FUZZ_CHECK(value == default_object);
          ExpectError(
              before, "operator[]", "attempting to access invalid index=",
              std::to_string(index) + ", " + Counts(model.size(), capacity));
        }
        break;
      }
      default:
        break;
    }
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
  return 0;
}
