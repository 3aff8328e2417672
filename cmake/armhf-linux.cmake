# SPDX-License-Identifier: Apache-2.0

# Toolchain: 32-bit ARM Linux with Debian's cross compiler, run in QEMU. The closest to the library's
# home on Android that runs without a device: the same instruction set and vector unit.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR armv7l)

set(CMAKE_C_COMPILER arm-linux-gnueabihf-gcc)
set(CMAKE_CXX_COMPILER arm-linux-gnueabihf-g++)
# What Android's toolchain file sets for armeabi-v7a, apart from its own calling convention.
set(CMAKE_C_FLAGS_INIT "-march=armv7-a -mfpu=neon -mthumb")
# Everything is built by one compiler; its notes on how older releases passed arguments are noise.
set(CMAKE_CXX_FLAGS_INIT "${CMAKE_C_FLAGS_INIT} -Wno-psabi")

set(sysroot /usr/arm-linux-gnueabihf)
set(CMAKE_FIND_ROOT_PATH ${sysroot})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

set(CMAKE_CROSSCOMPILING_EMULATOR qemu-arm -L ${sysroot})
