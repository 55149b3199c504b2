# Create runs the Update hook on every object it makes.
set(mutant_does [=[`ObjectPool::Create` runs `Update` on every object]=])
set(mutant_header utils/vek_object_pool.h)
set(mutant_find_1 [=[
      pool->in_use_.push_back(false);
    }
    pool->available_count_ = size;
]=])
set(mutant_replace_1 [=[
      pool->in_use_.push_back(false);
      RunUpdate(pool->objects_.back().get());
    }
    pool->available_count_ = size;
]=])
# The element types with an Update hook (0 and 2) check in their destructor
# that it never ran.
set(mutant_catchers
  ObjectPoolAllocationDoesNotCallUpdate/0.Test
  ObjectPoolAllocationDoesNotCallUpdate/2.Test)
