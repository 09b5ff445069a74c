# Where installed files go, and which package each belongs to. Included
# before any target is made, since every install() names both.

# Debian keeps libraries in the multiarch folder (/usr/lib/x86_64-linux-gnu).
# GNUInstallDirs picks it only when the prefix is /usr at configure time, but
# the packages are made by CPack from a tree configured for /usr/local. The
# folder cannot differ between the two either: zavocore finds its face
# network by a path from its own folder fixed at build time. So on a
# multiarch system it is lib/<triplet> under every prefix. A tree configured
# before this would keep the "lib" GNUInstallDirs cached, hence the one-time
# override there; a libdir given on a new tree's command line is left alone.
if(CMAKE_LIBRARY_ARCHITECTURE AND EXISTS /etc/debian_version AND NOT ZAVO_MULTIARCH_LIBDIR_SET)
  if(NOT DEFINED CMAKE_INSTALL_LIBDIR
     OR (CMAKE_INSTALL_LIBDIR STREQUAL "lib" AND DEFINED CACHE{_GNUInstallDirs_LAST_CMAKE_INSTALL_PREFIX}))
    set(CMAKE_INSTALL_LIBDIR "lib/${CMAKE_LIBRARY_ARCHITECTURE}" CACHE PATH
      "Object code libraries (LIBDIR)" FORCE)
  endif()
  set(ZAVO_MULTIARCH_LIBDIR_SET ON CACHE INTERNAL "")
endif()
include(GNUInstallDirs)

# Installed libraries find each other, and the tools find the libraries,
# wherever the prefix is (a staging folder, /usr/local, /opt, /usr).
file(RELATIVE_PATH zavo_bin_to_lib "${CMAKE_INSTALL_FULL_BINDIR}" "${CMAKE_INSTALL_FULL_LIBDIR}")
set(CMAKE_INSTALL_RPATH "$ORIGIN;$ORIGIN/${zavo_bin_to_lib}")

# The install components, one Debian package each (cmake/ZavoInstall.cmake
# names the packages). Every install() names one of these; configure stops
# on a file installed without one.
#   runtime: what a host's users need at run time: shared libraries, data
#            the libraries read, translations, plug-ins and QML modules.
#   dev:     what building a host needs: headers, CMake package, pkg-config
#            file, the unversioned .so links.
#   tools:   the demo and the command-line programs.
set(ZAVO_COMPONENT_RUNTIME runtime)
set(ZAVO_COMPONENT_DEV dev)
set(ZAVO_COMPONENT_TOOLS tools)
