# Compiles logger_lock_misuse.cpp once per case with the build's compiler
# and warning flags: the correct use must compile, and every misuse must be
# rejected by the thread-safety analysis with the diagnostic named here, so
# that a header change which silently drops an annotation fails this test.
#
# -DCXX=<compiler> -DSOURCE=<file> -DINCLUDE=<framework dir>
set(cases
  "UNLOCKED_MAP_READ|reading variable 'custom_groups_' requires holding mutex"
  "UNLOCKED_DEFAULT_WRITE|writing variable 'custom_default_mask_' requires holding mutex"
  "UNLOCKED_FIND_OR_CREATE|calling function 'FindOrCreateCustomConfig' requires holding mutex"
  "UNLOCKED_PREDEFINED_WRITE|calling function 'StorePredefinedMask' requires holding mutex"
  "RETURN_WITH_LOCK_HELD|mutex 'logger.mutex_' is (still held at the end of function|not held on every path)"
  "DOUBLE_UNLOCK|releasing mutex 'logger.mutex_' that was not held")
set(flags -std=c++17 -fsyntax-only -Wall -Wextra -Werror -Wthread-safety
    -I${INCLUDE})

execute_process(COMMAND ${CXX} ${flags} -DVEK_CASE_CORRECT ${SOURCE}
  RESULT_VARIABLE rc ERROR_VARIABLE err OUTPUT_VARIABLE out)
if(NOT rc EQUAL 0)
  message(FATAL_ERROR "the correct use does not compile:\n${out}${err}")
endif()

set(failed 0)
foreach(entry IN LISTS cases)
  string(FIND "${entry}" "|" bar)
  string(SUBSTRING "${entry}" 0 ${bar} name)
  math(EXPR start "${bar} + 1")
  string(SUBSTRING "${entry}" ${start} -1 expected)
  execute_process(COMMAND ${CXX} ${flags} -DVEK_CASE_${name} ${SOURCE}
    RESULT_VARIABLE rc ERROR_VARIABLE err OUTPUT_VARIABLE out)
  if(rc EQUAL 0)
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
