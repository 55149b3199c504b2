# Compiles logger_lock_misuse.cpp once per case with the build's compiler
# and warning flags: the correct use must compile, and every misuse must be
# rejected by the thread-safety analysis with the diagnostic named here, so
# that a header change which silently drops an annotation fails this test.
# An annotation of the mutex itself that goes or goes wrong stops the
# correct use from compiling.
#
# -DCXX=<compiler> -DSOURCE=<file> -DINCLUDE=<framework dir>
set(cases
  "CORRECT|"
  "UNLOCKED_MAP_READ|reading variable 'custom_groups_' requires holding mutex"
  "UNLOCKED_DEFAULT_WRITE|writing variable 'custom_default_mask_' requires holding mutex"
  "UNLOCKED_FIND_OR_CREATE|calling function 'FindOrCreateCustomConfig' requires holding mutex"
  "UNLOCKED_PREDEFINED_WRITE|calling function 'StorePredefinedMask' requires holding mutex")
set(failed 0)
foreach(entry IN LISTS cases)
  string(REGEX MATCH "^([^|]*)\\|(.*)$" entry "${entry}")
  set(name ${CMAKE_MATCH_1})
  set(expected "${CMAKE_MATCH_2}")
  execute_process(COMMAND ${CXX} -std=c++17 -fsyntax-only -Wall -Wextra
      -Werror -Wthread-safety -I${INCLUDE} -DVEK_CASE_${name} ${SOURCE}
    RESULT_VARIABLE rc ERROR_VARIABLE err OUTPUT_VARIABLE out)
  if(NOT expected)
    if(NOT rc EQUAL 0)
      message(SEND_ERROR "the correct use does not compile:\n${out}${err}")
      set(failed 1)
    endif()
  elseif(rc EQUAL 0)
    message(SEND_ERROR "${name}: compiled, the analysis let it through")
    set(failed 1)
  elseif(NOT err MATCHES "${expected}")
    message(SEND_ERROR "${name}: rejected, but not for the lock:\n${err}")
    set(failed 1)
  else()
    message(STATUS "${name}: rejected as expected")
  endif()
endforeach()
if(failed)
  message(FATAL_ERROR "the thread-safety analysis missed misuse")
endif()
