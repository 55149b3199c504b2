# Fixture of the swap tests: a second, independent build of our port, with
# other flags (Debug: no optimisation) in a folder of its own, installed as
# another port's makers would ship it: lib/libvekosal.so and include/.
#
# -DSOURCE_DIR=<this project> -DWORK_DIR=<folder> and the common variables.
include(${CMAKE_CURRENT_LIST_DIR}/vek_packaging_common.cmake)

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
