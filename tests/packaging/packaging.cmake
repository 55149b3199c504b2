# The packaging checks, one per MODE (cmake -DMODE=<mode> ... -P):
#
#   android_bp   Android.bp's source lists are the CMake targets': the same
#                files in the same order (the order of the conformance
#                sources is the suites' run order), and the host-only
#                vek_host_log.cpp never in a platform build.
#                -DBP= -DROOT= -DOSAL_SOURCES= -DCONFORMANCE_SOURCES=
#                -DCONTRACT_SOURCES= (lists joined by "|")
#   port_folder  A port's folder holds only what that port must write for
#                its platform (see below). -DFRAMEWORK= -DPORT=
#   second_port  A second, independent build of our port, with other flags
#                (Debug) in a folder of its own, installed as another
#                port's makers would ship it: lib/libvekosal.so and
#                include/. -DSOURCE_DIR= -DWORK_DIR=
#   swap         Programs of this build against the second port through
#                LD_LIBRARY_PATH alone. -DCONFORMANCE= -DBUILD_LIB_DIR=
#                -DSWAP_LIB_DIR=
#   prebuilt     The conformance executable and the OSAL's project tests
#                built against the second port given as
#                VEK_OSAL_PREBUILT_DIR, then run. -DSOURCE_DIR= -DWORK_DIR=
#                -DPREBUILT=
#   install      This build installed into a fresh prefix and used the way
#                users do. -DBUILD_DIR= -DSOURCE_DIR= -DWORK_DIR=
#                -DCONSUMER_DIR=
#
# The modes that build or run programs of the target also get:
#   EMULATOR               the build's CMAKE_CROSSCOMPILING_EMULATOR, its
#                          list separator written as "|" (empty natively)
#   EMULATOR_LIBRARY_PATH  the library path the emulator's guest needs
#   GENERATOR, CXX, TOOLCHAIN, BUILD_TYPE  how the build was configured
cmake_minimum_required(VERSION 3.25)
string(REPLACE "|" ";" VEK_EMULATOR "${EMULATOR}")

# vek_run_against(<what> <dir> [PASSES] [LIBRARY_PATH <dir>] COMMAND ...)
# Runs a program of the target, through the emulator if there is one, with
# LD_LIBRARY_PATH set to LIBRARY_PATH (unset without it). It must succeed
# (PASSES: with googletest's closing "[  PASSED  ]"), and glibc's loader,
# asked to, must name the libvekosal from <dir> as the one whose
# initialisers it ran: the copy that really ran, whatever the search path.
function(vek_run_against what dir)
  cmake_parse_arguments(ARG "PASSES" "LIBRARY_PATH" "COMMAND" ${ARGN})
  if(VEK_EMULATOR)
    # qemu hands its own environment to the guest; -E sets a variable for
    # the guest alone, and a later -E wins over the emulator's own.
    set(path ${ARG_LIBRARY_PATH} ${EMULATOR_LIBRARY_PATH})
    list(JOIN path ":" path)
    set(cmd ${VEK_EMULATOR} -E LD_DEBUG=libs)
    if(path)
      list(APPEND cmd -E LD_LIBRARY_PATH=${path})
    endif()
  else()
    set(cmd ${CMAKE_COMMAND} -E env --unset=LD_LIBRARY_PATH LD_DEBUG=libs)
    if(ARG_LIBRARY_PATH)
      list(APPEND cmd LD_LIBRARY_PATH=${ARG_LIBRARY_PATH})
    endif()
  endif()
  execute_process(COMMAND ${cmd} ${ARG_COMMAND}
    RESULT_VARIABLE rc OUTPUT_VARIABLE out ERROR_VARIABLE err)
  string(REGEX MATCH "\\[  PASSED  \\] [0-9]+ tests?\\." passed "${out}")
  if(NOT rc EQUAL 0 OR (ARG_PASSES AND NOT passed))
    message(FATAL_ERROR "${what} failed (${rc}):\n${out}")
  endif()
  if(NOT err MATCHES "calling init: ([^\n]*/libvekosal\\.so[^\n]*)")
    message(FATAL_ERROR "${what}: the loader initialised no libvekosal")
  endif()
  set(loaded "${CMAKE_MATCH_1}")
  get_filename_component(loaded_dir "${loaded}" DIRECTORY)
  file(REAL_PATH "${loaded_dir}" loaded_dir)
  file(REAL_PATH "${dir}" dir)
  if(NOT loaded_dir STREQUAL dir)
    message(FATAL_ERROR "${what}: runs against ${loaded}, expected a copy in ${dir}")
  endif()
  string(STRIP "${passed} against ${loaded}" ran)
  message(STATUS "${what}: ${ran}")
endfunction()

# vek_step(<what> COMMAND ...): a host command that must succeed.
function(vek_step what)
  cmake_parse_arguments(ARG "" "" "COMMAND" ${ARGN})
  execute_process(COMMAND ${ARG_COMMAND}
    RESULT_VARIABLE rc OUTPUT_VARIABLE out ERROR_VARIABLE err)
  if(NOT rc EQUAL 0)
    message(FATAL_ERROR "${what} failed (${rc}):\n${out}\n${err}")
  endif()
  message(STATUS "${what}: done")
endfunction()

# vek_configure(<what> <source> <binary> <cmake args>...): configures a
# build with the same compiler (or toolchain) and generator as this one.
function(vek_configure what source binary)
  set(args -S ${source} -B ${binary} -G ${GENERATOR})
  if(TOOLCHAIN)
    list(APPEND args -DCMAKE_TOOLCHAIN_FILE=${TOOLCHAIN})
  else()
    list(APPEND args -DCMAKE_CXX_COMPILER=${CXX})
  endif()
  vek_step("${what}" COMMAND ${CMAKE_COMMAND} ${args} ${ARGN})
endfunction()

if(MODE STREQUAL "android_bp")
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

elseif(MODE STREQUAL "port_folder")
  # Every source and header there needs a platform header, itself or
  # through the folder's own headers. Code that needs none is portable and
  # belongs beside the interface (osal/, logging/, utils/), where every
  # port gets it. Platform headers are those beyond ISO C and C++: POSIX's
  # own (<pthread.h>, <unistd.h>, ...) and the system folders sys/, linux/,
  # asm/ and android/. A port to another platform adds its platform's here.
  set(platform "^((pthread|sched|semaphore|unistd|fcntl|dlfcn|poll)\\.h|(sys|linux|asm|android)/.*)$")
  file(GLOB files RELATIVE ${FRAMEWORK}
    ${FRAMEWORK}/osal/${PORT}/*.cpp ${FRAMEWORK}/osal/${PORT}/*.h)
  if(NOT files)
    message(FATAL_ERROR "no sources in framework/osal/${PORT}/")
  endif()
  # What each file includes: a platform header, or files of the folder.
  foreach(file IN LISTS files)
    set(uses_${file})
    file(STRINGS ${FRAMEWORK}/${file} lines REGEX "^#[ \t]*include")
    foreach(line IN LISTS lines)
      if(line MATCHES "<([^>]+)>" AND CMAKE_MATCH_1 MATCHES "${platform}")
        set(uses_${file} "<platform>")
        break()
      elseif(line MATCHES "\"([^\"]+)\"" AND CMAKE_MATCH_1 IN_LIST files)
        list(APPEND uses_${file} ${CMAKE_MATCH_1})
      endif()
    endforeach()
  endforeach()
  # Portable until shown otherwise: a file that includes a platform header,
  # or a file of the folder that is not portable, is not; until no change.
  set(portable ${files})
  set(before "")
  while(NOT portable STREQUAL before)
    set(before "${portable}")
    foreach(file IN LISTS before)
      foreach(used IN LISTS uses_${file})
        if(NOT used IN_LIST portable)
          list(REMOVE_ITEM portable ${file})
          break()
        endif()
      endforeach()
    endforeach()
  endwhile()
  if(portable)
    list(JOIN portable ", " portable)
    message(FATAL_ERROR "need no platform header, so they are not the port's: "
      "${portable}")
  endif()
  list(LENGTH files count)
  message(STATUS "framework/osal/${PORT}/: each of ${count} files needs a platform header")

elseif(MODE STREQUAL "second_port")
  vek_configure("configure the second port" ${SOURCE_DIR} ${WORK_DIR}/build
    -DCMAKE_BUILD_TYPE=Debug
    -DVEK_BUILD_TESTS=OFF
    -DVEK_BUILD_BENCHMARKS=OFF
    -DCMAKE_INSTALL_PREFIX=${WORK_DIR}/port)
  vek_step("build the second port" COMMAND
    ${CMAKE_COMMAND} --build ${WORK_DIR}/build --target vekosal)
  file(REMOVE_RECURSE ${WORK_DIR}/port)
  vek_step("install the second port" COMMAND
    ${CMAKE_COMMAND} --install ${WORK_DIR}/build --component vekosal)
  if(NOT EXISTS ${WORK_DIR}/port/lib/libvekosal.so)
    message(FATAL_ERROR "the second port has no lib/libvekosal.so")
  endif()

elseif(MODE STREQUAL "swap")
  # Without a search path the build's own port is loaded (its RUNPATH);
  # LD_LIBRARY_PATH, searched before RUNPATH, swaps it, and every case
  # passes against the swapped copy.
  vek_run_against("without LD_LIBRARY_PATH" ${BUILD_LIB_DIR} PASSES
    COMMAND ${CONFORMANCE})
  vek_run_against("with LD_LIBRARY_PATH" ${SWAP_LIB_DIR} PASSES
    LIBRARY_PATH ${SWAP_LIB_DIR} COMMAND ${CONFORMANCE})

elseif(MODE STREQUAL "prebuilt")
  set(build ${WORK_DIR}/build)
  vek_configure("configure against the prebuilt port" ${SOURCE_DIR} ${build}
    -DCMAKE_BUILD_TYPE=${BUILD_TYPE}
    -DVEK_BUILD_BENCHMARKS=OFF
    -DVEK_OSAL_PREBUILT_DIR=${PREBUILT})
  if(EXISTS ${build}/lib/libvekosal.so)
    message(FATAL_ERROR "the build against a prebuilt port built a port")
  endif()
  vek_step("build against the prebuilt port" COMMAND
    ${CMAKE_COMMAND} --build ${build} --target vek_ut_osal_common tests/osal/all)
  vek_run_against("built against the prebuilt port" ${PREBUILT}/lib PASSES
    COMMAND ${build}/bin/vek_ut_osal_common)
  vek_step("ctest tests/osal" COMMAND
    ${CMAKE_CTEST_COMMAND} --test-dir ${build}/tests/osal --output-on-failure
      --no-tests=error)

elseif(MODE STREQUAL "install")
  # The installed executable runs from the prefix with nothing on the
  # search path, and a project outside this tree finds the package, builds
  # and runs; so does one that builds this project as its subproject.
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
  vek_run_against("installed executable" ${prefix}/lib PASSES
    COMMAND ${prefix}/bin/vek_ut_osal_common)

  # A consumer project outside the tree, in a folder of its own: against
  # the installed package, then with this project as its subproject (whose
  # library lands in the consumer's own lib/).
  foreach(mode package subproject)
    set(consumer ${WORK_DIR}/consumer-${mode})
    set(port_dir ${prefix}/lib)
    set(args -DCMAKE_PREFIX_PATH=${prefix})
    if(mode STREQUAL "subproject")
      set(port_dir ${consumer}/lib)
      set(args -DVEKOSAL_SOURCE_DIR=${SOURCE_DIR})
    endif()
    vek_configure("configure the consumer (${mode})" ${CONSUMER_DIR}
      ${consumer} -DCMAKE_BUILD_TYPE=${BUILD_TYPE} ${args})
    vek_step("build the consumer (${mode})" COMMAND
      ${CMAKE_COMMAND} --build ${consumer} --target consumer)
    vek_run_against("consumer (${mode})" ${port_dir}
      COMMAND ${consumer}/consumer)
  endforeach()

else()
  message(FATAL_ERROR "packaging.cmake: unknown MODE \"${MODE}\"")
endif()
