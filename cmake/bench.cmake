# qel_add_bench(NAME [LIBRARIES lib...]): the benchmark program NAME from NAME.cpp of this folder, built into
# ${PROJECT_BINARY_DIR}/bench, where bench/report.py finds it. Peers to link with: Qt5::Core, PkgConfig::glib,
# Poco::Foundation, Poco::Net, Poco::Util, PkgConfig::tirpc.
find_package(benchmark REQUIRED)
find_package(Qt5 REQUIRED COMPONENTS Core)
find_package(Poco REQUIRED COMPONENTS Foundation Net Util)
find_package(PkgConfig REQUIRED)
pkg_check_modules(glib REQUIRED IMPORTED_TARGET glib-2.0 gobject-2.0 gio-2.0)
pkg_check_modules(tirpc REQUIRED IMPORTED_TARGET libtirpc)

function(qel_add_bench name)
  cmake_parse_arguments(arg "" "" "LIBRARIES" ${ARGN})
  add_executable(${name} ${name}.cpp)
  set_target_properties(${name} PROPERTIES RUNTIME_OUTPUT_DIRECTORY ${PROJECT_BINARY_DIR}/bench)
  # Where a loop lies changes the time of the shortest by a fifth, ours and peers'.
  target_compile_options(${name} PRIVATE -falign-functions=64 -falign-loops=32)
  target_link_libraries(${name} PRIVATE qel_options qelstd::qelstd benchmark::benchmark_main ${arg_LIBRARIES})
  target_include_directories(${name} PRIVATE ${PROJECT_SOURCE_DIR}/bench # for curve.h
                                             ${PROJECT_SOURCE_DIR}/tests) # for tests/support
endfunction()
