# `cmake --install` puts the libraries, the public headers and a package config in place,
# so that a host application writes find_package(corvane) and links corvane::corvane.
include(CMakePackageConfigHelpers)
# corvane_options (warnings, -Werror, sanitizers) is build-only and stays out of the package.
install(TARGETS ${CORVANE_LAYER_TARGETS} corvane EXPORT corvaneTargets
  ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR}
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR})
install(DIRECTORY include/corvane DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
install(EXPORT corvaneTargets NAMESPACE corvane:: DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/corvane)
configure_package_config_file(cmake/corvaneConfig.cmake.in
  ${CMAKE_CURRENT_BINARY_DIR}/corvaneConfig.cmake
  INSTALL_DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/corvane)
write_basic_package_version_file(${CMAKE_CURRENT_BINARY_DIR}/corvaneConfigVersion.cmake
  COMPATIBILITY SameMinorVersion)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/corvaneConfig.cmake ${CMAKE_CURRENT_BINARY_DIR}/corvaneConfigVersion.cmake
  DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/corvane)
if(TARGET corvane-cli)
  install(TARGETS corvane-cli RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
endif()
