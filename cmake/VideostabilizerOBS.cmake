# SPDX-License-Identifier: Apache-2.0

# The OBS filter is optional: it takes OBS's development package.
#
#   VIDEOSTABILIZER_HAS_OBS  it is built; PkgConfig::OBS is what it links

set(VIDEOSTABILIZER_OBS AUTO CACHE STRING
  "Build the OBS filter: ON, OFF, or AUTO, which is if there is OBS")
set_property(CACHE VIDEOSTABILIZER_OBS PROPERTY STRINGS AUTO ON OFF)
set(VIDEOSTABILIZER_HAS_OBS OFF)
if(VIDEOSTABILIZER_OBS STREQUAL "AUTO" AND (CMAKE_CROSSCOMPILING OR NOT vs_host_tools))
  return()
endif()
if(NOT VIDEOSTABILIZER_OBS OR NOT VIDEOSTABILIZER_OPENCL)
  return()
endif()
find_package(PkgConfig QUIET)
if(PkgConfig_FOUND)
  pkg_check_modules(OBS QUIET IMPORTED_TARGET libobs>=28)
endif()
if(OBS_FOUND)
  set(VIDEOSTABILIZER_HAS_OBS ON)
elseif(VIDEOSTABILIZER_OBS STREQUAL "AUTO")
  message(STATUS "No OBS found: its filter is left out")
else()
  message(FATAL_ERROR "No OBS found: VIDEOSTABILIZER_OBS needs libobs")
endif()
