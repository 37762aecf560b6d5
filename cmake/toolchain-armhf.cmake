# Cross-builds nyxd for 32-bit ARM Linux (armhf) with Debian's
# arm-linux-gnueabihf GCC against the sysroot that scripts/armhf-sysroot
# makes, and runs the test binaries through qemu-arm.
#
#   cmake -S . -B build-armhf -DCMAKE_TOOLCHAIN_FILE=cmake/toolchain-armhf.cmake
#
# The sysroot is NYX_ARMHF_SYSROOT (cache variable, else environment
# variable), by default .cache/armhf-sysroot in the source tree.

set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR arm)
set(CMAKE_LIBRARY_ARCHITECTURE arm-linux-gnueabihf)

set(CMAKE_C_COMPILER arm-linux-gnueabihf-gcc)
set(CMAKE_CXX_COMPILER arm-linux-gnueabihf-g++)

if(NOT NYX_ARMHF_SYSROOT)
  if(DEFINED ENV{NYX_ARMHF_SYSROOT} AND NOT "$ENV{NYX_ARMHF_SYSROOT}" STREQUAL "")
    set(NYX_ARMHF_SYSROOT "$ENV{NYX_ARMHF_SYSROOT}")
  else()
    set(NYX_ARMHF_SYSROOT "${CMAKE_CURRENT_LIST_DIR}/../.cache/armhf-sysroot")
  endif()
endif()
get_filename_component(NYX_ARMHF_SYSROOT "${NYX_ARMHF_SYSROOT}" ABSOLUTE)
if(NOT EXISTS "${NYX_ARMHF_SYSROOT}/usr/include/stdio.h")
  message(FATAL_ERROR
    "No armhf sysroot at ${NYX_ARMHF_SYSROOT}: run scripts/armhf-sysroot first")
endif()
# try_compile projects load this file again in a fresh directory; hand the
# sysroot on to them.
set(NYX_ARMHF_SYSROOT "${NYX_ARMHF_SYSROOT}" CACHE PATH "armhf sysroot" FORCE)
list(APPEND CMAKE_TRY_COMPILE_PLATFORM_VARIABLES NYX_ARMHF_SYSROOT)

set(CMAKE_SYSROOT "${NYX_ARMHF_SYSROOT}")
set(CMAKE_FIND_ROOT_PATH "${NYX_ARMHF_SYSROOT}")
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

# The sysroot keeps Debian's unmerged layout, so /lib and /usr/lib are both
# real folders. The linker is told about both, so that it finds the libraries
# that a linked library needs in turn (libglib's libpcre2, libcurl's
# libnghttp2 and so on).
set(_nyx_armhf_link_dirs
    "${NYX_ARMHF_SYSROOT}/lib/arm-linux-gnueabihf"
    "${NYX_ARMHF_SYSROOT}/usr/lib/arm-linux-gnueabihf")
set(_nyx_armhf_link_flags "")
foreach(_dir IN LISTS _nyx_armhf_link_dirs)
  string(APPEND _nyx_armhf_link_flags " -Wl,-rpath-link,${_dir}")
endforeach()
set(CMAKE_EXE_LINKER_FLAGS_INIT "${_nyx_armhf_link_flags}")
set(CMAKE_SHARED_LINKER_FLAGS_INIT "${_nyx_armhf_link_flags}")
set(CMAKE_MODULE_LINKER_FLAGS_INIT "${_nyx_armhf_link_flags}")

# GCC notes that the armhf parameter-passing ABI changed in GCC 7 wherever a
# std::pair or similar is passed by value; those notes are no fault here.
set(CMAKE_C_FLAGS_INIT "-Wno-psabi")
set(CMAKE_CXX_FLAGS_INIT "-Wno-psabi")

# pkg-config reads the sysroot's .pc files only, and prefixes the paths in
# them with the sysroot.
set(ENV{PKG_CONFIG_SYSROOT_DIR} "${NYX_ARMHF_SYSROOT}")
set(ENV{PKG_CONFIG_LIBDIR}
    "${NYX_ARMHF_SYSROOT}/usr/lib/arm-linux-gnueabihf/pkgconfig:${NYX_ARMHF_SYSROOT}/usr/share/pkgconfig")
set(ENV{PKG_CONFIG_PATH} "")

# binfmt_misc is not mounted on the build machines, so ARM binaries cannot be
# started directly: CTest runs them through qemu-arm, which loads their
# libraries from the sysroot. Tests that start nyxd themselves get the same
# command in NYX_TEST_EMULATOR.
find_program(NYX_QEMU_ARM qemu-arm)
if(NOT NYX_QEMU_ARM)
  message(FATAL_ERROR "qemu-arm not found: install Debian's qemu-user")
endif()
set(CMAKE_CROSSCOMPILING_EMULATOR "${NYX_QEMU_ARM};-L;${NYX_ARMHF_SYSROOT}")
