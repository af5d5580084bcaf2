# Fails when a C or C++ source of the project differs from what clang-format
# makes of it (the repository's .clang-format).
find_program(CLANG_FORMAT NAMES clang-format clang-format-14 REQUIRED)
set(files)
foreach(dir include src tools tests bench fuzz)
  file(GLOB_RECURSE found ${SOURCE_DIR}/${dir}/*.h ${SOURCE_DIR}/${dir}/*.cpp ${SOURCE_DIR}/${dir}/*.c)
  list(APPEND files ${found})
endforeach()
list(FILTER files EXCLUDE REGEX "/tests/data/")
execute_process(COMMAND ${CLANG_FORMAT} --dry-run -Werror ${files}
  WORKING_DIRECTORY ${SOURCE_DIR} RESULT_VARIABLE rc ERROR_VARIABLE err)
if(NOT rc EQUAL 0)
  message(FATAL_ERROR "clang-format would change these sources (run clang-format -i):\n${err}")
endif()
