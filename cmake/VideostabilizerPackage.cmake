# SPDX-License-Identifier: Apache-2.0

# cpack -G DEB: a Debian package of each component that VideostabilizerInstall names. What only
# Debian asks of an installed tree is added by DebianFiles.cmake. scripts/package is the way to run it:
# the preset `package` configures for /usr.
if(NOT PROJECT_IS_TOP_LEVEL)  # the packages of a host are its own business
  return()
endif()

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME videostabilizer)
set(CPACK_PACKAGE_VENDOR "The videostabilizer maintainers")
set(CPACK_PACKAGE_CONTACT "The videostabilizer maintainers <maintainers@videostabilizer.invalid>")
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_INSTALL_DEFAULT_DIRECTORY_PERMISSIONS
  OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)

set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_COMPONENTS_GROUPING IGNORE)
set(CPACK_DEBIAN_ENABLE_COMPONENT_DEPENDS ON)
set(CPACK_DEBIAN_PACKAGE_SOURCE videostabilizer)
set(CPACK_DEBIAN_PACKAGE_RELEASE 0upstream1)  # older than a package of Debian's own
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_COMPRESSION_TYPE xz)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
set(CPACK_PRE_BUILD_SCRIPTS ${PROJECT_SOURCE_DIR}/cmake/DebianFiles.cmake)

set(CPACK_COMPONENTS_ALL "")

# vs_debian_package(COMPONENT NAME package SECTION section DESCRIPTION text
#                   [COMPONENTS component...] [DEPENDS text] [RECOMMENDS text] [SUGGESTS text])
#
# The first line of DESCRIPTION is the synopsis. COMPONENTS are those whose packages have to be
# there in the same version. Dependencies on shared libraries are found by DebianFiles.cmake.
macro(vs_debian_package component)
  cmake_parse_arguments(arg "" "NAME;SECTION;DESCRIPTION;DEPENDS;RECOMMENDS;SUGGESTS" "COMPONENTS"
    ${ARGN})
  string(TOUPPER ${component} COMPONENT)
  list(APPEND CPACK_COMPONENTS_ALL ${component})
  set(CPACK_COMPONENT_${COMPONENT}_DEPENDS ${arg_COMPONENTS})
  set(CPACK_COMPONENT_${COMPONENT}_DESCRIPTION "${arg_DESCRIPTION}")
  foreach(field IN ITEMS NAME SECTION DEPENDS RECOMMENDS SUGGESTS)
    set(CPACK_DEBIAN_${COMPONENT}_PACKAGE_${field} "${arg_${field}}")
  endforeach()
endmacro()

set(about "The library takes the shake out of hand-held video in real time: frames go
in, and steady frames come out in the same order, a few frames later. It finds
and follows corners, estimates the motion of the camera, smooths its path and
warps every frame, on the processors or on an OpenCL device.")

set(runtime_package libvideostabilizer${PROJECT_VERSION_MAJOR})
vs_debian_package(videostabilizer_library
  NAME ${runtime_package}
  SECTION libs
  RECOMMENDS "pocl-opencl-icd | opencl-icd"
  DESCRIPTION "real-time video stabilisation - shared library
${about}
.
This package contains the shared library.")
vs_debian_package(videostabilizer_development
  NAME libvideostabilizer-dev
  SECTION libdevel
  COMPONENTS videostabilizer_library
  DESCRIPTION "real-time video stabilisation - development files
${about}
.
This package contains the headers, a CMake package and a pkg-config file.")
if(VIDEOSTABILIZER_BUILD_APPS)
  vs_debian_package(videostabilizer_program
    NAME stabilize-video
    SECTION video
    # Loaded at run time: what draws the plots.
    DEPENDS "plplot-driver-cairo"
    RECOMMENDS "pocl-opencl-icd | opencl-icd, fonts-dejavu-core, bash-completion"
    SUGGESTS "ffmpeg"  # ffplay, for --preview
    DESCRIPTION "take the shake out of hand-held video
The program stabilize-video reads any video file, camera or pipe that FFmpeg
can read, steadies the picture, and writes it with sound, subtitles, times and
titles as they were. It works on single files, on batches and on live streams,
and shows the difference as a side-by-side video, a plot of the camera path, or
figures.
.
Pictures of 8 to 16 bits and every chroma layout stay what they are. They are
warped on the processors or, where asked, on a graphics card with OpenCL.")
endif()
if(VIDEOSTABILIZER_HAS_GSTREAMER)
  vs_debian_package(videostabilizer_gstreamer
    NAME gstreamer1.0-videostabilizer
    SECTION libs
    COMPONENTS videostabilizer_library
    DESCRIPTION "real-time video stabilisation - GStreamer element
${about}
.
This package contains the element videostabilizer, which does so in pipelines
of GStreamer, live or not.")
endif()
if(VIDEOSTABILIZER_HAS_OBS)
  vs_debian_package(videostabilizer_obs
    NAME obs-videostabilizer
    SECTION video
    COMPONENTS videostabilizer_library
    DEPENDS "obs-studio"
    DESCRIPTION "real-time video stabilisation - OBS filter
${about}
.
This package contains a filter for the cameras and other video sources of OBS
Studio.")
endif()
if(VIDEOSTABILIZER_HAS_JAR)
  vs_debian_package(videostabilizer_java
    NAME libvideostabilizer-java
    SECTION java
    COMPONENTS videostabilizer_library
    SUGGESTS default-jre-headless
    DESCRIPTION "real-time video stabilisation - Java binding
${about}
.
This package contains the Java class com.nuvik.stabilizer.Stabilizer, which
runs the library on a clip of raw frames, and lets a Java VM find the library.")
endif()

# For DebianFiles.cmake.
set(CPACK_VIDEOSTABILIZER_VERSION ${PROJECT_VERSION})
set(CPACK_VIDEOSTABILIZER_SOURCE_DIR ${PROJECT_SOURCE_DIR})
set(CPACK_VIDEOSTABILIZER_WORK_DIR ${PROJECT_BINARY_DIR}/debian)
set(CPACK_VIDEOSTABILIZER_SONAME_VERSION ${PROJECT_VERSION_MAJOR})
set(CPACK_VIDEOSTABILIZER_STRIP ${CMAKE_STRIP})
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "")  # else the synopsis of every package
include(CPack)
