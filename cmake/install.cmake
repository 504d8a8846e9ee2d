# The files that other projects build with: the CMake package `qelstd`, in the build tree and installed, and the pkg-config file.
# Each component is a package (debian/rules): `libraries`, `tls`, `development`, `python`, `documents`, and with the programs
# `tools`, `daemons`, `web`, `etcd` and `certificates`.
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

# The documents, and the examples as a project of their own.
install(FILES README.md DESTINATION ${CMAKE_INSTALL_DATAROOTDIR}/doc/qelstd-doc COMPONENT documents)
install(DIRECTORY docs DESTINATION ${CMAKE_INSTALL_DATAROOTDIR}/doc/qelstd-doc COMPONENT documents FILES_MATCHING PATTERN "*.md")
install(DIRECTORY examples DESTINATION ${CMAKE_INSTALL_DATAROOTDIR}/doc/qelstd-doc COMPONENT documents)
