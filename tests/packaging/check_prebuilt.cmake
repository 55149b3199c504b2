# Builds the conformance executable and the OSAL's project tests against
# the second port given as VEK_OSAL_PREBUILT_DIR (its library and headers
# in place of ours), then runs them.
#
# -DSOURCE_DIR=<this project> -DWORK_DIR=<folder> -DPREBUILT=<port folder>
# and the common variables.
include(${CMAKE_CURRENT_LIST_DIR}/vek_packaging_common.cmake)

set(build ${WORK_DIR}/build)
vek_configure("configure against the prebuilt port" ${SOURCE_DIR} ${build}
  -DCMAKE_BUILD_TYPE=${BUILD_TYPE}
  -DVEK_BUILD_BENCHMARKS=OFF
  -DVEK_OSAL_PREBUILT_DIR=${PREBUILT})
if(EXISTS ${build}/lib/libvekosal.so)
  message(FATAL_ERROR "the build against a prebuilt port built a port")
endif()
vek_step("build against the prebuilt port" COMMAND
  ${CMAKE_COMMAND} --build ${build} --target
    vek_ut_osal_common vek_which_osal tests/osal/all)

vek_run(which COMMAND ${build}/bin/vek_which_osal)
if(NOT which_RC EQUAL 0)
  message(FATAL_ERROR "vek_which_osal failed:\n${which_OUT}${which_ERR}")
endif()
vek_expect_port("built against the prebuilt port" "${which_OUT}"
  ${PREBUILT}/lib)

foreach(dir framework/test/unit_test/osal/common tests/osal)
  vek_step("ctest ${dir}" COMMAND
    ${CMAKE_CTEST_COMMAND} --test-dir ${build}/${dir} --output-on-failure
      --no-tests=error)
endforeach()
