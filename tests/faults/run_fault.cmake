# Runs one broken variant and holds the outcome to what it must be.
#
#   cmake -DMODE=<runner|plain|project> -DEXE=<program> -DWORK_DIR=<dir>
#         -DNAME=<test name> -DDEADLINE=<s> -DMAX_SECONDS=<s>
#         [-DRUNNER=<vek_ut_runner>] [-DPRELOAD=<lib> -DFAULT=<name>]
#         [-DEXPECT=<caught|passes>] [-DCATCHERS=<Suite.Case,...>] [-DEXACT=ON]
#         [-DINJECTED=never]
#         [-DREFERENCE=<program whose case list EXE must share>]
#         [-DCHECK_LOG=ON -DLOGCHECK=<vek_ut_logcheck> -DLOG_PROBLEMS=<problem>|...]
#         -P run_fault.cmake
#
# runner:  EXE runs under the supervised runner with a per-case deadline.
#          "caught": the run fails and every CATCHERS case is among the
#          failed ones (EXACT: they are the failed ones); "passes": every
#          case passes. Either way every case of EXE is reported, and the
#          whole run ends within MAX_SECONDS.
# plain:   EXE runs alone; it must end within DEADLINE plus a few seconds
#          with status 1, reporting the one CATCHERS case as hung.
#          With CHECK_LOG the runner checks the log too: every case passes,
#          the log check fails and reports the LOG_PROBLEMS.
# logcheck: EXE runs alone and passes; vek_ut_logcheck on its standard
#          error exits 1 and reports the LOG_PROBLEMS.
# project: EXE is a project test; it must fail.
# With FAULT, the preloaded library must report that it bent a call; with
# INJECTED=never, that it bent none (the program never makes that call).

cmake_minimum_required(VERSION 3.25)

foreach(required MODE EXE WORK_DIR NAME DEADLINE MAX_SECONDS)
  if(NOT DEFINED ${required} OR "${${required}}" STREQUAL "")
    message(FATAL_ERROR "run_fault.cmake: ${required} is not set")
  endif()
endforeach()
if(NOT DEFINED EXPECT)
  set(EXPECT caught)
endif()
string(REPLACE "," ";" catchers "${CATCHERS}")
string(REPLACE "|" ";" log_problems "${LOG_PROBLEMS}")
set(log_entry vek_ut_logcheck.SystemLog)
file(MAKE_DIRECTORY "${WORK_DIR}")

# The cases of a program, "Suite.Case" in run order.
function(list_cases program out_var)
  execute_process(COMMAND "${program}" --gtest_list_tests
    OUTPUT_VARIABLE listing RESULT_VARIABLE rc TIMEOUT 60)
  if(NOT rc EQUAL 0)
    message(FATAL_ERROR "${program} --gtest_list_tests: ${rc}")
  endif()
  string(REPLACE ";" "," listing "${listing}")
  string(REPLACE "\n" ";" lines "${listing}")
  set(cases "")
  set(suite "")
  foreach(line IN LISTS lines)
    if(line MATCHES "^([^ ][^ ]*)\\.( .*)?$")
      set(suite "${CMAKE_MATCH_1}")
    elseif(line MATCHES "^  ([^ ]+)")
      list(APPEND cases "${suite}.${CMAKE_MATCH_1}")
    endif()
  endforeach()
  set(${out_var} "${cases}" PARENT_SCOPE)
endfunction()

function(now_us out_var)
  string(TIMESTAMP seconds "%s")
  string(TIMESTAMP micros "%f")
  math(EXPR value "${seconds} * 1000000 + ${micros}")
  set(${out_var} ${value} PARENT_SCOPE)
endfunction()

set(env_args "")
if(DEFINED PRELOAD AND NOT PRELOAD STREQUAL "")
  list(APPEND env_args "LD_PRELOAD=${PRELOAD}" "VEK_FAULT=${FAULT}")
endif()

set(xml "${WORK_DIR}/${NAME}.xml")
file(REMOVE "${xml}")
if(MODE STREQUAL "runner")
  set(command "${RUNNER}" "--exe=${EXE}" "--case-timeout=${DEADLINE}"
      "--xml=${xml}")
  if(CHECK_LOG)
    list(APPEND command --check-log)
  endif()
elseif(MODE STREQUAL "plain")
  list(APPEND env_args "VEK_UT_CASE_TIMEOUT_S=${DEADLINE}")
  set(command "${EXE}")
elseif(MODE STREQUAL "project" OR MODE STREQUAL "logcheck")
  set(command "${EXE}")
else()
  message(FATAL_ERROR "run_fault.cmake: unknown MODE ${MODE}")
endif()

now_us(started)
execute_process(
  COMMAND ${CMAKE_COMMAND} -E env --unset=VEK_FAULT --unset=LD_PRELOAD
          ${env_args} ${command}
  OUTPUT_VARIABLE out ERROR_VARIABLE err RESULT_VARIABLE rc
  TIMEOUT ${MAX_SECONDS})
now_us(ended)
math(EXPR elapsed_ms "(${ended} - ${started}) / 1000")
file(WRITE "${WORK_DIR}/${NAME}.out" "${out}")
file(WRITE "${WORK_DIR}/${NAME}.err" "${err}")

set(problems "")
macro(problem text)
  string(APPEND problems "  ${text}\n")
endmacro()
# The log check's report must hold every one of LOG_PROBLEMS.
macro(reports_problems report)
  foreach(expected IN LISTS log_problems)
    string(FIND "${report}" ": ${expected}" at)
    if(at EQUAL -1)
      problem("the log check does not report ${expected}")
    endif()
  endforeach()
endmacro()

if(NOT rc MATCHES "^[0-9]+$")
  message(FATAL_ERROR
    "${NAME}: ${rc} after ${elapsed_ms} ms (bound ${MAX_SECONDS} s); output in ${WORK_DIR}")
endif()
message(STATUS "${NAME}: exit status ${rc} after ${elapsed_ms} ms")

if(DEFINED FAULT AND NOT FAULT STREQUAL "" AND NOT FAULT STREQUAL "none")
  string(FIND "${err}" "vek-fault: injected ${FAULT}\n" at)
  if(INJECTED STREQUAL "never")
    if(NOT at EQUAL -1)
      problem("the fault ${FAULT} bent a call that this run should not make")
    endif()
  elseif(at EQUAL -1)
    problem("the fault ${FAULT} never bent a call")
  endif()
endif()

if(MODE STREQUAL "project")
  if(rc EQUAL 0)
    problem("the project test passed")
  endif()
elseif(MODE STREQUAL "logcheck")
  if(NOT rc EQUAL 0)
    problem("the run failed (status ${rc}); its cases must pass")
  endif()
  execute_process(COMMAND "${LOGCHECK}" "${WORK_DIR}/${NAME}.err"
    OUTPUT_VARIABLE report RESULT_VARIABLE check_rc TIMEOUT 120)
  file(WRITE "${WORK_DIR}/${NAME}.check" "${report}")
  if(NOT check_rc EQUAL 1)
    problem("vek_ut_logcheck exited with ${check_rc}, not 1")
  endif()
  reports_problems("${report}")
elseif(MODE STREQUAL "plain")
  list(LENGTH catchers count)
  if(NOT count EQUAL 1)
    message(FATAL_ERROR "run_fault.cmake: plain mode takes one catcher")
  endif()
  if(NOT rc EQUAL 1)
    problem("exit status ${rc}, not 1")
  endif()
  string(FIND "${out}" "[  HUNG    ] ${CATCHERS} (${DEADLINE} s)\n" at)
  if(at EQUAL -1)
    problem("the report does not name ${CATCHERS} as hung")
  endif()
  math(EXPR bound_ms "(${DEADLINE} + 3) * 1000")
  if(elapsed_ms GREATER bound_ms)
    problem("ended after ${elapsed_ms} ms, past the deadline plus 3 s")
  endif()
else()
  if(NOT EXISTS "${xml}")
    message(FATAL_ERROR "${NAME}: the runner wrote no ${xml}\n${err}")
  endif()
  # One chunk per case: the XML split at its testcase elements. Brackets
  # and semicolons would confuse CMake's lists; they matter to no check.
  file(READ "${xml}" report)
  string(REPLACE ";" "," report "${report}")
  string(REPLACE "[" "(" report "${report}")
  string(REPLACE "]" ")" report "${report}")
  string(REPLACE "<testcase " ";<testcase " chunks "${report}")
  set(reported "")
  set(failed "")
  foreach(chunk IN LISTS chunks)
    if(NOT chunk MATCHES "^<testcase name=\"([^\"]*)\"")
      continue()
    endif()
    set(case_name "${CMAKE_MATCH_1}")
    string(REGEX MATCH "classname=\"([^\"]*)\"" ignored "${chunk}")
    set(full "${CMAKE_MATCH_1}.${case_name}")
    list(APPEND reported "${full}")
    if(chunk MATCHES "<failure")
      string(REGEX MATCH "result=\"([^\"]*)\"" ignored "${chunk}")
      list(APPEND failed "${full}")
      if(NOT CMAKE_MATCH_1 STREQUAL "completed")
        list(APPEND failed_how "${full} (${CMAKE_MATCH_1})")
      else()
        list(APPEND failed_how "${full}")
      endif()
    endif()
  endforeach()

  if(CHECK_LOG)
    list(POP_BACK reported entry)
    if(NOT entry STREQUAL log_entry)
      problem("the runner reported no ${log_entry} last")
    endif()
  endif()
  list_cases("${EXE}" planned)
  if(NOT reported STREQUAL planned)
    list(LENGTH reported reported_count)
    list(LENGTH planned planned_count)
    problem("the runner reported ${reported_count} cases of ${planned_count}")
  endif()
  if(DEFINED REFERENCE AND NOT REFERENCE STREQUAL "")
    list_cases("${REFERENCE}" reference_cases)
    if(NOT planned STREQUAL reference_cases)
      problem("its cases or their order differ from ${REFERENCE}")
    endif()
  endif()

  list(LENGTH failed failed_count)
  list(LENGTH reported reported_count)
  string(REPLACE ";" "\n    " failed_text "${failed_how}")
  message(STATUS "${NAME}: ${failed_count} of ${reported_count} cases failed\n    ${failed_text}")

  if(CHECK_LOG)
    if(rc EQUAL 0 OR NOT failed STREQUAL log_entry)
      problem("the log check alone must fail the run (status ${rc})")
    endif()
    reports_problems("${out}")
  elseif(EXPECT STREQUAL "passes")
    if(NOT rc EQUAL 0 OR NOT failed_count EQUAL 0)
      problem("the run did not pass (status ${rc})")
    endif()
  else()
    if(rc EQUAL 0)
      problem("the run passed")
    endif()
    foreach(catcher IN LISTS catchers)
      if(NOT catcher IN_LIST failed)
        problem("${catcher} did not fail")
      endif()
    endforeach()
    if(EXACT)
      foreach(case IN LISTS failed)
        if(NOT case IN_LIST catchers)
          problem("${case} failed as well")
        endif()
      endforeach()
    endif()
  endif()
endif()

if(NOT problems STREQUAL "")
  message(FATAL_ERROR "${NAME}:\n${problems}output in ${WORK_DIR}/${NAME}.*")
endif()
