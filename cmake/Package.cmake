# The installed CMake package (find_package(veltancmat) -> veltancmat::veltancmat)
# and a pkg-config file for builds that do not use CMake.
include(GNUInstallDirs)
include(CMakePackageConfigHelpers)

set(VELTANCMAT_CMAKE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/veltancmat)
set(VELTANCMAT_BOOST_MIN 1.74)

install(EXPORT veltancmatTargets NAMESPACE veltancmat:: DESTINATION ${VELTANCMAT_CMAKE_DIR})
configure_package_config_file(${PROJECT_SOURCE_DIR}/cmake/veltancmatConfig.cmake.in
  ${PROJECT_BINARY_DIR}/veltancmatConfig.cmake
  INSTALL_DESTINATION ${VELTANCMAT_CMAKE_DIR}
  PATH_VARS CMAKE_INSTALL_INCLUDEDIR CMAKE_INSTALL_LOCALEDIR)
write_basic_package_version_file(${PROJECT_BINARY_DIR}/veltancmatConfigVersion.cmake
  COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/veltancmatConfig.cmake ${PROJECT_BINARY_DIR}/veltancmatConfigVersion.cmake
  DESTINATION ${VELTANCMAT_CMAKE_DIR})

# pkg-config paths follow the prefix given at install time (--prefix), not
# the one of the configure step, so they are written relative to ${prefix}.
if(IS_ABSOLUTE "${CMAKE_INSTALL_LIBDIR}")
  set(VELTANCMAT_PC_LIBDIR "${CMAKE_INSTALL_LIBDIR}")
else()
  set(VELTANCMAT_PC_LIBDIR "\${prefix}/${CMAKE_INSTALL_LIBDIR}")
endif()
if(IS_ABSOLUTE "${CMAKE_INSTALL_INCLUDEDIR}")
  set(VELTANCMAT_PC_INCLUDEDIR "${CMAKE_INSTALL_INCLUDEDIR}")
else()
  set(VELTANCMAT_PC_INCLUDEDIR "\${prefix}/${CMAKE_INSTALL_INCLUDEDIR}")
endif()
configure_file(${PROJECT_SOURCE_DIR}/cmake/veltancmat.pc.in ${PROJECT_BINARY_DIR}/veltancmat.pc.in.cmake @ONLY)
# The prefix line is rewritten at install time to the actual prefix.
install(CODE "
  file(READ \"${PROJECT_BINARY_DIR}/veltancmat.pc.in.cmake\" pc)
  string(REGEX REPLACE \"^prefix=[^\\n]*\" \"prefix=\${CMAKE_INSTALL_PREFIX}\" pc \"\${pc}\")
  file(WRITE \"\$ENV{DESTDIR}\${CMAKE_INSTALL_PREFIX}/${CMAKE_INSTALL_LIBDIR}/pkgconfig/veltancmat.pc\" \"\${pc}\")
  message(STATUS \"Installing: \$ENV{DESTDIR}\${CMAKE_INSTALL_PREFIX}/${CMAKE_INSTALL_LIBDIR}/pkgconfig/veltancmat.pc\")
")
