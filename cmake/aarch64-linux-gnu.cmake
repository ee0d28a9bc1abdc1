# SPDX-License-Identifier: Apache-2.0
# Cross build for 64-bit ARM Linux with Debian's cross compiler against a sysroot of
# Debian's arm64 packages (see scripts/test-arm64.sh); programs built here run under
# qemu-aarch64 with that sysroot as their root for the dynamic loader.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR aarch64)
set(CMAKE_C_COMPILER aarch64-linux-gnu-gcc)
set(CMAKE_CXX_COMPILER aarch64-linux-gnu-g++)
set(CMAKE_LIBRARY_ARCHITECTURE aarch64-linux-gnu)
if(KELVO_ARM64_SYSROOT)
  set(CMAKE_SYSROOT ${KELVO_ARM64_SYSROOT})
  # pkg-config describes the sysroot's arm64 libraries, not the host's.
  set(ENV{PKG_CONFIG_SYSROOT_DIR} ${KELVO_ARM64_SYSROOT})
  set(ENV{PKG_CONFIG_LIBDIR}
      ${KELVO_ARM64_SYSROOT}/usr/lib/aarch64-linux-gnu/pkgconfig:${KELVO_ARM64_SYSROOT}/usr/share/pkgconfig)
  set(CMAKE_CROSSCOMPILING_EMULATOR qemu-aarch64;-L;${KELVO_ARM64_SYSROOT})
else()
  set(CMAKE_CROSSCOMPILING_EMULATOR qemu-aarch64)
endif()
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
