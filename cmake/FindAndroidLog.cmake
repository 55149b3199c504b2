# Finds Android's system log library, liblog.
#
# On a device build (the NDK) it is part of the sysroot. On a Debian host it
# comes from android-liblog-dev, which installs the header under
# /usr/include/android and the library under /usr/lib/<multiarch>/android;
# CMAKE_LIBRARY_ARCHITECTURE picks the multiarch folder, so a cross build
# finds the arm64 copy the same way.
#
# Provides AndroidLog::log and AndroidLog_FOUND.
find_path(AndroidLog_INCLUDE_DIR
  NAMES android/log.h
  PATH_SUFFIXES android)
find_library(AndroidLog_LIBRARY
  NAMES log
  PATH_SUFFIXES android)

include(FindPackageHandleStandardArgs)
find_package_handle_standard_args(AndroidLog
  REQUIRED_VARS AndroidLog_LIBRARY AndroidLog_INCLUDE_DIR)

if(AndroidLog_FOUND AND NOT TARGET AndroidLog::log)
  add_library(AndroidLog::log UNKNOWN IMPORTED)
  set_target_properties(AndroidLog::log PROPERTIES
    IMPORTED_LOCATION "${AndroidLog_LIBRARY}"
    INTERFACE_INCLUDE_DIRECTORIES "${AndroidLog_INCLUDE_DIR}")
  get_filename_component(AndroidLog_LIBRARY_DIR "${AndroidLog_LIBRARY}" DIRECTORY)
endif()
mark_as_advanced(AndroidLog_INCLUDE_DIR AndroidLog_LIBRARY)
