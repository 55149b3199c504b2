# Front on an empty queue returns the slot of the last element instead of
# the default object.
set(mutant_does [=[`Queue::Front` on an empty queue returns the last element's slot]=])
set(mutant_header utils/vek_queue.h)
set(mutant_find_1 [=[
  const T& Front() const {
    if (occupied_count_ == 0) {
]=])
set(mutant_replace_1 [=[
  const T& Front() const {
    if (occupied_count_ == 0 && tail_ < queue_size_) return buffer_[tail_];
    if (occupied_count_ == 0) {
]=])
set(mutant_catchers
  QueueTests/QueueTestFixture/0.OverflowUnderflowTest
  QueueTests/QueueTestFixture/1.OverflowUnderflowTest
  QueueTests/QueueTestFixture/2.OverflowUnderflowTest)
