# SPDX-License-Identifier: Apache-2.0

# The Python binding is optional: it takes pybind11 and Python's headers.
#
#   VIDEOSTABILIZER_HAS_PYTHON  it is built; Python_EXECUTABLE runs it

cmake_dependent_option(VIDEOSTABILIZER_PYTHON "Build the Python binding if there is pybind11"
  ${vs_host_tools} "VIDEOSTABILIZER_OPENCL;NOT CMAKE_CROSSCOMPILING" OFF)
set(VIDEOSTABILIZER_HAS_PYTHON OFF)
if(NOT VIDEOSTABILIZER_PYTHON)
  return()
endif()
if(VIDEOSTABILIZER_SANITIZE)
  message(STATUS "Python cannot load a sanitized library: its binding is left out")
  return()
endif()
# That of the system, with what its packages bring, unless another is named.
if(NOT Python_EXECUTABLE AND EXISTS /usr/bin/python3)
  set(Python_EXECUTABLE /usr/bin/python3)
endif()
set(PYBIND11_FINDPYTHON ON)
find_package(Python QUIET COMPONENTS Interpreter Development)
find_package(pybind11 QUIET CONFIG)
if(pybind11_FOUND AND Python_FOUND)
  set(VIDEOSTABILIZER_HAS_PYTHON ON)
else()
  message(STATUS "No pybind11 found: the Python binding is left out")
endif()
