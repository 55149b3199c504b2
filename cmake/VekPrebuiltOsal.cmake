# Another port under test. VEK_OSAL_PREBUILT_DIR names a folder with
# lib/libvekosal.so and include/ (osal/, logging/, ... as an install of this
# project lays them out). Its library takes the place of our port, and its
# headers come before ours, so that the executable is compiled against the
# interface that port was built with; headers it does not ship (the
# containers, say) come from this tree.
find_library(VEK_OSAL_PREBUILT_LIBRARY
  NAMES vekosal
  PATHS "${VEK_OSAL_PREBUILT_DIR}/lib"
  NO_DEFAULT_PATH NO_CMAKE_FIND_ROOT_PATH)
if(NOT VEK_OSAL_PREBUILT_LIBRARY)
  message(FATAL_ERROR
    "VEK_OSAL_PREBUILT_DIR: no libvekosal in ${VEK_OSAL_PREBUILT_DIR}/lib")
endif()
if(NOT EXISTS "${VEK_OSAL_PREBUILT_DIR}/include/osal/vek_osal.h")
  message(FATAL_ERROR
    "VEK_OSAL_PREBUILT_DIR: no include/osal/vek_osal.h in "
    "${VEK_OSAL_PREBUILT_DIR}")
endif()
message(STATUS "OSAL under test: ${VEK_OSAL_PREBUILT_LIBRARY}")

add_library(vekosal SHARED IMPORTED GLOBAL)
set_target_properties(vekosal PROPERTIES
  IMPORTED_LOCATION "${VEK_OSAL_PREBUILT_LIBRARY}"
  INTERFACE_INCLUDE_DIRECTORIES "${VEK_OSAL_PREBUILT_DIR}/include"
  INTERFACE_LINK_LIBRARIES vek_headers)
add_library(vekosal::vekosal ALIAS vekosal)
