# Writes docs/faults.md from the fault declarations of CMakeLists.txt: one
# row per variant, "name|kind|does|catchers|contract catchers|projects|
# reached|log check problems", kind being library, header (built into both
# executables) or header-ut-only (no contract source includes the header),
# and reached OFF when the conformance executable never makes the call the
# fault bends.

function(vek_fault_cases_text cases out_var)
  if(cases STREQUAL "")
    set(${out_var} "**not caught**" PARENT_SCOPE)
    return()
  endif()
  string(REPLACE "," ", " text "${cases}")
  set(${out_var} "${text}" PARENT_SCOPE)
endfunction()

function(vek_fault_write_doc rows path)
  set(total 0)
  set(library 0)
  set(header 0)
  set(ut_library 0)
  set(ut_header 0)
  set(contract 0)
  set(either 0)
  set(log_only 0)
  set(table "")
  foreach(row IN LISTS rows)
    string(REPLACE "|" ";" fields "${row}")
    list(GET fields 0 name)
    list(GET fields 1 kind)
    list(GET fields 2 does)
    list(GET fields 3 catchers)
    list(GET fields 4 contract_catchers)
    list(GET fields 5 projects)
    list(GET fields 6 reached)
    list(GET fields 7 log_problems)
    math(EXPR total "${total} + 1")
    if(kind STREQUAL "library")
      math(EXPR library "${library} + 1")
    else()
      math(EXPR header "${header} + 1")
    endif()
    if(NOT catchers STREQUAL "")
      if(kind STREQUAL "library")
        math(EXPR ut_library "${ut_library} + 1")
      else()
        math(EXPR ut_header "${ut_header} + 1")
      endif()
    endif()
    if(NOT contract_catchers STREQUAL "")
      math(EXPR contract "${contract} + 1")
    endif()
    if(NOT catchers STREQUAL "" OR NOT contract_catchers STREQUAL "")
      math(EXPR either "${either} + 1")
    endif()
    vek_fault_cases_text("${catchers}" ut_text)
    if(NOT reached)
      string(APPEND ut_text " (never reaches it)")
    endif()
    if(NOT log_problems STREQUAL "")
      if(catchers STREQUAL "")
        math(EXPR log_only "${log_only} + 1")
        set(ut_text "**not caught** by the cases")
      endif()
      string(REPLACE "\n" "`, `" problems "${log_problems}")
      string(APPEND ut_text "; the log check reports `${problems}`")
    endif()
    if(kind STREQUAL "header-ut-only")
      set(contract_text "(does not include the header)")
    else()
      vek_fault_cases_text("${contract_catchers}" contract_text)
    endif()
    string(REPLACE "," ", " project_text "${projects}")
    string(APPEND table
      "| `${name}` | ${does} | ${ut_text} | ${contract_text} | ${project_text} |\n")
  endforeach()
  math(EXPR ut_total "${ut_library} + ${ut_header}")
  math(EXPR with_log "${ut_total} + ${log_only}")

  file(READ ${CMAKE_CURRENT_FUNCTION_LIST_DIR}/faults_doc_intro.md intro)
  set(text "${intro}")
  string(APPEND text
    "**Kill rate of the conformance executable alone: ${ut_total} of ${total}** "
    "(library faults ${ut_library} of ${library}, header mutants ${ut_header} "
    "of ${header}), ${with_log} of ${total} with its log check "
    "(`vek_ut_runner --check-log`, `vek_ut_logcheck`; see "
    "[logcheck.md](logcheck.md)). "
    "The contract executable catches ${contract} of "
    "${total}; the two together catch ${either} of ${total}.\n\n"
    "| Variant | What the broken port does | `vek_ut_osal_common` | "
    "`vek_ut_osal_contract` | Project tests |\n"
    "|---|---|---|---|---|\n"
    "${table}")
  file(WRITE ${path}.tmp "${text}")
  file(COPY_FILE ${path}.tmp ${path} ONLY_IF_DIFFERENT)
endfunction()
