# qel_add_test(NAME [LABELS label...] [LIBRARIES lib...]): the program NAME from NAME.cpp (or NAME.c) of this folder,
# run by ctest. Label `threads` marks tests that start threads; the thread sanitizer runs those, and the target
# `thread_tests` builds only those.
set(QELSTD_TEST_TIMEOUT 300 CACHE STRING "Seconds after which ctest ends a test")
find_package(GTest REQUIRED)
add_custom_target(thread_tests)

# qel_measures_time(TEST...): these measure time, and run with no other beside them.
function(qel_measures_time)
  set_tests_properties(${ARGN} PROPERTIES RUN_SERIAL TRUE)
endfunction()

if(QELSTD_PRECOMPILE)
  # Compiled once for all tests.
  file(CONFIGURE OUTPUT test_headers.cpp CONTENT "int main() {}\n")
  add_executable(test_headers ${CMAKE_CURRENT_BINARY_DIR}/test_headers.cpp)
  target_link_libraries(test_headers PRIVATE qel_options GTest::gtest)
  target_precompile_headers(test_headers PRIVATE ${CMAKE_CURRENT_SOURCE_DIR}/tests/support/test.h)
endif()

function(qel_add_test name)
  cmake_parse_arguments(arg "" "" "LABELS;LIBRARIES" ${ARGN})
  if(EXISTS ${CMAKE_CURRENT_SOURCE_DIR}/${name}.c)
    add_executable(${name} ${name}.c)
  else()
    add_executable(${name} ${name}.cpp)
    target_link_libraries(${name} PRIVATE GTest::gtest GTest::gmock GTest::gtest_main)
    if(QELSTD_PRECOMPILE)
      target_precompile_headers(${name} REUSE_FROM test_headers)
    endif()
  endif()
  target_link_libraries(${name} PRIVATE qel_options qel_test_support qelstd::qelstd ${arg_LIBRARIES})
  add_test(NAME ${name} COMMAND ${name})
  set_tests_properties(${name} PROPERTIES TIMEOUT ${QELSTD_TEST_TIMEOUT} LABELS "${arg_LABELS}")
  if("threads" IN_LIST arg_LABELS)
    add_dependencies(thread_tests ${name})
  endif()
endfunction()
