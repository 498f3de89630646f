# Cross-build for 64-bit ARM with Debian's compiler and with what `scripts/deps.sh --target aarch64` has made:
#
#   cmake -S . -B build-aarch64 -G Ninja -DCMAKE_TOOLCHAIN_FILE=cmake/aarch64-linux-gnu.cmake
#
# scripts/test-aarch64.sh does both and runs the tests. LACPD_DEPS_PREFIX names another prefix, with its own "sysroot".
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR aarch64)
set(CMAKE_C_COMPILER aarch64-linux-gnu-gcc)
set(CMAKE_CXX_COMPILER aarch64-linux-gnu-g++)
set(CMAKE_LIBRARY_ARCHITECTURE aarch64-linux-gnu)
set(CPACK_DEBIAN_PACKAGE_ARCHITECTURE arm64)

if(NOT LACPD_DEPS_PREFIX)
  execute_process(COMMAND ${CMAKE_CURRENT_LIST_DIR}/../scripts/deps.sh --target aarch64 --prefix
                  OUTPUT_VARIABLE LACPD_DEPS_PREFIX OUTPUT_STRIP_TRAILING_WHITESPACE)
endif()
list(APPEND CMAKE_TRY_COMPILE_PLATFORM_VARIABLES LACPD_DEPS_PREFIX)

set(CMAKE_SYSROOT "${LACPD_DEPS_PREFIX}/sysroot")
set(CMAKE_FIND_ROOT_PATH "${LACPD_DEPS_PREFIX}")
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
set(ENV{PKG_CONFIG_SYSROOT_DIR} "${CMAKE_SYSROOT}")
set(ENV{PKG_CONFIG_LIBDIR}
    "${CMAKE_SYSROOT}/usr/lib/aarch64-linux-gnu/pkgconfig:${CMAKE_SYSROOT}/usr/share/pkgconfig")

find_program(QEMU_AARCH64 NAMES qemu-aarch64 qemu-aarch64-static)
if(QEMU_AARCH64) # runs what was built, tests too
  set(CMAKE_CROSSCOMPILING_EMULATOR "${QEMU_AARCH64};-L;${CMAKE_SYSROOT}")
endif()
