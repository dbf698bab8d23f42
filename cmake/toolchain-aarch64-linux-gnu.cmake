# Cross-compiling for the camera (64-bit Arm, glibc) with Debian's cross
# compilers, running the results under user-mode emulation:
#
#   apt-get install g++-aarch64-linux-gnu libc6-dev-arm64-cross qemu-user googletest
#   cmake -S . -B build-aarch64 -G Ninja --toolchain cmake/toolchain-aarch64-linux-gnu.cmake
#   cmake --build build-aarch64 && ctest --test-dir build-aarch64
#
# GoogleTest has no arm64 libraries without multiarch, so the test suite
# compiles it from the sources Debian ships in /usr/src/googletest.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR aarch64)

set(QUILLANE_CROSS_TRIPLE aarch64-linux-gnu)
set(CMAKE_C_COMPILER ${QUILLANE_CROSS_TRIPLE}-gcc)
set(CMAKE_CXX_COMPILER ${QUILLANE_CROSS_TRIPLE}-g++)

# The target's libraries and headers live under the cross prefix; programs
# (sh, pkg-config, ffmpeg) are the host's.
set(QUILLANE_CROSS_ROOT /usr/${QUILLANE_CROSS_TRIPLE})
# Appended, so that a build may name further roots (-DCMAKE_FIND_ROOT_PATH=...).
list(APPEND CMAKE_FIND_ROOT_PATH ${QUILLANE_CROSS_ROOT})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

# pkg-config would otherwise hand out the host's x86-64 GStreamer and GLib:
# look only where arm64 .pc files could be (there are none without multiarch).
set(ENV{PKG_CONFIG_LIBDIR} "${QUILLANE_CROSS_ROOT}/lib/pkgconfig:/usr/lib/${QUILLANE_CROSS_TRIPLE}/pkgconfig")
set(ENV{PKG_CONFIG_PATH} "")

# Programs that build against this toolchain (the install test's client)
# are pointed at this file.
set(QUILLANE_TOOLCHAIN_FILE ${CMAKE_CURRENT_LIST_FILE})

# ctest, test discovery and the tests' own helpers start target programs
# through this emulator; -L points the emulated loader at the target's libc.
find_program(QUILLANE_QEMU_AARCH64 NAMES qemu-aarch64 qemu-aarch64-static)
if(QUILLANE_QEMU_AARCH64)
  set(CMAKE_CROSSCOMPILING_EMULATOR ${QUILLANE_QEMU_AARCH64} -L ${QUILLANE_CROSS_ROOT})
endif()
