# operator[] counts from slot 0 instead of from the front.
set(mutant_does [=[`Queue::operator[]` counts from slot 0, not from the front]=])
set(mutant_header utils/vek_queue.h)
set(mutant_find_1 [=[
      uint64_t position = static_cast<uint64_t>(head_) + index;
]=])
set(mutant_replace_1 [=[
      uint64_t position = index;
]=])
set(mutant_catchers
  QueueTests/QueueTestFixture/0.IndexOperatorTest
  QueueTests/QueueTestFixture/1.IndexOperatorTest
  QueueTests/QueueTestFixture/2.IndexOperatorTest)
