# Holds Android.bp's source lists to the CMake targets': the same files in
# the same order (the order of the conformance sources is the suites' run
# order), and the host-only vek_host_log.cpp never in a platform build.
#
# -DBP=<Android.bp> -DROOT=<project> -DOSAL_SOURCES=<a|b|...>
# -DCONFORMANCE_SOURCES=<a|b|...> -DCONTRACT_SOURCES=<a|b|...>
# (absolute paths or relative to ROOT)
file(READ ${BP} bp)

set(failed 0)
set(counts)
foreach(pair libvekosal:OSAL vek_ut_osal_common:CONFORMANCE
    vek_ut_osal_contract:CONTRACT)
  string(REPLACE ":" ";" pair ${pair})
  list(GET pair 0 module)
  list(GET pair 1 var)
  # The module's srcs in Android.bp, as paths relative to ROOT.
  string(FIND "${bp}" "name: \"${module}\"" at)
  if(at EQUAL -1)
    message(FATAL_ERROR "Android.bp has no module ${module}")
  endif()
  string(SUBSTRING "${bp}" ${at} -1 rest)
  string(REGEX MATCH "srcs: \\[[^]]*\\]" srcs "${rest}")
  string(REGEX MATCHALL "\"[^\"]+\"" bp_list "${srcs}")
  list(TRANSFORM bp_list REPLACE "\"" "")
  # The target's sources, compiled ones only, host-only ones left out.
  string(REPLACE "|" ";" files "${${var}_SOURCES}")
  set(cmake_list)
  foreach(file IN LISTS files)
    file(RELATIVE_PATH file ${ROOT} ${file})
    list(APPEND cmake_list ${file})
  endforeach()
  list(FILTER cmake_list INCLUDE REGEX "\\.cpp$")
  list(FILTER cmake_list EXCLUDE REGEX "/vek_host_log\\.cpp$")
  if(bp_list MATCHES "vek_host_log")
    message(SEND_ERROR "${module} in Android.bp builds the host-only vek_host_log.cpp")
    set(failed 1)
  endif()
  if(NOT bp_list STREQUAL cmake_list)
    message(SEND_ERROR "${module} sources differ:\n  Android.bp: ${bp_list}\n  CMake:      ${cmake_list}")
    set(failed 1)
  endif()
  list(LENGTH bp_list count)
  list(APPEND counts "${module} ${count}")
endforeach()
if(failed)
  message(FATAL_ERROR "Android.bp no longer mirrors the CMake source lists")
endif()
list(JOIN counts ", " counts)
message(STATUS "Android.bp mirrors CMake, sources: ${counts}")
