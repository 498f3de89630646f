# Cross-build for 64-bit ARM with Debian's compiler (crossbuild-essential-arm64, or g++-aarch64-linux-gnu alone):
#
#   cmake -S . -B build-arm64 -G Ninja -DCMAKE_TOOLCHAIN_FILE=cmake/aarch64-linux-gnu.cmake \
#     -DLACPD_DEPS_PREFIX=/path/to/libraries-for-arm64
#
# Without such a prefix the headers of the usual one do for the static libraries; see docs/porting.md.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR aarch64)
set(CMAKE_C_COMPILER aarch64-linux-gnu-gcc)
set(CMAKE_CXX_COMPILER aarch64-linux-gnu-g++)
set(CMAKE_LIBRARY_ARCHITECTURE aarch64-linux-gnu)
set(CPACK_DEBIAN_PACKAGE_ARCHITECTURE arm64)

find_program(QEMU_AARCH64 NAMES qemu-aarch64 qemu-aarch64-static)
if(QEMU_AARCH64) # runs what was built, tests too
  set(CMAKE_CROSSCOMPILING_EMULATOR "${QEMU_AARCH64};-L;/usr/aarch64-linux-gnu")
endif()
