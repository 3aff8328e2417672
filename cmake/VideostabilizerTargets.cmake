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

# vs_add_subsystem(NAME SOURCES file... [DEPENDS subsystem...] [LINK library...])
#
# Declares the object library vs_NAME. DEPENDS names the subsystems whose headers it may include:
# the dependency graph of the library is the sum of these lines.
function(vs_add_subsystem name)
  cmake_parse_arguments(arg "" "" "SOURCES;DEPENDS;LINK" ${ARGN})
  add_library(vs_${name} OBJECT ${arg_SOURCES})
  set_target_properties(vs_${name} PROPERTIES
    POSITION_INDEPENDENT_CODE ON
    CXX_VISIBILITY_PRESET hidden
    VISIBILITY_INLINES_HIDDEN ON)
  target_include_directories(vs_${name} PUBLIC
    ${PROJECT_SOURCE_DIR}/include ${PROJECT_BINARY_DIR}/include ${PROJECT_SOURCE_DIR})
  target_link_libraries(vs_${name} PUBLIC vs_options ${arg_LINK})
  foreach(dependency IN LISTS arg_DEPENDS)
    target_link_libraries(vs_${name} PUBLIC vs_${dependency})
  endforeach()
endfunction()
