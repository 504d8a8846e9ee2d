# Compiler and linker options that every target of the project shares, as the interface target `qel_options`.
add_library(qel_options INTERFACE)
target_compile_options(qel_options INTERFACE
  -Wall -Wextra -Wpedantic -Wconversion -Wshadow -Wundef -Wvla
  $<$<COMPILE_LANGUAGE:CXX>:-Wnon-virtual-dtor -Woverloaded-virtual -Wsuggest-override>
  -fno-semantic-interposition)
# For the same reason, a shared library calls its own functions directly, not through the dynamic linker.
target_link_options(qel_options INTERFACE
  $<$<STREQUAL:$<TARGET_PROPERTY:TYPE>,SHARED_LIBRARY>:LINKER:-Bsymbolic-functions>)
# Functions of other libraries are called through their addresses, without a jump between.
target_compile_options(qel_options INTERFACE
  $<$<AND:$<NOT:$<CONFIG:Debug>>,$<STREQUAL:$<TARGET_PROPERTY:TYPE>,SHARED_LIBRARY>>:-fno-plt>)
if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU" AND CMAKE_CXX_COMPILER_VERSION VERSION_LESS 13)
  # -Wrestrict reports overlapping copies in std::string::insert and replace where there are none (GCC bug 105651).
  target_compile_options(qel_options INTERFACE -Wno-restrict)
endif()
if(CMAKE_CXX_COMPILER_ID STREQUAL "Clang")
  # The interface prescribes some reserved names (`__xany_c`, `_Abort`). -Wconversion is limited to GCC's meaning of it. GCC
  # checks shadowing, and knows that the fields of an outer class are inaccessible.
  target_compile_options(qel_options INTERFACE -Wno-reserved-identifier -Wno-sign-conversion -Wno-shadow)
endif()
if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
  # GCC collects its garbage from this number of KiB on; below, that takes a tenth of the time to compile.
  target_compile_options(qel_options INTERFACE "SHELL:--param ggc-min-heapsize=524288")
endif()
if(CMAKE_BUILD_TYPE STREQUAL "Debug" AND NOT QELSTD_SANITIZE AND NOT QELSTD_COVERAGE AND NOT CMAKE_CROSSCOMPILING)
  # It links the many programs of the tests in a third of the time.
  include(CheckLinkerFlag)
  check_linker_flag(CXX -fuse-ld=mold QELSTD_HAS_MOLD)
  target_link_options(qel_options INTERFACE $<$<BOOL:${QELSTD_HAS_MOLD}>:-fuse-ld=mold>)
endif()
if(QELSTD_WERROR)
  target_compile_options(qel_options INTERFACE -Werror)
endif()
if(QELSTD_HARDENING AND NOT QELSTD_SANITIZE)
  # Without optimization there is nothing to fortify. Level 3 also checks objects whose size is known only when the program runs.
  set(level 2)
  if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU" AND CMAKE_CXX_COMPILER_VERSION VERSION_GREATER_EQUAL 12)
    set(level 3)
  endif()
  target_compile_options(qel_options INTERFACE -fstack-protector-strong -fstack-clash-protection
    $<$<NOT:$<CONFIG:Debug>>:-U_FORTIFY_SOURCE -D_FORTIFY_SOURCE=${level}>
    $<$<COMPILE_LANGUAGE:CXX>:-D_GLIBCXX_ASSERTIONS>)
  if(CMAKE_SYSTEM_PROCESSOR MATCHES "x86_64|i.86")
    target_compile_options(qel_options INTERFACE -fcf-protection)
  endif()
  target_link_options(qel_options INTERFACE LINKER:-z,relro,-z,now,-z,noexecstack)
endif()
if(QELSTD_SANITIZE)
  # The sanitizers' instrumentation makes GCC report uses of uninitialized values where there are none. Their reports name
  # functions and lines, for which -g1 is enough; more debug information makes compiling take half as long again.
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
  # It takes the compiler's list of headers, and so runs no preprocessor before the compiler; with the sloppiness, it keeps
  # what is made with precompiled headers.
  set(CMAKE_C_COMPILER_LAUNCHER env CCACHE_DEPEND=1 ${CCACHE_PROGRAM})
  set(CMAKE_CXX_COMPILER_LAUNCHER env CCACHE_DEPEND=1 CCACHE_SLOPPINESS=pch_defines,time_macros ${CCACHE_PROGRAM})
endif()
