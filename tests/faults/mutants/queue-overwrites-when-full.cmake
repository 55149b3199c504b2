# Enqueue on a full queue overwrites the oldest element and reports kOk.
set(mutant_does [=[`Queue::Enqueue` on a full queue overwrites the oldest element]=])
set(mutant_header utils/vek_queue.h)
set(mutant_find_1 [=[
      occupied_count_ = count + 1;
      return VekError::kOk;
    }
]=])
set(mutant_replace_1 [=[
      occupied_count_ = count + 1;
      return VekError::kOk;
    }
    if (queue_size_ != 0) {
      tail_ = Advance(tail_);
      buffer_[tail_] = element;
      head_ = Advance(head_);
      return VekError::kOk;
    }
]=])
set(mutant_catchers
  QueueTests/QueueTestFixture/0.OverflowUnderflowTest
  QueueTests/QueueTestFixture/1.OverflowUnderflowTest
  QueueTests/QueueTestFixture/2.OverflowUnderflowTest)
