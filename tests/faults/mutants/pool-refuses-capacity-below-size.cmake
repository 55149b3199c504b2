# Create refuses a capacity below the size instead of treating it as a
# reservation only.
set(mutant_does [=[`ObjectPool::Create` refuses a capacity below the size]=])
set(mutant_header utils/vek_object_pool.h)
set(mutant_find_1 [=[
    std::unique_ptr<ObjectPool> pool(new ObjectPool());
]=])
set(mutant_replace_1 [=[
    if (capacity < size) return nullptr;
    std::unique_ptr<ObjectPool> pool(new ObjectPool());
]=])
set(mutant_catchers
  ObjectPoolAllocationTests/0.AllocationCapacityLessThanSize
  ObjectPoolAllocationTests/0.AllocationCapacityZeroNonZeroSize
  ObjectPoolAllocationTests/1.AllocationCapacityLessThanSize
  ObjectPoolAllocationTests/1.AllocationCapacityZeroNonZeroSize
  ObjectPoolAllocationTests/2.AllocationCapacityLessThanSize
  ObjectPoolAllocationTests/2.AllocationCapacityZeroNonZeroSize
  ObjectPoolAllocationTests/3.AllocationCapacityLessThanSize
  ObjectPoolAllocationTests/3.AllocationCapacityZeroNonZeroSize)
