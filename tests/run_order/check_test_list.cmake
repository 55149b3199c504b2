# Compares the cases that the conformance executable registers, in the
# order in which it would run them, with a checked-in list.
#
#   cmake -DEXE=<vek_ut_osal_common> -DEXPECTED=<expected_tests.txt>
#         -P check_test_list.cmake
#
# The expected file holds one "Suite.Case" per line. The program's listing
# is a suite line ("Suite." with an optional "  # TypeParam = ..." comment)
# followed by its indented cases; the comments, which name the element
# types, are dropped.
foreach(var EXE EXPECTED)
  if(NOT DEFINED ${var})
    message(FATAL_ERROR "check_test_list.cmake: -D${var}=... is required")
  endif()
endforeach()

# On a cross build the test preset names the emulator that runs the build's
# programs (VEK_TEST_EMULATOR); natively it is unset.
separate_arguments(emulator UNIX_COMMAND "$ENV{VEK_TEST_EMULATOR}")
execute_process(
  COMMAND ${emulator} "${EXE}" --gtest_list_tests
  OUTPUT_VARIABLE listing
  ERROR_VARIABLE errors
  RESULT_VARIABLE status)
if(NOT status EQUAL 0)
  message(FATAL_ERROR "${EXE} --gtest_list_tests failed (${status}):\n"
                      "${errors}")
endif()

# Square brackets and semicolons would change how CMake splits the text
# into list elements; neither occurs in a suite or case name.
string(REPLACE ";" "_" listing "${listing}")
string(REPLACE "[" "(" listing "${listing}")
string(REPLACE "]" ")" listing "${listing}")
string(REPLACE "\n" ";" lines "${listing}")

set(actual "")
set(suite "")
set(suite_count 0)
foreach(line IN LISTS lines)
  string(REGEX REPLACE "  #.*$" "" line "${line}")
  string(REGEX REPLACE "[ \t\r]+$" "" line "${line}")
  if(line MATCHES "^([A-Za-z_][A-Za-z0-9_/]*)\\.$")
    set(suite "${CMAKE_MATCH_1}")
    math(EXPR suite_count "${suite_count} + 1")
  elseif(line MATCHES "^  ([A-Za-z_][A-Za-z0-9_/]*)$" AND NOT suite STREQUAL "")
    list(APPEND actual "${suite}.${CMAKE_MATCH_1}")
  endif()
  # Anything else (the banner of googletest's main) is not part of the list.
endforeach()

file(STRINGS "${EXPECTED}" expected)
list(LENGTH expected expected_count)
list(LENGTH actual actual_count)
set(expected_suites "")
foreach(name IN LISTS expected)
  string(REGEX REPLACE "\\.[^.]*$" "" name "${name}")
  list(APPEND expected_suites "${name}")
endforeach()
list(REMOVE_DUPLICATES expected_suites)
list(LENGTH expected_suites expected_suite_count)

message(STATUS "listed: ${suite_count} suites, ${actual_count} cases; "
               "expected: ${expected_suite_count} suites, ${expected_count} cases")

set(mismatches 0)
if(actual_count GREATER expected_count)
  set(longest ${actual_count})
else()
  set(longest ${expected_count})
endif()
set(index 0)
while(index LESS longest)
  set(want "(none)")
  set(got "(none)")
  if(index LESS expected_count)
    list(GET expected ${index} want)
  endif()
  if(index LESS actual_count)
    list(GET actual ${index} got)
  endif()
  if(NOT want STREQUAL got)
    math(EXPR position "${index} + 1")
    message("  #${position}: expected ${want}, listed ${got}")
    math(EXPR mismatches "${mismatches} + 1")
  endif()
  math(EXPR index "${index} + 1")
endwhile()

if(NOT suite_count EQUAL expected_suite_count)
  math(EXPR mismatches "${mismatches} + 1")
endif()
if(mismatches GREATER 0)
  message(FATAL_ERROR "the registered cases differ from ${EXPECTED}")
endif()
message(STATUS "run order matches ${EXPECTED}")
