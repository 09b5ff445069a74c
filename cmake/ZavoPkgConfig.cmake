# Run at install time (cmake/ZavoInstall.cmake): writes zavocamera.pc for the
# prefix being installed into. CMAKE_INSTALL_PREFIX here is the install's,
# not the configure's: /usr under CPack, the folder given to --prefix.
get_filename_component(prefix "${CMAKE_INSTALL_PREFIX}" ABSOLUTE)
foreach(dir LIBDIR INCLUDEDIR)
  if(IS_ABSOLUTE "${ZAVO_PC_${dir}}")
    set(pc_${dir} "${ZAVO_PC_${dir}}")
  else()
    set(pc_${dir} "\${prefix}/${ZAVO_PC_${dir}}")
  endif()
endforeach()
set(libdir "${pc_LIBDIR}")
set(includedir "${pc_INCLUDEDIR}")
set(version "${ZAVO_PC_VERSION}")
configure_file("${ZAVO_PC_TEMPLATE}" "${ZAVO_PC_OUTPUT}" @ONLY)
