# SPDX-License-Identifier: Apache-2.0

# The Java binding is optional: it takes <jni.h> for its native half, a Java compiler for its Java
# half. The library never links a Java VM: the VM loads the library.
#
#   VIDEOSTABILIZER_HAS_JNI  the native half is built; vs_jni_headers gives it <jni.h>
#   VIDEOSTABILIZER_HAS_JAR  the Java half is built
#
# For the tests, which start a VM: JAVA_JVM_LIBRARY and Java_JAVA_EXECUTABLE, where there are any.

cmake_dependent_option(VIDEOSTABILIZER_JNI "Build the Java binding if there is a JDK" ON
  VIDEOSTABILIZER_OPENCL OFF)
set(VIDEOSTABILIZER_HAS_JNI OFF)
set(VIDEOSTABILIZER_HAS_JAR OFF)
add_library(vs_jni_headers INTERFACE)
if(NOT VIDEOSTABILIZER_JNI)
  return()
endif()

find_package(Java QUIET COMPONENTS Development)
if(vs_system_has_jni)
  set(VIDEOSTABILIZER_HAS_JNI ON)
else()
  if(Java_Development_FOUND AND NOT JAVA_HOME AND NOT DEFINED ENV{JAVA_HOME})
    # Several JDKs may be installed: headers and VM are to be those of the compiler's.
    get_filename_component(javac ${Java_JAVAC_EXECUTABLE} REALPATH)
    get_filename_component(JAVA_HOME ${javac}/../.. ABSOLUTE)
  endif()
  # The variables are asked rather than JNI_FOUND, because CMake before 3.24 also wants the window
  # toolkit, which a headless JDK lacks.
  find_package(JNI QUIET COMPONENTS JVM)
  if(JAVA_INCLUDE_PATH AND JAVA_INCLUDE_PATH2)
    set(VIDEOSTABILIZER_HAS_JNI ON)
    target_include_directories(vs_jni_headers SYSTEM INTERFACE
      ${JAVA_INCLUDE_PATH} ${JAVA_INCLUDE_PATH2})
  endif()
endif()
if(NOT VIDEOSTABILIZER_HAS_JNI)
  message(STATUS "No JDK found: the Java binding is left out")
elseif(Java_Development_FOUND)
  set(VIDEOSTABILIZER_HAS_JAR ON)
else()
  message(STATUS "No Java compiler found: the jar of the Java binding is left out")
endif()
