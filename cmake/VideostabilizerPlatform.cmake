# SPDX-License-Identifier: Apache-2.0

# Everything in which a build for Android differs from one for other systems. What the sources need
# of it is in platform/, the processor's part of it in armhf-linux.cmake, which the build for 32-bit
# ARM Linux shares with Android's own toolchain file.
#
#   vs_host_tools          default of the options that build tests, programs and benchmarks
#   vs_any_device          default of VIDEOSTABILIZER_ANY_OPENCL_DEVICE
#   vs_opencl_at_run_time  default of VIDEOSTABILIZER_OPENCL_AT_RUN_TIME
#   vs_versioned_library   whether the library's file name carries its version
#   vs_log_sources         who defines __android_log_print: sources of platform/ ...
#   vs_log_library         ... or a library of the system
#   vs_link_options        of everything that is linked
#   vs_system_has_jni      whether <jni.h> is among the system's own headers
if(ANDROID)
  set(vs_host_tools OFF)
  set(vs_any_device OFF)
  set(vs_opencl_at_run_time ON)  # many devices have none
  set(vs_versioned_library OFF)  # plain names only are installed and loaded
  set(vs_log_sources "")
  find_library(ANDROID_LOG_LIBRARY log REQUIRED)
  set(vs_log_library ${ANDROID_LOG_LIBRARY})
  # Devices with pages of 16 KiB load nothing that is aligned to less.
  set(vs_link_options -Wl,-z,max-page-size=16384)
  set(vs_system_has_jni ON)
else()
  string(COMPARE EQUAL "${CMAKE_SOURCE_DIR}" "${PROJECT_SOURCE_DIR}" vs_host_tools)
  set(vs_any_device ON)
  set(vs_opencl_at_run_time OFF)
  set(vs_versioned_library ON)
  set(vs_log_sources android_log.cpp)
  set(vs_log_library "")
  set(vs_link_options "")
  set(vs_system_has_jni OFF)
endif()
