# Cross-compiling for the appliance: 32-bit big-endian PowerPC Linux.
#
#   cmake -S . -B build-board -DCMAKE_TOOLCHAIN_FILE=cmake/powerpc-linux-gnu.cmake
#
# By default Debian's cross compiler (g++-powerpc-linux-gnu) with the C
# library of its own cross packages. A board vendor's toolchain is chosen with
#   -DUPDATER_CROSS_PREFIX=/opt/board/bin/powerpc-linux-    (prefix of gcc, g++, ar, strip)
#   -DUPDATER_CROSS_SYSROOT=/opt/board/sysroot              (its C library and headers)
# The libraries built for the board (ICU, with its pkg-config file) are looked
# for under UPDATER_DEPS_ROOT, by default <build>/sysroot: scripts/build-appliance
# puts them there.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR powerpc)

if(NOT DEFINED UPDATER_CROSS_PREFIX)
  set(UPDATER_CROSS_PREFIX powerpc-linux-gnu-)
endif()
if(NOT DEFINED UPDATER_CROSS_SYSROOT)
  set(UPDATER_CROSS_SYSROOT "")
endif()
if(NOT DEFINED UPDATER_DEPS_ROOT)
  set(UPDATER_DEPS_ROOT ${CMAKE_BINARY_DIR}/sysroot)
endif()
# The compiler checks run in projects of their own: they need the same choice.
list(APPEND CMAKE_TRY_COMPILE_PLATFORM_VARIABLES UPDATER_CROSS_PREFIX UPDATER_CROSS_SYSROOT
     UPDATER_DEPS_ROOT)

set(CMAKE_C_COMPILER ${UPDATER_CROSS_PREFIX}gcc)
set(CMAKE_CXX_COMPILER ${UPDATER_CROSS_PREFIX}g++)
if(UPDATER_CROSS_SYSROOT)
  set(CMAKE_SYSROOT ${UPDATER_CROSS_SYSROOT})
  set(UPDATER_TARGET_ROOT ${UPDATER_CROSS_SYSROOT})
else()
  set(UPDATER_TARGET_ROOT /usr/powerpc-linux-gnu)
endif()

# Headers, libraries and CMake packages of the board only; programs of the
# build machine.
set(CMAKE_FIND_ROOT_PATH ${UPDATER_DEPS_ROOT})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
# pkg-config reads the board's .pc files only; their paths are absolute.
set(ENV{PKG_CONFIG_LIBDIR} ${UPDATER_DEPS_ROOT}/lib/pkgconfig)
set(ENV{PKG_CONFIG_PATH} "")

# Test discovery and CTest run the PowerPC programs under user-mode qemu.
set(CMAKE_CROSSCOMPILING_EMULATOR qemu-ppc-static -L ${UPDATER_TARGET_ROOT})
