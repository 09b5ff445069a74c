include(CMakePackageConfigHelpers)

install(EXPORT ZavoCameraTargets NAMESPACE ZavoCamera:: DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/ZavoCamera
  COMPONENT ${ZAVO_COMPONENT_DEV})
configure_package_config_file(cmake/ZavoCameraConfig.cmake.in
  ${CMAKE_CURRENT_BINARY_DIR}/ZavoCameraConfig.cmake
  INSTALL_DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/ZavoCamera)
write_basic_package_version_file(${CMAKE_CURRENT_BINARY_DIR}/ZavoCameraConfigVersion.cmake
  COMPATIBILITY SameMajorVersion)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/ZavoCameraConfig.cmake ${CMAKE_CURRENT_BINARY_DIR}/ZavoCameraConfigVersion.cmake
  DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/ZavoCamera COMPONENT ${ZAVO_COMPONENT_DEV})

# pkg-config takes no path relative to the file, and the prefix is only known
# when installing: the packages install into /usr from a tree configured for
# /usr/local, a release check into a staging folder. So the file is written
# then, for the prefix really installed into.
install(CODE "
  set(ZAVO_PC_TEMPLATE \"${PROJECT_SOURCE_DIR}/cmake/zavocamera.pc.in\")
  set(ZAVO_PC_OUTPUT \"${CMAKE_CURRENT_BINARY_DIR}/pkgconfig/zavocamera.pc\")
  set(ZAVO_PC_LIBDIR \"${CMAKE_INSTALL_LIBDIR}\")
  set(ZAVO_PC_INCLUDEDIR \"${CMAKE_INSTALL_INCLUDEDIR}\")
  set(ZAVO_PC_VERSION \"${PROJECT_VERSION}\")
  include(\"${PROJECT_SOURCE_DIR}/cmake/ZavoPkgConfig.cmake\")"
  COMPONENT ${ZAVO_COMPONENT_DEV})
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/pkgconfig/zavocamera.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig
  COMPONENT ${ZAVO_COMPONENT_DEV})


# The string tables are compiled into the libraries; the .qm files are also
# installed so that packagers and translators can see what ships.
foreach(table resources/zavocamera zavocore/zavocore zavoweb/zavoweb)
  foreach(language en de)
    install(FILES ${CMAKE_BINARY_DIR}/${table}_${language}.qm
      DESTINATION ${CMAKE_INSTALL_DATADIR}/zavocamera/translations COMPONENT ${ZAVO_COMPONENT_RUNTIME})
  endforeach()
endforeach()

# A file installed without a component would land in no package at all.
get_cmake_property(zavo_components COMPONENTS)
if("Unspecified" IN_LIST zavo_components)
  message(FATAL_ERROR "An install() names no COMPONENT; use ZAVO_COMPONENT_RUNTIME, _DEV or _TOOLS "
    "(cmake/ZavoInstallDirs.cmake). Components: ${zavo_components}")
endif()

# One Debian package with the libraries, headers, CMake package, pkg-config
# file, translations and the demo: `cpack --config build/CPackConfig.cmake`.
set(CPACK_PACKAGE_NAME zavocamera)
set(CPACK_PACKAGE_VENDOR "ZavoCamera developers")
set(CPACK_PACKAGE_CONTACT "ZavoCamera developers <dev@zavocamera.invalid>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "Face-capture camera component for Qt 6 applications")
set(CPACK_PACKAGE_DESCRIPTION "A camera screen for Qt 6 hosts that picks the best shot of the user's face from live video and records the session.")
set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION libs)
# dpkg-shlibdeps works out the runtime dependencies (Qt, FFmpeg, OpenCV)
# from the binaries themselves; our own libraries are found in the package.
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${CMAKE_BINARY_DIR} ${CMAKE_BINARY_DIR}/base
  ${CMAKE_BINARY_DIR}/media ${CMAKE_BINARY_DIR}/camera ${CMAKE_BINARY_DIR}/shell
  ${CMAKE_BINARY_DIR}/zavocore ${CMAKE_BINARY_DIR}/zavoweb)
set(CPACK_DEBIAN_PACKAGE_DEPENDS "opencv-data")
include(CPack)
