// Compiles every installed public header, each of which must stand alone.
#include "logging/vek_log.h"
#include "logging/vek_logger.h"
#include "osal/vek_annotated_mutex.h"
#include "osal/vek_error.h"
#include "osal/vek_export.h"
#include "osal/vek_osal.h"
#include "osal/vek_scoped_mutex.h"
#include "osal/vek_thread_annotations.h"
#include "utils/vek_object_pool.h"
#include "utils/vek_queue.h"
#include "utils/vek_vector_map.h"
#include "utils/vek_worker_thread_base.h"

namespace consumer {

// The queue is header code; its overflow path logs through the logger,
// which the executable's link to vekosal::vekosal provides.
int QueueRoundTrip() {
  zov_vek::Queue<int> queue(2, -1);
  if (queue.Enqueue(7) != zov_vek::VekError::kOk) return -1;
  if (queue.Enqueue(8) != zov_vek::VekError::kOk) return -1;
  if (queue.Enqueue(9) == zov_vek::VekError::kOk) return -1;  // full
  const int first = queue.Dequeue();
  return first * 10 + queue.Dequeue();
}

}  // namespace consumer
