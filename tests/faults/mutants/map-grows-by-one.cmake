# A full map grows by one slot instead of doubling.
set(mutant_does [=[a full `VectorMap` grows by one slot, not two-fold]=])
set(mutant_header utils/vek_vector_map.h)
set(mutant_find_1 [=[
    const uint32_t new_capacity = old_capacity == 0 ? 1 : old_capacity * 2;
]=])
set(mutant_replace_1 [=[
    const uint32_t new_capacity = old_capacity + 1;
]=])
set(mutant_catchers BasicMapTest.BasicExpand)
