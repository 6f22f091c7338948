# Options that are found by themselves.

# volorn_found_option(NAME TEXT FOUND): on where the variable FOUND is true; an error where it is said to be on and
# FOUND is not.
function(volorn_found_option name text found)
  if(${found})
    set(default ON)
  else()
    set(default OFF)
  endif()
  option(${name} "${text}" ${default})
  if(${name} AND NOT ${found})
    message(FATAL_ERROR "${name} is on, and what it needs was not found: ${found}")
  endif()
endfunction()

function(volorn_tell_options)
  message(STATUS "volorn ${PROJECT_VERSION} for ${CMAKE_SYSTEM_PROCESSOR}:")
  foreach(option SYSTEMD VOLORNCTL SCREEN RECORD PUSH STATIC_SQLITE WARNINGS_AS_ERRORS OPENRC DEBIAN TESTS BENCHMARKS)
    message(STATUS "  VOLORN_${option} ${VOLORN_${option}}")
  endforeach()
endfunction()
