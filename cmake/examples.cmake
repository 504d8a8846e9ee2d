# qel_add_example(NAME [SCRIPT script] [ARGS arg...] [EXPECT file]): the program NAME from NAME.cpp (or NAME.c) of this
# folder. ctest runs it in this folder, or runs the script, which gets the build's folder first; it must succeed and, with
# EXPECT, print exactly what the file holds.
function(qel_add_example name)
  cmake_parse_arguments(arg "" "SCRIPT;EXPECT" "ARGS" ${ARGN})
  set(command $<TARGET_FILE:example_${name}>)
  if(arg_SCRIPT)
    set(command ${CMAKE_CURRENT_SOURCE_DIR}/${arg_SCRIPT} ${PROJECT_BINARY_DIR})
  endif()
  if(EXISTS ${CMAKE_CURRENT_SOURCE_DIR}/${name}.c)
    add_executable(example_${name} ${name}.c)
  else()
    add_executable(example_${name} ${name}.cpp)
  endif()
  set_target_properties(example_${name} PROPERTIES OUTPUT_NAME ${name})
  target_link_libraries(example_${name} PRIVATE qel_options qelstd::qelstd)
  if(QELSTD_BUILD_TESTS)
    add_test(NAME example_${name} WORKING_DIRECTORY ${CMAKE_CURRENT_SOURCE_DIR}
      COMMAND ${CMAKE_COMMAND} -D EXPECT=${arg_EXPECT} -P ${PROJECT_SOURCE_DIR}/cmake/run_example.cmake
              -- ${command} ${arg_ARGS})
    set_tests_properties(example_${name} PROPERTIES TIMEOUT 300 LABELS examples)
  endif()
endfunction()
