include(CMakePackageConfigHelpers)

# Runtime files (libraries, data they read, translations, plug-ins, QML
# modules under ${CMAKE_INSTALL_LIBDIR}/qt6/qml/ZavoCamera) are installed with
# COMPONENT ${ZAVO_COMPONENT_RUNTIME}; what only building a host needs with
# ${ZAVO_COMPONENT_DEV}, programs with ${ZAVO_COMPONENT_TOOLS}
# (cmake/ZavoInstallDirs.cmake).
#
# Each component is one Debian package. The runtime package is named after
# the libraries' SOVERSION, as Debian names library packages, so that a
# version that breaks the ABI can be installed beside the old one.
set(ZAVO_PACKAGE_RUNTIME libzavocamera${PROJECT_VERSION_MAJOR})
set(ZAVO_PACKAGE_DEV libzavocamera-dev)
set(ZAVO_PACKAGE_TOOLS zavocamera-tools)
set(CPACK_PACKAGE_NAME zavocamera)
set(CPACK_PACKAGE_VENDOR "ZavoCamera developers")
set(CPACK_PACKAGE_CONTACT "ZavoCamera developers <dev@zavocamera.invalid>")

install(EXPORT ZavoCameraTargets NAMESPACE ZavoCamera:: DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/ZavoCamera
  COMPONENT ${ZAVO_COMPONENT_DEV})
# Where the QML module "ZavoCamera" is installed (quick/CMakeLists.txt), for
# hosts outside /usr to add to their QML import path.
set(ZAVO_QML_IMPORT_INSTALL_DIR ${CMAKE_INSTALL_LIBDIR}/qt6/qml)
configure_package_config_file(cmake/ZavoCameraConfig.cmake.in
  ${CMAKE_CURRENT_BINARY_DIR}/ZavoCameraConfig.cmake
  INSTALL_DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/ZavoCamera
  PATH_VARS ZAVO_QML_IMPORT_INSTALL_DIR)
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
  foreach(language en de fr es)
    install(FILES ${CMAKE_BINARY_DIR}/${table}_${language}.qm
      DESTINATION ${CMAKE_INSTALL_DATADIR}/zavocamera/translations COMPONENT ${ZAVO_COMPONENT_RUNTIME})
  endforeach()
endforeach()

# Every package carries the licence as share/doc/<package>/copyright, as
# Debian wants, in its machine-readable form. The runtime package also ships
# what is not ours: OpenCV's eye cascades, compiled into zavocore (their
# notice must travel with the binaries), and the face network with its
# Apache licence when it was fetched.
set(zavo_network_shipped OFF)
if(EXISTS "${CMAKE_BINARY_DIR}/share/zavocamera/models/face_detection_front_128x128.onnx")
  set(zavo_network_shipped ON)
endif()
include(cmake/ZavoCopyright.cmake)
# Only for components with files of their own: without the apps
# (ZAVO_BUILD_APPS=OFF) there is no tools package.
get_cmake_property(zavo_components COMPONENTS)
foreach(kind RUNTIME DEV TOOLS)
  if(NOT ZAVO_COMPONENT_${kind} IN_LIST zavo_components)
    continue()
  endif()
  set(others)
  if(kind STREQUAL "RUNTIME")
    set(others cascades)
    if(zavo_network_shipped)
      list(APPEND others network)
    endif()
  endif()
  set(copyright ${CMAKE_CURRENT_BINARY_DIR}/doc/${ZAVO_PACKAGE_${kind}}/copyright)
  zavo_write_copyright(${copyright} ${others})
  install(FILES ${copyright} ${PROJECT_SOURCE_DIR}/CHANGELOG.md
    DESTINATION ${CMAKE_INSTALL_DATAROOTDIR}/doc/${ZAVO_PACKAGE_${kind}} COMPONENT ${ZAVO_COMPONENT_${kind}})
endforeach()

# A file installed without a component would land in no package at all.
get_cmake_property(zavo_components COMPONENTS)
if("Unspecified" IN_LIST zavo_components)
  message(FATAL_ERROR "An install() names no COMPONENT; use ZAVO_COMPONENT_RUNTIME, _DEV or _TOOLS "
    "(cmake/ZavoInstallDirs.cmake). Components: ${zavo_components}")
endif()

# The Debian packages: `cd build && cpack`. Installed into /usr whatever the
# tree was configured for.
set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_COMPONENTS_ALL ${zavo_components})
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_MAINTAINER "${CPACK_PACKAGE_CONTACT}")
# Each package's description starts with its own synopsis line, so no
# CPACK_PACKAGE_DESCRIPTION_SUMMARY: CPack would put that line first in all.
set(zavo_about "A camera screen for Qt 6 applications on Linux that picks the best
shot of the user's face from live video and records the session.")
set(CPACK_DEBIAN_RUNTIME_PACKAGE_NAME ${ZAVO_PACKAGE_RUNTIME})
set(CPACK_DEBIAN_RUNTIME_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_RUNTIME_DESCRIPTION "face-capture camera component for Qt 6 - libraries
${zavo_about}

This package holds the shared libraries, the face detector's network and
the translations.")
set(CPACK_DEBIAN_DEV_PACKAGE_NAME ${ZAVO_PACKAGE_DEV})
set(CPACK_DEBIAN_DEV_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_DEV_DESCRIPTION "face-capture camera component for Qt 6 - development files
${zavo_about}

This package holds the headers, the CMake package (find_package(ZavoCamera))
and the pkg-config file (zavocamera).")
set(CPACK_DEBIAN_TOOLS_PACKAGE_NAME ${ZAVO_PACKAGE_TOOLS})
set(CPACK_DEBIAN_TOOLS_PACKAGE_SECTION video)
set(CPACK_DEBIAN_TOOLS_DESCRIPTION "face-capture camera component for Qt 6 - demo and tools
${zavo_about}

This package holds zavocamera-demo, a host application of the component,
and zavo-compress, the session-video compressor.")

# The -dev and tools packages need exactly the libraries they were built
# with; CPack writes "(= version)" for a component dependency.
set(CPACK_DEBIAN_ENABLE_COMPONENT_DEPENDS ON)
set(CPACK_COMPONENT_DEV_DEPENDS ${ZAVO_COMPONENT_RUNTIME})
set(CPACK_COMPONENT_TOOLS_DEPENDS ${ZAVO_COMPONENT_RUNTIME})
# What the -dev package's files point a host at: the Qt modules the public
# headers include, for both find_package and pkg-config.
set(CPACK_DEBIAN_DEV_PACKAGE_DEPENDS "qt6-base-dev (>= 6.4)")
set(CPACK_DEBIAN_DEV_PACKAGE_SUGGESTS "pkg-config")
# The Haar cascades stand in only for a missing face network.
if(zavo_network_shipped)
  set(CPACK_DEBIAN_RUNTIME_PACKAGE_SUGGESTS "opencv-data")
else()
  set(CPACK_DEBIAN_RUNTIME_PACKAGE_DEPENDS "opencv-data")
endif()

# dpkg-shlibdeps works out the runtime dependencies (Qt, FFmpeg, OpenCV,
# PipeWire) from the binaries themselves; our own libraries are found in the
# build tree.
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${CMAKE_BINARY_DIR} ${CMAKE_BINARY_DIR}/base
  ${CMAKE_BINARY_DIR}/media ${CMAKE_BINARY_DIR}/camera ${CMAKE_BINARY_DIR}/shell
  ${CMAKE_BINARY_DIR}/zavocore ${CMAKE_BINARY_DIR}/zavoweb)
# A shlibs file, so that a host's own package gets "libzavocamera0 (>= ...)"
# from dpkg-shlibdeps; the ABI is not promised stable before 1.0, hence the
# exact version until then.
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
if(PROJECT_VERSION_MAJOR EQUAL 0)
  set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS_POLICY "=")
else()
  set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS_POLICY ">=")
endif()
# The shipped binaries are stripped and their debug sections go to a -dbgsym
# package per package with binaries, found by build ID
# (/usr/lib/debug/.build-id/). CPack strips them itself while splitting;
# CPACK_STRIP_FILES would strip them first and leave nothing to split.
set(CPACK_DEBIAN_DEBUGINFO_PACKAGE ON)
set(CPACK_STRIP_FILES OFF)
include(CPack)
