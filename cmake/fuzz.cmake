# qel_add_fuzzer(NAME [LIBRARIES lib...]): the fuzz target fuzz_NAME from NAME.cpp, which defines LLVMFuzzerTestOneInput.
# Its inputs are in corpus/NAME; NAME.dict, if it exists, is its dictionary. With QELSTD_BUILD_FUZZ it is linked with
# the fuzzing engine; otherwise it is a test that replays the inputs.
if(NOT QELSTD_BUILD_FUZZ)
  add_library(fuzz_replay OBJECT ${PROJECT_SOURCE_DIR}/fuzz/replay.cpp)
  target_link_libraries(fuzz_replay PRIVATE qel_options qelstd::qelstd)
endif()

function(qel_add_fuzzer name)
  cmake_parse_arguments(arg "" "" "LIBRARIES" ${ARGN})
  add_executable(fuzz_${name} ${name}.cpp)
  target_link_libraries(fuzz_${name} PRIVATE qel_options qelstd::qelstd ${arg_LIBRARIES})
  target_include_directories(fuzz_${name} PRIVATE ${PROJECT_SOURCE_DIR}/tests) # for tests/support
  if(QELSTD_BUILD_FUZZ)
    target_link_options(fuzz_${name} PRIVATE -fsanitize=fuzzer)
  else()
    target_link_libraries(fuzz_${name} PRIVATE fuzz_replay)
    add_test(NAME fuzz_${name} COMMAND fuzz_${name} ${CMAKE_CURRENT_SOURCE_DIR}/corpus/${name})
    set_tests_properties(fuzz_${name} PROPERTIES TIMEOUT 300 LABELS fuzz)
  endif()
endfunction()
