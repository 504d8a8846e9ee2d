# Helpers with which each folder lists its sources and headers. Public headers are linked into
# ${PROJECT_BINARY_DIR}/include, so that the build tree is used like an installed prefix: `#include <qel/xobject.h>`.

# qel_library(NAME EXPORT_MACRO [LOADED_FROM COMPONENT]): a shared library that the folders below add their sources to. The
# names of the files begin with `qel`, since they share the system's folder with those of others. LOADED_FROM: programs do
# not link with it, and it is installed as part of that component.
function(qel_library name macro)
  cmake_parse_arguments(arg "" "LOADED_FROM" "" ${ARGN})
  add_library(${name} SHARED)
  add_library(qelstd::${name} ALIAS ${name})
  target_link_libraries(${name} PRIVATE $<BUILD_INTERFACE:qel_options>)
  target_include_directories(${name} PUBLIC
    $<BUILD_INTERFACE:${PROJECT_BINARY_DIR}/include>
    $<INSTALL_INTERFACE:${CMAKE_INSTALL_INCLUDEDIR}>)
  target_compile_features(${name} PUBLIC cxx_std_20)
  target_compile_definitions(${name} PRIVATE ${macro})
  string(REGEX REPLACE "^qel" "" stem ${name})
  set_target_properties(${name} PROPERTIES
    OUTPUT_NAME qel${stem} VERSION ${PROJECT_VERSION} SOVERSION ${PROJECT_VERSION_MAJOR}
    LIBRARY_OUTPUT_DIRECTORY ${PROJECT_BINARY_DIR}/lib
    INSTALL_RPATH "$ORIGIN")
  # All symbols have one version, which a program records when it is linked, so that several versions may be loaded.
  string(MAKE_C_IDENTIFIER ${name} node)
  string(TOUPPER ${node} QEL_VERSION_NODE)
  set(script ${CMAKE_CURRENT_BINARY_DIR}/${name}.map)
  configure_file(${PROJECT_SOURCE_DIR}/cmake/symbols.map.in ${script} @ONLY)
  target_link_options(${name} PRIVATE LINKER:--version-script=${script})
  set_target_properties(${name} PROPERTIES LINK_DEPENDS ${script})
  if(arg_LOADED_FROM)
    install(TARGETS ${name} LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT ${arg_LOADED_FROM} NAMELINK_SKIP)
  else()
    install(TARGETS ${name} EXPORT qelstd LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
      COMPONENT libraries NAMELINK_COMPONENT development)
  endif()
  set(QEL_LIBRARY ${name} PARENT_SCOPE)
endfunction()

# qel_add_sources(FILE...): adds sources of this folder to the folder's library.
function(qel_add_sources)
  list(TRANSFORM ARGN PREPEND ${CMAKE_CURRENT_SOURCE_DIR}/)
  target_sources(${QEL_LIBRARY} PRIVATE ${ARGN})
  target_include_directories(${QEL_LIBRARY} PRIVATE ${CMAKE_CURRENT_SOURCE_DIR})
endfunction()

# qel_public_headers([INTERNAL] [IN SUBFOLDER] FILE...): headers of this folder that users include as <qel/FILE>, or as
# <qel/SUBFOLDER/FILE>. INTERNAL: for the folders of this project only, not installed.
function(qel_public_headers)
  cmake_parse_arguments(arg "INTERNAL" "IN" "" ${ARGN})
  set(folder qel/${arg_IN})
  foreach(header IN LISTS arg_UNPARSED_ARGUMENTS)
    file(MAKE_DIRECTORY ${PROJECT_BINARY_DIR}/include/${folder})
    file(CREATE_LINK ${CMAKE_CURRENT_SOURCE_DIR}/${header} ${PROJECT_BINARY_DIR}/include/${folder}/${header} SYMBOLIC)
    if(NOT arg_INTERNAL)
      install(FILES ${header} DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/${folder} COMPONENT development)
      cmake_path(SET name NORMALIZE ${folder}/${header})
      set_property(GLOBAL APPEND PROPERTY QEL_PUBLIC_HEADERS ${name})
    endif()
  endforeach()
endfunction()

# A program that qel starts: beside it in the build tree, and in a folder of its own when installed, with `component`.
function(qel_helper_program program component)
  # Only what it uses of the commands' libraries.
  target_link_options(${program} PRIVATE LINKER:--as-needed)
  target_link_libraries(${program} PRIVATE qel_options ${ARGN})
  set_target_properties(${program} PROPERTIES
    RUNTIME_OUTPUT_DIRECTORY ${PROJECT_BINARY_DIR}/bin
    INSTALL_RPATH "$ORIGIN/../../${CMAKE_INSTALL_LIBDIR}")
  install(TARGETS ${program} RUNTIME DESTINATION libexec/qelstd COMPONENT ${component})
endfunction()
