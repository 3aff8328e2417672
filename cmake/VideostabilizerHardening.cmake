# SPDX-License-Identifier: Apache-2.0

# Hardening of optimised builds: what makes a memory error end the process instead of being used.
# Builds for sanitizers see more on their own, and go without. tests/hardening looks whether the
# results have it.
if(VIDEOSTABILIZER_SANITIZE)
  return()
endif()

include(CheckCXXCompilerFlag)
include(CheckCXXSourceCompiles)
include(CheckPIESupported)
check_pie_supported()
set(CMAKE_POSITION_INDEPENDENT_CODE ON)  # programs as well

set(optimised "$<CONFIG:Release,RelWithDebInfo,MinSizeRel>")

# The C library warns where it does not know the level, and takes it for 2.
set(CMAKE_REQUIRED_FLAGS "-O2 -Werror -U_FORTIFY_SOURCE -D_FORTIFY_SOURCE=3")
check_cxx_source_compiles("#include <cstring>
int main() { return 0; }" VIDEOSTABILIZER_HAS_FORTIFY_3)
unset(CMAKE_REQUIRED_FLAGS)
if(VIDEOSTABILIZER_HAS_FORTIFY_3)
  set(fortify 3)
else()
  set(fortify 2)
endif()
target_compile_options(vs_options INTERFACE
  "$<${optimised}:-U_FORTIFY_SOURCE;-D_FORTIFY_SOURCE=${fortify}>")

foreach(flag IN ITEMS -fstack-protector-strong -fstack-clash-protection)
  string(MAKE_C_IDENTIFIER "VIDEOSTABILIZER_HAS${flag}" has_flag)
  check_cxx_compiler_flag("-Werror ${flag}" ${has_flag})
  if(${has_flag})
    target_compile_options(vs_options INTERFACE "$<${optimised}:${flag}>")
  endif()
endforeach()

# Nothing that the loader has filled in stays writable, and no stack is executable.
target_link_options(vs_options INTERFACE
  -Wl,-z,relro -Wl,-z,now -Wl,-z,noexecstack ${vs_link_options})
