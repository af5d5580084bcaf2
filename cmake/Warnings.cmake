# Strict warnings for our own targets only; third-party headers are included as
# system headers by their imported targets.
function(dischive_warnings target)
  target_compile_options(${target} PRIVATE -Wall -Wextra -Wnon-virtual-dtor)
  if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
    target_compile_options(${target} PRIVATE -Wshadow=local)
  endif()
  if(DISCHIVE_WERROR)
    target_compile_options(${target} PRIVATE -Werror)
  endif()
endfunction()
