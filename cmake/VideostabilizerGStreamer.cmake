# SPDX-License-Identifier: Apache-2.0

# The GStreamer element is optional: it takes GStreamer's development packages.
#
#   VIDEOSTABILIZER_HAS_GSTREAMER  it is built; PkgConfig::GStreamer is what it links

set(VIDEOSTABILIZER_GSTREAMER AUTO CACHE STRING
  "Build the GStreamer element: ON, OFF, or AUTO, which is if there is GStreamer")
set_property(CACHE VIDEOSTABILIZER_GSTREAMER PROPERTY STRINGS AUTO ON OFF)
set(VIDEOSTABILIZER_HAS_GSTREAMER OFF)
if(VIDEOSTABILIZER_GSTREAMER STREQUAL "AUTO" AND (CMAKE_CROSSCOMPILING OR NOT vs_host_tools))
  return()
endif()
if(NOT VIDEOSTABILIZER_GSTREAMER OR NOT VIDEOSTABILIZER_OPENCL)
  return()
endif()
find_package(PkgConfig QUIET)
if(PkgConfig_FOUND)
  pkg_check_modules(GStreamer QUIET IMPORTED_TARGET gstreamer-1.0>=1.18 gstreamer-video-1.0>=1.18)
endif()
if(GStreamer_FOUND)
  set(VIDEOSTABILIZER_HAS_GSTREAMER ON)
elseif(VIDEOSTABILIZER_GSTREAMER STREQUAL "AUTO")
  message(STATUS "No GStreamer found: its element is left out")
else()
  message(FATAL_ERROR "No GStreamer found: VIDEOSTABILIZER_GSTREAMER needs gstreamer-video-1.0")
endif()
