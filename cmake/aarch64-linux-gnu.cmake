# Cross build for AArch64 Linux with Debian's cross compiler (g++-aarch64-linux-gnu)
# against the arm64 multiarch -dev packages (dpkg --add-architecture arm64;
# scripts/setup --arm64 installs both). Programs built here run on the build machine
# under qemu-user, so ctest runs the test suite under emulation.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR aarch64)
set(CMAKE_LIBRARY_ARCHITECTURE aarch64-linux-gnu)
set(CMAKE_C_COMPILER aarch64-linux-gnu-gcc)
set(CMAKE_CXX_COMPILER aarch64-linux-gnu-g++)

# Multiarch keeps arm64 libraries and package files under /usr/lib/aarch64-linux-gnu;
# the cross compiler's own C library lives under /usr/aarch64-linux-gnu.
set(CMAKE_FIND_ROOT_PATH /usr/aarch64-linux-gnu /)
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

# pkg-config must see the arm64 .pc files only.
set(ENV{PKG_CONFIG_LIBDIR} /usr/lib/aarch64-linux-gnu/pkgconfig:/usr/share/pkgconfig)
set(ENV{PKG_CONFIG_PATH} "")

# The arm64 dynamic loader and libraries are installed at / by multiarch; the wrapper
# runs a program under qemu-user and lets it re-execute itself.
set(CMAKE_CROSSCOMPILING_EMULATOR ${CMAKE_CURRENT_LIST_DIR}/qemu-aarch64-run)
