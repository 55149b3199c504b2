# A port's folder holds only what that port must write for its platform:
# every source and header there needs a platform header, itself or through
# the folder's own headers. Code that needs none is portable and belongs
# beside the interface (osal/, logging/, utils/), where every port gets it.
#
# Platform headers are those beyond ISO C and C++: POSIX's own
# (<pthread.h>, <unistd.h>, ...) and the system folders sys/, linux/, asm/
# and android/. A port to another platform adds its platform's here.
#
# -DFRAMEWORK=<framework/> -DPORT=<folder name under framework/osal/>
cmake_minimum_required(VERSION 3.25)
set(platform "^((pthread|sched|semaphore|unistd|fcntl|dlfcn|poll)\\.h|(sys|linux|asm|android)/.*)$")

file(GLOB files RELATIVE ${FRAMEWORK}
  ${FRAMEWORK}/osal/${PORT}/*.cpp ${FRAMEWORK}/osal/${PORT}/*.h)
if(NOT files)
  message(FATAL_ERROR "no sources in framework/osal/${PORT}/")
endif()
# What each file includes: a platform header, or files of the folder.
foreach(file IN LISTS files)
  set(uses_${file})
  file(STRINGS ${FRAMEWORK}/${file} lines REGEX "^#[ \t]*include")
  foreach(line IN LISTS lines)
    if(line MATCHES "<([^>]+)>" AND CMAKE_MATCH_1 MATCHES "${platform}")
      set(uses_${file} "<platform>")
      break()
    elseif(line MATCHES "\"([^\"]+)\"" AND CMAKE_MATCH_1 IN_LIST files)
      list(APPEND uses_${file} ${CMAKE_MATCH_1})
    endif()
  endforeach()
endforeach()

# Portable until shown otherwise: a file that includes a platform header,
# or a file of the folder that is not portable, is not; until no change.
set(portable ${files})
set(before "")
while(NOT portable STREQUAL before)
  set(before "${portable}")
  foreach(file IN LISTS before)
    foreach(used IN LISTS uses_${file})
      if(NOT used IN_LIST portable)
        list(REMOVE_ITEM portable ${file})
        break()
      endif()
    endforeach()
  endforeach()
endwhile()
if(portable)
  list(JOIN portable ", " portable)
  message(FATAL_ERROR "need no platform header, so they are not the port's: "
    "${portable}")
endif()
list(LENGTH files count)
message(STATUS "framework/osal/${PORT}/: each of ${count} files needs a platform header")
