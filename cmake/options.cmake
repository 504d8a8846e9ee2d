# Compiler and linker options that every target of the project shares, as the interface target `qel_options`.
add_library(qel_options INTERFACE)
target_compile_options(qel_options INTERFACE
  -Wall -Wextra -Wpedantic -Wconversion -Wshadow -Wundef -Wvla
  $<$<COMPILE_LANGUAGE:CXX>:-Wnon-virtual-dtor -Woverloaded-virtual -Wsuggest-override>
  -fno-semantic-interposition)
# For the same reason, a shared library calls its own functions without asking the dynamic linker for them.
target_link_options(qel_options INTERFACE
  $<$<STREQUAL:$<TARGET_PROPERTY:TYPE>,SHARED_LIBRARY>:LINKER:-Bsymbolic-functions>)
if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU" AND CMAKE_CXX_COMPILER_VERSION VERSION_LESS 13)
  # Sees overlapping copies in std::string::insert and replace where there are none (GCC bug 105651).
  target_compile_options(qel_options INTERFACE -Wno-restrict)
endif()
if(CMAKE_CXX_COMPILER_ID STREQUAL "Clang")
  # The names that the interface fixes (`__xany_c`, `_Abort`) are its own. -Wconversion asks what it asks of GCC, which
  # also watches over shadowing, and knows that the fields of an outer class are out of reach.
  target_compile_options(qel_options INTERFACE -Wno-reserved-identifier -Wno-sign-conversion -Wno-shadow)
endif()
if(QELSTD_WERROR)
  target_compile_options(qel_options INTERFACE -Werror)
endif()
if(QELSTD_SANITIZE)
  # What the sanitizers add makes GCC see uses of uninitialized values where there are none. Their reports name functions
  # and lines, for which -g1 is enough; to describe more of what they make takes half as long again to compile.
  target_compile_options(qel_options INTERFACE $<$<CXX_COMPILER_ID:GNU>:-Wno-maybe-uninitialized>
    -fsanitize=${QELSTD_SANITIZE} -fno-sanitize-recover=all -fno-omit-frame-pointer -g1)
  target_link_options(qel_options INTERFACE -fsanitize=${QELSTD_SANITIZE})
endif()

if(QELSTD_COVERAGE)
  target_compile_options(qel_options INTERFACE --coverage -fprofile-update=atomic -fprofile-abs-path)
  target_link_options(qel_options INTERFACE --coverage)
else()
  target_compile_options(qel_options INTERFACE -ffile-prefix-map=${PROJECT_SOURCE_DIR}/=)
endif()

find_program(CCACHE_PROGRAM ccache)
if(CCACHE_PROGRAM AND NOT CMAKE_CXX_COMPILER_LAUNCHER)
  set(CMAKE_C_COMPILER_LAUNCHER ${CCACHE_PROGRAM})
  set(CMAKE_CXX_COMPILER_LAUNCHER ${CCACHE_PROGRAM})
endif()
