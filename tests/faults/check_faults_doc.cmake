# Holds the checked-in docs/faults.md to the one generated from the fault
# declarations.  -DGENERATED=<file> -DCHECKED_IN=<file>
execute_process(COMMAND ${CMAKE_COMMAND} -E compare_files
  ${GENERATED} ${CHECKED_IN} RESULT_VARIABLE differs)
if(differs)
  message(FATAL_ERROR "docs/faults.md no longer matches tests/faults; "
    "after a configure, copy ${GENERATED} over it")
endif()
