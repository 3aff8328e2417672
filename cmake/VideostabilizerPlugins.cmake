# SPDX-License-Identifier: Apache-2.0

# Plug-ins are optional: each takes the development packages of its host. An option for each, ON, OFF or
# AUTO, which is if there is the host:
#
#   VIDEOSTABILIZER_GSTREAMER  the GStreamer element
#   VIDEOSTABILIZER_OBS        the OBS filter
#
#   VIDEOSTABILIZER_HAS_...    it is built; PkgConfig::HOST is what it links

find_package(PkgConfig QUIET)

# vs_find_plugin_host(HOST WHAT MODULE...): looks for the pkg-config modules of a host, whose plug-in is
# called WHAT in messages.
function(vs_find_plugin_host host what)
  string(TOUPPER ${host} upper)
  set(option VIDEOSTABILIZER_${upper})
  set(${option} AUTO CACHE STRING
    "Build the ${what}: ON, OFF, or AUTO, which is if there is ${host}")
  set_property(CACHE ${option} PROPERTY STRINGS AUTO ON OFF)
  set(VIDEOSTABILIZER_HAS_${upper} OFF PARENT_SCOPE)
  if(${option} STREQUAL "AUTO" AND (CMAKE_CROSSCOMPILING OR NOT vs_host_tools))
    return()
  endif()
  if(NOT ${option} OR NOT VIDEOSTABILIZER_OPENCL)
    return()
  endif()
  if(PkgConfig_FOUND)
    pkg_check_modules(${host} QUIET IMPORTED_TARGET ${ARGN})
  endif()
  if(${host}_FOUND)
    set(VIDEOSTABILIZER_HAS_${upper} ON PARENT_SCOPE)
  elseif(${option} STREQUAL "AUTO")
    message(STATUS "No ${host} found: the ${what} is left out")
  else()
    message(FATAL_ERROR "No ${host} found: ${option} needs ${ARGN}")
  endif()
endfunction()

vs_find_plugin_host(GStreamer "GStreamer element" gstreamer-1.0>=1.18 gstreamer-video-1.0>=1.18)
vs_find_plugin_host(OBS "OBS filter" libobs>=28)
