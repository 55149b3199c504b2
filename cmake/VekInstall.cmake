# cmake --install: the conformance and contract executables, libvekosal.so (with its
# soname links), the public headers and a CMake package:
#
#   find_package(vekosal)
#   target_link_libraries(app PRIVATE vekosal::vekosal)  # OSAL, logger core
#   target_link_libraries(lib PRIVATE vekosal::headers)  # headers and liblog
#
# Components: "vekosal" (library, headers, package) and "conformance" (the
# two executables), so that a port can be installed without the suites.
include(GNUInstallDirs)
include(CMakePackageConfigHelpers)

set(VEK_INSTALL_CMAKEDIR ${CMAKE_INSTALL_LIBDIR}/cmake/vekosal)

# Installed programs find libvekosal next to them, and liblog where it was
# linked from (on a Debian host a folder the loader does not search).
file(RELATIVE_PATH vek_bin_to_lib
  /${CMAKE_INSTALL_BINDIR} /${CMAKE_INSTALL_LIBDIR})
set_target_properties(vekosal PROPERTIES
  INSTALL_RPATH_USE_LINK_PATH ON)
if(VEK_BUILD_EXECUTABLES)
  set_target_properties(vek_ut_osal_common vek_ut_osal_contract PROPERTIES
    INSTALL_RPATH "$ORIGIN/${vek_bin_to_lib}"
    INSTALL_RPATH_USE_LINK_PATH ON)
  install(TARGETS vek_ut_osal_common vek_ut_osal_contract
    RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT conformance)
endif()

target_include_directories(vek_headers INTERFACE
  $<INSTALL_INTERFACE:${CMAKE_INSTALL_INCLUDEDIR}>)
set_target_properties(vek_headers PROPERTIES EXPORT_NAME headers)

install(TARGETS vekosal vek_headers
  EXPORT vekosalTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT vekosal
    NAMELINK_COMPONENT vekosal)
# The interface is the headers directly in osal/, logging/ and utils/. A
# port's folder (osal/<port>/) holds its private headers, of any port,
# whichever one is built: none of them is installed.
foreach(dir osal logging utils)
  file(GLOB headers CONFIGURE_DEPENDS ${PROJECT_SOURCE_DIR}/framework/${dir}/*.h)
  install(FILES ${headers}
    DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/${dir}
    COMPONENT vekosal)
endforeach()

install(EXPORT vekosalTargets
  NAMESPACE vekosal::
  DESTINATION ${VEK_INSTALL_CMAKEDIR}
  COMPONENT vekosal)
configure_package_config_file(
  ${PROJECT_SOURCE_DIR}/cmake/vekosalConfig.cmake.in
  ${CMAKE_CURRENT_BINARY_DIR}/vekosalConfig.cmake
  INSTALL_DESTINATION ${VEK_INSTALL_CMAKEDIR})
write_basic_package_version_file(
  ${CMAKE_CURRENT_BINARY_DIR}/vekosalConfigVersion.cmake
  COMPATIBILITY SameMajorVersion)
install(FILES
    ${CMAKE_CURRENT_BINARY_DIR}/vekosalConfig.cmake
    ${CMAKE_CURRENT_BINARY_DIR}/vekosalConfigVersion.cmake
    ${PROJECT_SOURCE_DIR}/cmake/FindAndroidLog.cmake
  DESTINATION ${VEK_INSTALL_CMAKEDIR}
  COMPONENT vekosal)
