# Strict warnings for our own targets only; third-party headers are included as
# system headers by their imported targets.
function(dischive_warnings target)
  target_compile_options(${target} PRIVATE -Wall -Wextra -Wnon-virtual-dtor)
  if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
    target_compile_options(${target} PRIVATE -Wshadow=local)
    # GCC 12 at -O2/-O3 reports impossible overlaps inside std::string's own
    # copies (GCC bugs 105329 and 105651: "accessing 9223372036854775810 or more
    # bytes"); the warning says nothing about our code there, so it is off.
    if(CMAKE_CXX_COMPILER_VERSION VERSION_GREATER_EQUAL 12 AND CMAKE_CXX_COMPILER_VERSION VERSION_LESS 13)
      target_compile_options(${target} PRIVATE $<$<COMPILE_LANGUAGE:CXX>:-Wno-restrict>)
    endif()
  endif()
  if(DISCHIVE_WERROR)
    target_compile_options(${target} PRIVATE -Werror)
  endif()
endfunction()
