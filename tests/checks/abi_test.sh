#!/bin/bash
# abi_test.sh: abi.sh accepts libraries with an addition and rejects those with a change, tested with a project of three small
# libraries with a release.
set -euo pipefail
here=$(realpath "$(dirname "${BASH_SOURCE[0]}")")
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
cd "$work"

mkdir -p tests/checks include cmake/abi
cp "$here/abi.sh" tests/checks
cat >CMakeLists.txt <<'END'
cmake_minimum_required(VERSION 3.25)
project(small VERSION 0.1.0 LANGUAGES CXX)
include(GNUInstallDirs)
foreach(library qelstd qelbaselib qelctools)
  add_library(${library} SHARED ${library}.cpp)
  target_include_directories(${library} PRIVATE include)
  set_target_properties(${library} PROPERTIES VERSION ${PROJECT_VERSION} SOVERSION ${PROJECT_VERSION_MAJOR})
  install(TARGETS ${library} LIBRARY COMPONENT libraries)
endforeach()
install(DIRECTORY include/ DESTINATION ${CMAKE_INSTALL_INCLUDEDIR} COMPONENT development)
END
echo 'struct point { int x; int y; }; int length(const point& p);' >include/point.h
printf '#include "point.h"\nint length(const point& p) { return p.x + p.y; }\n' >qelstd.cpp
echo 'int base() { return 1; }' >qelbaselib.cpp
echo 'int tools() { return 2; }' >qelctools.cpp

answer() # EXPECTED-CODE TEXT [write]: builds the project and runs abi.sh
{
    local code=0
    cmake -S . -B build/now-built -G Ninja -DCMAKE_BUILD_TYPE=Release -DCMAKE_CXX_FLAGS=-g >log
    cmake --build build/now-built >>log
    tests/checks/abi.sh build/now-built ${3:-} >>log 2>&1 || code=$?
    [[ $code == "$1" ]] && grep -q "$2" log || { cat log; echo "abi_test: ended with $code, not with $1 and '$2'"; exit 1; }
}

answer 0 "no release yet"
answer 0 "qelctools.abi.xz" write
answer 0 "run with these libraries"
echo 'int more() { return 3; }' >>qelbaselib.cpp
answer 0 "run with these libraries"
sed -i 's/int x;/long x;/' include/point.h
answer 1 "might break"
sed -i 's/VERSION 0.1.0/VERSION 1.0.0/' CMakeLists.txt
answer 0 "another major version"
sed -i 's/VERSION 1.0.0/VERSION 0.1.1/; s/long x;/int x;/' CMakeLists.txt include/point.h
sed -i '1!d' qelbaselib.cpp
echo 'int tool() { return 2; }' >qelctools.cpp # renamed
answer 1 "might break"
echo "additions pass, and changes do not"
