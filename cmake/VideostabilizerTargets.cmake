# SPDX-License-Identifier: Apache-2.0

# Compiler settings shared by everything of ours, and the one way in which subsystems are declared.

add_library(vs_options INTERFACE)
target_compile_features(vs_options INTERFACE cxx_std_17)
# Results must repeat bit for bit on every processor, so no contraction into fused multiply-adds and
# no reordering of sums anywhere in the library. (The weights of the motion filter come from the
# platform's expf; the C libraries in use agree on the values it needs.)
target_compile_options(vs_options INTERFACE
  -ffp-contract=off -fno-fast-math
  -Wall -Wextra -Wpedantic -Wconversion -Wshadow -Wdouble-promotion -Wnon-virtual-dtor
  -Wcast-align -Wundef -Wvla
  $<$<BOOL:${VIDEOSTABILIZER_WARNINGS_AS_ERRORS}>:-Werror>)
if(VIDEOSTABILIZER_SANITIZE)
  target_compile_options(vs_options INTERFACE
    -fsanitize=${VIDEOSTABILIZER_SANITIZE} -fno-omit-frame-pointer -fno-sanitize-recover=all)
  target_link_options(vs_options INTERFACE -fsanitize=${VIDEOSTABILIZER_SANITIZE})
endif()
include(VideostabilizerHardening)

# vs_add_subsystem(NAME SOURCES file... [PUBLIC_HEADERS header...] [DEPENDS subsystem...]
#                  [LINK library...])
#
# Declares the object library vs_NAME of the calling folder. PUBLIC_HEADERS are those of its
# interface below include/videostabilizer. DEPENDS names the subsystems that it may include headers
# of, public or internal, and nothing else of ours: configuring fails where a file of the folder does.
# The dependency graph of the library is the sum of these lines, and has no circles, since only
# subsystems that were declared before can be named.
function(vs_add_subsystem name)
  cmake_parse_arguments(arg "" "" "SOURCES;PUBLIC_HEADERS;DEPENDS;LINK" ${ARGN})
  add_library(vs_${name} OBJECT ${arg_SOURCES})
  set_target_properties(vs_${name} PROPERTIES
    POSITION_INDEPENDENT_CODE ON
    CXX_VISIBILITY_PRESET hidden
    VISIBILITY_INLINES_HIDDEN ON
    VS_PUBLIC_HEADERS "${arg_PUBLIC_HEADERS}")
  target_include_directories(vs_${name} PUBLIC
    ${PROJECT_SOURCE_DIR}/include ${PROJECT_BINARY_DIR}/include ${PROJECT_SOURCE_DIR}/src)
  target_link_libraries(vs_${name} PUBLIC vs_options ${arg_LINK})
  foreach(dependency IN LISTS arg_DEPENDS)
    if(NOT TARGET vs_${dependency})
      message(FATAL_ERROR "${name} depends on ${dependency}, which is declared after it")
    endif()
    target_link_libraries(vs_${name} PUBLIC vs_${dependency})
  endforeach()
  vs_check_includes(${name} ${arg_DEPENDS})
endfunction()

# Fails where a file of the calling folder includes what the subsystem NAME has not declared.
function(vs_check_includes name)
  set(allowed "")
  foreach(subsystem IN ITEMS ${name} ${ARGN})
    get_target_property(headers vs_${subsystem} VS_PUBLIC_HEADERS)
    list(TRANSFORM headers PREPEND videostabilizer/)
    list(APPEND allowed ${headers} ${subsystem}/)
  endforeach()
  get_filename_component(folder ${CMAKE_CURRENT_SOURCE_DIR} NAME)
  list(APPEND allowed ${folder}/)
  file(GLOB files CONFIGURE_DEPENDS *.cpp *.h)
  foreach(file IN LISTS files)
    file(STRINGS ${file} lines REGEX "^#include \"")
    foreach(line IN LISTS lines)
      string(REGEX REPLACE "^#include \"([^\"]+)\".*" "\\1" header "${line}")
      get_filename_component(owner ${header} DIRECTORY)
      if(NOT header IN_LIST allowed AND NOT "${owner}/" IN_LIST allowed)
        message(FATAL_ERROR
          "${file} includes ${header}, which is of no subsystem that ${name} declares to depend on")
      endif()
    endforeach()
  endforeach()
endfunction()

# Vector levels that this compiler builds variants for; platform/cpu_level.h says which of them run.
include(CheckCXXSourceCompiles)
check_cxx_source_compiles("#if !defined(__x86_64__) && !defined(__i386__)
#error
#endif
int main() { return 0; }" VIDEOSTABILIZER_IS_X86)
check_cxx_source_compiles("#include <arm_neon.h>
#if !defined(__ARM_NEON)
#error
#endif
int main() { return 0; }" VIDEOSTABILIZER_HAS_NEON)
if(VIDEOSTABILIZER_IS_X86)
  set(vs_vector_levels sse2 sse41 avx2)
elseif(VIDEOSTABILIZER_HAS_NEON)
  set(vs_vector_levels neon)
else()
  set(vs_vector_levels "")
endif()
foreach(level IN ITEMS sse2 sse41 avx2 neon)  # for the tables of variants
  string(TOUPPER ${level} LEVEL)
  if(level IN_LIST vs_vector_levels)
    target_compile_definitions(vs_options INTERFACE VS_HAS_${LEVEL}=1)
  else()
    target_compile_definitions(vs_options INTERFACE VS_HAS_${LEVEL}=0)
  endif()
endforeach()

# vs_add_vector_variants(NAME PREFIX)
#
# Adds each PREFIX_<level>.cpp that there is to the subsystem NAME, built with the instructions of that
# level. Only those files may hold such instructions, and nothing but functions of a
# namespace of their own: an inline function shared with other sources could be kept in the wide form
# and run anywhere.
function(vs_add_vector_variants name prefix)
  set(option_sse2 -msse2)
  set(option_sse41 -msse4.1)
  set(option_avx2 -mavx2)
  foreach(level IN LISTS vs_vector_levels)
    if(NOT EXISTS ${CMAKE_CURRENT_SOURCE_DIR}/${prefix}_${level}.cpp)
      continue()
    endif()
    target_sources(vs_${name} PRIVATE ${prefix}_${level}.cpp)
    if(VIDEOSTABILIZER_IS_X86)
      set_source_files_properties(${prefix}_${level}.cpp PROPERTIES
        COMPILE_OPTIONS ${option_${level}})
    endif()
  endforeach()
endfunction()
