# Helpers of the packaging scripts (cmake -P). Every script gets:
#   EMULATOR               the build's CMAKE_CROSSCOMPILING_EMULATOR, its
#                          list separator written as "|" (empty natively)
#   EMULATOR_LIBRARY_PATH  the library path the emulator's guest needs
#   GENERATOR, CXX, TOOLCHAIN, BUILD_TYPE  how the build was configured

string(REPLACE "|" ";" VEK_EMULATOR "${EMULATOR}")

# vek_run(<prefix> [LIBRARY_PATH <dir>] [ENV <name=value>...] COMMAND ...)
# Runs a program of the target, through the emulator if there is one, with
# LD_LIBRARY_PATH set to <dir> (unset without it). Sets <prefix>_RC,
# <prefix>_OUT and <prefix>_ERR.
function(vek_run prefix)
  cmake_parse_arguments(ARG "" "LIBRARY_PATH" "ENV;COMMAND" ${ARGN})
  if(VEK_EMULATOR)
    # qemu hands its own environment to the guest; -E sets a variable for
    # the guest alone, and a later -E wins over the emulator's own.
    set(cmd ${VEK_EMULATOR})
    set(path "${EMULATOR_LIBRARY_PATH}")
    if(ARG_LIBRARY_PATH AND path)
      set(path "${ARG_LIBRARY_PATH}:${path}")
    elseif(ARG_LIBRARY_PATH)
      set(path "${ARG_LIBRARY_PATH}")
    endif()
    if(path)
      list(APPEND cmd -E LD_LIBRARY_PATH=${path})
    endif()
    foreach(entry IN LISTS ARG_ENV)
      list(APPEND cmd -E ${entry})
    endforeach()
  else()
    set(cmd ${CMAKE_COMMAND} -E env --unset=LD_LIBRARY_PATH)
    if(ARG_LIBRARY_PATH)
      list(APPEND cmd LD_LIBRARY_PATH=${ARG_LIBRARY_PATH})
    endif()
    list(APPEND cmd ${ARG_ENV})
  endif()
  execute_process(COMMAND ${cmd} ${ARG_COMMAND}
    RESULT_VARIABLE rc OUTPUT_VARIABLE out ERROR_VARIABLE err)
  set(${prefix}_RC "${rc}" PARENT_SCOPE)
  set(${prefix}_OUT "${out}" PARENT_SCOPE)
  set(${prefix}_ERR "${err}" PARENT_SCOPE)
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

# vek_expect_port(<what> <maps line> <dir>): the mapped library is in <dir>.
function(vek_expect_port what mapped dir)
  string(STRIP "${mapped}" mapped)
  get_filename_component(mapped_dir "${mapped}" DIRECTORY)
  file(REAL_PATH "${mapped_dir}" mapped_dir)
  file(REAL_PATH "${dir}" dir)
  if(NOT mapped_dir STREQUAL dir)
    message(FATAL_ERROR "${what}: runs against ${mapped}, expected a copy in ${dir}")
  endif()
  message(STATUS "${what}: runs against ${mapped}")
endfunction()
