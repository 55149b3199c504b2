# vek_strict_warnings(<target>): our own code builds warning-free.
# Third-party headers come in as system headers through their imported
# targets, so this reaches only our sources.
function(vek_strict_warnings target)
  target_compile_options(${target} PRIVATE -Wall -Wextra -Werror)
  # clang proves the lock discipline of annotated code
  # (osal/vek_thread_annotations.h); gcc has no such analysis.
  if(CMAKE_CXX_COMPILER_ID MATCHES "Clang")
    target_compile_options(${target} PRIVATE -Wthread-safety)
  endif()
endfunction()
