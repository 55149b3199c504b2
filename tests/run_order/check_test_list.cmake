# The cases that the conformance executable registers, in the order in
# which it runs them, must be the checked-in listing: googletest's
# --gtest_list_tests without its banner and the comments that spell the
# element types of typed suites (the compiler's spelling, not ours).
#
#   cmake -DEXE=<vek_ut_osal_common> -DEXPECTED=<expected_tests.txt>
#         -DLISTED=<where to write the listing on a mismatch>
#         -P check_test_list.cmake
#
# On a cross build the test preset names the emulator that runs the build's
# programs (VEK_TEST_EMULATOR); natively it is unset.
separate_arguments(emulator UNIX_COMMAND "$ENV{VEK_TEST_EMULATOR}")
execute_process(COMMAND ${emulator} ${EXE} --gtest_list_tests
  OUTPUT_VARIABLE listing RESULT_VARIABLE status)
string(REGEX REPLACE "^Running main\\(\\) from [^\n]*\n" "" listing "${listing}")
string(REGEX REPLACE "  # [^\n]*" "" listing "${listing}")
file(READ ${EXPECTED} expected)
if(NOT status EQUAL 0 OR NOT listing STREQUAL expected)
  file(WRITE ${LISTED} "${listing}")
  message(FATAL_ERROR "the cases that ${EXE} lists (status ${status}) "
    "differ from ${EXPECTED}; they are in ${LISTED}")
endif()
