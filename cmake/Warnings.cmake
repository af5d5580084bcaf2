# Strict warnings for our own targets only; third-party headers are included as
# system headers by their imported targets.
function(dischive_warnings target)
  target_compile_options(${target} PRIVATE -Wall -Wextra -Wshadow=local -Wnon-virtual-dtor)
  if(DISCHIVE_WERROR)
    target_compile_options(${target} PRIVATE -Werror)
  endif()
endfunction()
