# The destructor of ScopedMutex does not unlock.
set(mutant_does [=[`~ScopedMutex` does not unlock]=])
set(mutant_header osal/vek_scoped_mutex.h)
set(mutant_find_1 [=[
  ~ScopedMutex() {
    if (OsalMutexUnlock(mutex_) != VekError::kOk) {
]=])
set(mutant_replace_1 [=[
  ~ScopedMutex() {
    if (mutex_ == nullptr) {
]=])
set(mutant_catchers
  ScopedOsalMutexTest.UnlockOnExit ScopedOsalMutexTest.OtherThreadAccess)
set(mutant_hangs 2)
