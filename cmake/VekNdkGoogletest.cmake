# googletest for device builds. The NDK carries its sources under
# sources/third_party/googletest; built here once as static libraries and
# offered under the names that find_package(GTest) gives on a host.
set(VEK_NDK_GTEST_DIR "${ANDROID_NDK}/sources/third_party/googletest"
    CACHE PATH "googletest sources of the NDK")
if(NOT EXISTS "${VEK_NDK_GTEST_DIR}/src/gtest-all.cc")
  message(FATAL_ERROR
    "googletest sources not found in ${VEK_NDK_GTEST_DIR}; "
    "set VEK_NDK_GTEST_DIR to the NDK's sources/third_party/googletest")
endif()

add_library(vek_ndk_gtest STATIC "${VEK_NDK_GTEST_DIR}/src/gtest-all.cc")
target_include_directories(vek_ndk_gtest
  SYSTEM PUBLIC "${VEK_NDK_GTEST_DIR}/include"
  PRIVATE "${VEK_NDK_GTEST_DIR}")
target_link_libraries(vek_ndk_gtest PUBLIC Threads::Threads)

add_library(vek_ndk_gtest_main STATIC "${VEK_NDK_GTEST_DIR}/src/gtest_main.cc")
target_link_libraries(vek_ndk_gtest_main PUBLIC vek_ndk_gtest)

add_library(GTest::gtest ALIAS vek_ndk_gtest)
add_library(GTest::gtest_main ALIAS vek_ndk_gtest_main)
