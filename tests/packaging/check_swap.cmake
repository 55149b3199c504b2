# Runs programs of this build against the second port through
# LD_LIBRARY_PATH alone, and proves which copy was loaded.
#
# -DWHICH=<vek_which_osal> -DCONFORMANCE=<vek_ut_osal_common>
# -DBUILD_LIB_DIR=<this build's lib/> -DSWAP_LIB_DIR=<second port's lib/>
# and the common variables.
include(${CMAKE_CURRENT_LIST_DIR}/vek_packaging_common.cmake)

# Without a search path the build's own port is loaded (its RUNPATH) ...
vek_run(own COMMAND ${WHICH})
if(NOT own_RC EQUAL 0)
  message(FATAL_ERROR "vek_which_osal failed:\n${own_OUT}${own_ERR}")
endif()
vek_expect_port("without LD_LIBRARY_PATH" "${own_OUT}" ${BUILD_LIB_DIR})

# ... and LD_LIBRARY_PATH, searched before RUNPATH, swaps it.
vek_run(swapped LIBRARY_PATH ${SWAP_LIB_DIR} COMMAND ${WHICH})
if(NOT swapped_RC EQUAL 0)
  message(FATAL_ERROR "vek_which_osal failed:\n${swapped_OUT}${swapped_ERR}")
endif()
vek_expect_port("with LD_LIBRARY_PATH" "${swapped_OUT}" ${SWAP_LIB_DIR})

# The conformance executable itself, swapped: every case must pass, and
# glibc's loader, asked to, names the library whose initialisers it ran.
vek_run(run LIBRARY_PATH ${SWAP_LIB_DIR} ENV LD_DEBUG=libs
  COMMAND ${CONFORMANCE})
if(NOT run_RC EQUAL 0 OR NOT run_OUT MATCHES "\\[  PASSED  \\] [0-9]+ tests?\\.")
  message(FATAL_ERROR
    "conformance run against the second port failed (${run_RC}):\n${run_OUT}")
endif()
if(NOT run_ERR MATCHES "calling init: ${SWAP_LIB_DIR}/libvekosal\\.so")
  message(FATAL_ERROR
    "the loader did not report initialising ${SWAP_LIB_DIR}/libvekosal.so")
endif()
string(REGEX MATCH "\\[  PASSED  \\] [0-9]+ tests?" passed "${run_OUT}")
message(STATUS "conformance against the second port: ${passed}")
