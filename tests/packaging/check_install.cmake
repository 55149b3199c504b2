# Installs this build into a fresh prefix and uses it the way users do:
# the installed executable runs from there with nothing on the search
# path, and a project outside this tree finds the package, builds and runs;
# so does one that builds this project as its subproject.
#
# -DBUILD_DIR=<this build> -DSOURCE_DIR=<this project> -DWORK_DIR=<folder>
# -DCONSUMER_DIR=<consumer/> and the common variables.
include(${CMAKE_CURRENT_LIST_DIR}/vek_packaging_common.cmake)

set(prefix ${WORK_DIR}/prefix)
file(REMOVE_RECURSE ${WORK_DIR})
vek_step("install" COMMAND ${CMAKE_COMMAND} --install ${BUILD_DIR}
  --prefix ${prefix})

# The layout, soname links included; a port's own headers (osal/<port>/)
# stay private.
foreach(file
    bin/vek_ut_osal_common
    lib/libvekosal.so
    lib/libvekosal.so.1
    lib/libvekosal.so.1.0.0
    include/osal/vek_osal.h
    include/osal/vek_error.h
    include/osal/vek_thread_annotations.h
    include/logging/vek_logger.h
    include/logging/vek_log.h
    include/utils/vek_queue.h
    lib/cmake/vekosal/vekosalConfig.cmake
    lib/cmake/vekosal/vekosalConfigVersion.cmake
    lib/cmake/vekosal/vekosalTargets.cmake
    lib/cmake/vekosal/FindAndroidLog.cmake)
  if(NOT EXISTS ${prefix}/${file})
    message(FATAL_ERROR "not installed: ${file}")
  endif()
endforeach()
file(GLOB_RECURSE private RELATIVE ${prefix}/include ${prefix}/include/*)
list(FILTER private INCLUDE REGEX "^osal/.*/")
if(private)
  message(FATAL_ERROR "port-private files installed: ${private}")
endif()
file(READ_SYMLINK ${prefix}/lib/libvekosal.so.1 soname_target)
if(NOT soname_target STREQUAL "libvekosal.so.1.0.0")
  message(FATAL_ERROR "lib/libvekosal.so.1 -> ${soname_target}")
endif()

# The installed programs search next to themselves, never the build tree
# (READ_ELF gives RUNPATH entries as a list).
file(READ_ELF ${prefix}/bin/vek_ut_osal_common RUNPATH exe_runpath)
file(READ_ELF ${prefix}/lib/libvekosal.so.1.0.0 RUNPATH lib_runpath)
message(STATUS "executable RUNPATH: ${exe_runpath}")
message(STATUS "library RUNPATH: ${lib_runpath}")
if(NOT "${exe_runpath}" MATCHES "(^|;)\\$ORIGIN/\\.\\./lib(;|$)")
  message(FATAL_ERROR "the executable does not search ../lib: ${exe_runpath}")
endif()
if("${exe_runpath};${lib_runpath}" MATCHES "${BUILD_DIR}")
  message(FATAL_ERROR "installed files still search the build tree")
endif()
find_program(READELF NAMES readelf)
if(READELF)
  execute_process(COMMAND ${READELF} -d ${prefix}/lib/libvekosal.so.1.0.0
    OUTPUT_VARIABLE dynamic)
  if(NOT dynamic MATCHES "Library soname: \\[libvekosal\\.so\\.1\\]")
    message(FATAL_ERROR "libvekosal has no soname libvekosal.so.1")
  endif()
endif()

vek_run(exe COMMAND ${prefix}/bin/vek_ut_osal_common)
if(NOT exe_RC EQUAL 0 OR NOT exe_OUT MATCHES "\\[  PASSED  \\] [0-9]+ tests?\\.")
  message(FATAL_ERROR "installed executable failed (${exe_RC}):\n${exe_OUT}")
endif()
string(REGEX MATCH "\\[  PASSED  \\] [0-9]+ tests?" passed "${exe_OUT}")
message(STATUS "installed executable: ${passed}")

# A consumer project outside the tree, in a folder of its own: against the
# installed package, then with this project as its subproject (whose
# library lands in the consumer's own lib/).
foreach(mode package subproject)
  set(consumer ${WORK_DIR}/consumer-${mode})
  set(port_dir ${prefix}/lib)
  set(args -DCMAKE_PREFIX_PATH=${prefix})
  if(mode STREQUAL "subproject")
    set(port_dir ${consumer}/lib)
    set(args -DVEKOSAL_SOURCE_DIR=${SOURCE_DIR})
  endif()
  vek_configure("configure the consumer (${mode})" ${CONSUMER_DIR} ${consumer}
    -DCMAKE_BUILD_TYPE=${BUILD_TYPE} ${args})
  vek_step("build the consumer (${mode})" COMMAND
    ${CMAKE_COMMAND} --build ${consumer} --target consumer)
  vek_run(consumer COMMAND ${consumer}/consumer)
  if(NOT consumer_RC EQUAL 0)
    message(FATAL_ERROR "consumer (${mode}) failed (${consumer_RC}):\n${consumer_OUT}${consumer_ERR}")
  endif()
  vek_expect_port("consumer (${mode})" "${consumer_OUT}" ${port_dir})
endforeach()
