include(CMakePackageConfigHelpers)

install(TARGETS zavo_build_flags EXPORT ZavoCameraTargets)
install(EXPORT ZavoCameraTargets NAMESPACE ZavoCamera:: DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/ZavoCamera)
configure_package_config_file(cmake/ZavoCameraConfig.cmake.in
  ${CMAKE_CURRENT_BINARY_DIR}/ZavoCameraConfig.cmake
  INSTALL_DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/ZavoCamera)
write_basic_package_version_file(${CMAKE_CURRENT_BINARY_DIR}/ZavoCameraConfigVersion.cmake
  COMPATIBILITY SameMajorVersion)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/ZavoCameraConfig.cmake ${CMAKE_CURRENT_BINARY_DIR}/ZavoCameraConfigVersion.cmake
  DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/ZavoCamera)

configure_file(cmake/zavocamera.pc.in ${CMAKE_CURRENT_BINARY_DIR}/zavocamera.pc @ONLY)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/zavocamera.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
