# Installation: libraries, headers, a CMake package and pkg-config files.
include(CMakePackageConfigHelpers)

set(penstock_cmake_dir ${CMAKE_INSTALL_LIBDIR}/cmake/penstock)
set(penstock_pc_dir ${CMAKE_INSTALL_LIBDIR}/pkgconfig)

install(TARGETS penstock penstock_host penstock_host_support EXPORT penstock
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
  FILE_SET HEADERS DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
install(EXPORT penstock NAMESPACE penstock:: DESTINATION ${penstock_cmake_dir}
  FILE penstock-targets.cmake)
configure_package_config_file(cmake/penstock-config.cmake.in penstock-config.cmake
  INSTALL_DESTINATION ${penstock_cmake_dir} NO_SET_AND_CHECK_MACRO)
write_basic_package_version_file(penstock-config-version.cmake COMPATIBILITY SameMinorVersion)
install(FILES
  ${CMAKE_CURRENT_BINARY_DIR}/penstock-config.cmake
  ${CMAKE_CURRENT_BINARY_DIR}/penstock-config-version.cmake
  DESTINATION ${penstock_cmake_dir})

# The pkg-config files name every path relative to their own place, so that an installed tree may be
# moved.
file(RELATIVE_PATH penstock_pc_prefix
  ${CMAKE_INSTALL_PREFIX}/${penstock_pc_dir} ${CMAKE_INSTALL_PREFIX})
foreach(pc penstock penstock-core)
  configure_file(cmake/${pc}.pc.in ${pc}.pc @ONLY)
  install(FILES ${CMAKE_CURRENT_BINARY_DIR}/${pc}.pc DESTINATION ${penstock_pc_dir})
endforeach()
