# SPDX-License-Identifier: Apache-2.0

# cmake --install: the library, its headers, a CMake package, a pkg-config file, the program and the
# jar. Installed are all of the components, or one by --component; VideostabilizerPackage makes
# Debian packages of them:
#
#   videostabilizer_library      what programs need to run
#   videostabilizer_development  what compilers need, in addition
#   videostabilizer_program      stabilize-video
#   videostabilizer_java         the jar
#   videostabilizer_gstreamer    the GStreamer element
#   videostabilizer_obs          the OBS filter
#   videostabilizer_licence      the licence of all of them
include(GNUInstallDirs)
include(CMakePackageConfigHelpers)

install(TARGETS videostabilizer EXPORT videostabilizer-targets
  LIBRARY COMPONENT videostabilizer_library NAMELINK_COMPONENT videostabilizer_development)
install(FILES LICENSE DESTINATION ${CMAKE_INSTALL_DOCDIR} COMPONENT videostabilizer_licence)

set(CMAKE_INSTALL_DEFAULT_COMPONENT_NAME videostabilizer_development)
install(DIRECTORY ${PROJECT_SOURCE_DIR}/include/videostabilizer
  DESTINATION ${CMAKE_INSTALL_INCLUDEDIR} FILES_MATCHING PATTERN "*.h")
install(FILES ${PROJECT_BINARY_DIR}/include/videostabilizer/version.h
  DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/videostabilizer)

set(package_dir ${CMAKE_INSTALL_LIBDIR}/cmake/videostabilizer)
install(EXPORT videostabilizer-targets NAMESPACE videostabilizer:: DESTINATION ${package_dir})
configure_package_config_file(cmake/videostabilizer-config.cmake.in
  ${PROJECT_BINARY_DIR}/videostabilizer-config.cmake INSTALL_DESTINATION ${package_dir})
write_basic_package_version_file(${PROJECT_BINARY_DIR}/videostabilizer-config-version.cmake
  COMPATIBILITY SameMajorVersion)
install(FILES
  ${PROJECT_BINARY_DIR}/videostabilizer-config.cmake
  ${PROJECT_BINARY_DIR}/videostabilizer-config-version.cmake
  DESTINATION ${package_dir})

file(RELATIVE_PATH pc_to_prefix /${CMAKE_INSTALL_LIBDIR}/pkgconfig /)
configure_file(cmake/videostabilizer.pc.in videostabilizer.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/videostabilizer.pc
  DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
unset(CMAKE_INSTALL_DEFAULT_COMPONENT_NAME)
