# The files that other projects build with: the CMake package `qelstd`, in the build tree and installed, and the pkg-config file.
# CPack makes Debian packages of the components `libraries`, `development`, `python` and, with the programs, `tools`.
include(CMakePackageConfigHelpers)

set(package_dir ${CMAKE_INSTALL_LIBDIR}/cmake/qelstd)
# One file serves both trees: the targets lie beside it.
file(WRITE ${PROJECT_BINARY_DIR}/qelstdConfig.cmake "include(\${CMAKE_CURRENT_LIST_DIR}/qelstdTargets.cmake)\n")
write_basic_package_version_file(${PROJECT_BINARY_DIR}/qelstdConfigVersion.cmake COMPATIBILITY SameMajorVersion)
export(EXPORT qelstd NAMESPACE qelstd:: FILE ${PROJECT_BINARY_DIR}/qelstdTargets.cmake)
install(EXPORT qelstd NAMESPACE qelstd:: FILE qelstdTargets.cmake DESTINATION ${package_dir} COMPONENT development)
install(FILES ${PROJECT_BINARY_DIR}/qelstdConfig.cmake ${PROJECT_BINARY_DIR}/qelstdConfigVersion.cmake
  DESTINATION ${package_dir} COMPONENT development)

# The prefix follows from the file's own place, so that an installed tree can be moved.
cmake_path(RELATIVE_PATH CMAKE_INSTALL_PREFIX BASE_DIRECTORY ${CMAKE_INSTALL_FULL_LIBDIR}/pkgconfig
  OUTPUT_VARIABLE prefix_from_pkgconfig)
configure_file(cmake/qelstd.pc.in qelstd.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/qelstd.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig COMPONENT development)

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_CONTACT "The qelstd developers <qelstd@localhost>")
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${PROJECT_BINARY_DIR}/lib)
set(CPACK_DEBIAN_ENABLE_COMPONENT_DEPENDS ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS_POLICY ">=")
# Each package is stripped; the build's debug information goes into a separate package.
set(CPACK_DEBIAN_DEBUGINFO_PACKAGE ON)
set(CPACK_DEBIAN_LIBRARIES_PACKAGE_NAME libqelstd${PROJECT_VERSION_MAJOR})
set(CPACK_DEBIAN_LIBRARIES_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_LIBRARIES_PACKAGE_CONTROL_EXTRA ${PROJECT_SOURCE_DIR}/cmake/deb/triggers)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_NAME libqelstd-dev)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_TOOLS_PACKAGE_NAME qelstd-tools)
set(CPACK_DEBIAN_TOOLS_PACKAGE_SECTION utils)
set(CPACK_DEBIAN_TOOLS_PACKAGE_SUGGESTS gnuplot-nox) # qel mon plot
set(CPACK_DEBIAN_PYTHON_PACKAGE_NAME python3-qelstd)
set(CPACK_DEBIAN_PYTHON_PACKAGE_SECTION python)
set(CPACK_DEBIAN_PYTHON_PACKAGE_ARCHITECTURE all)
set(CPACK_DEBIAN_PYTHON_PACKAGE_SHLIBDEPS OFF)
set(CPACK_DEBIAN_PYTHON_PACKAGE_DEPENDS "python3:any (>= 3.9)")
set(CPACK_COMPONENT_LIBRARIES_DESCRIPTION "${PROJECT_DESCRIPTION}: the libraries")
set(CPACK_COMPONENT_DEVELOPMENT_DESCRIPTION "${PROJECT_DESCRIPTION}: headers and what builds need")
set(CPACK_COMPONENT_DEVELOPMENT_DEPENDS libraries)
set(CPACK_COMPONENT_PYTHON_DESCRIPTION "${PROJECT_DESCRIPTION}: the Python package")
set(CPACK_COMPONENT_PYTHON_DEPENDS libraries)
set(CPACK_COMPONENT_TOOLS_DESCRIPTION "${PROJECT_DESCRIPTION}: command-line programs")
set(CPACK_COMPONENT_TOOLS_DEPENDS libraries)
install(FILES LICENSE DESTINATION ${CMAKE_INSTALL_DATAROOTDIR}/doc/${CPACK_DEBIAN_LIBRARIES_PACKAGE_NAME}
  RENAME copyright COMPONENT libraries)
install(FILES LICENSE DESTINATION ${CMAKE_INSTALL_DATAROOTDIR}/doc/${CPACK_DEBIAN_DEVELOPMENT_PACKAGE_NAME}
  RENAME copyright COMPONENT development)
install(FILES LICENSE DESTINATION ${CMAKE_INSTALL_DATAROOTDIR}/doc/${CPACK_DEBIAN_PYTHON_PACKAGE_NAME}
  RENAME copyright COMPONENT python)
if(QELSTD_BUILD_TOOLS)
  install(FILES LICENSE DESTINATION ${CMAKE_INSTALL_DATAROOTDIR}/doc/${CPACK_DEBIAN_TOOLS_PACKAGE_NAME}
    RENAME copyright COMPONENT tools)
endif()
get_cmake_property(CPACK_COMPONENTS_ALL COMPONENTS)
include(CPack)
