# Toolchain file for Debian's cross compilers: VEYRA_TRIPLET names one, and the libraries of the
# target come from the folder "sysroot" in the build folder.

set(CMAKE_TRY_COMPILE_PLATFORM_VARIABLES VEYRA_TRIPLET VEYRA_SYSROOT)
set(VEYRA_SYSROOT ${CMAKE_BINARY_DIR}/sysroot CACHE PATH "Libraries and headers of the target")

set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR arm)
set(CMAKE_CXX_COMPILER ${VEYRA_TRIPLET}-g++)
set(CMAKE_LIBRARY_ARCHITECTURE ${VEYRA_TRIPLET})
set(CMAKE_SYSROOT ${VEYRA_SYSROOT})
set(CMAKE_CROSSCOMPILING_EMULATOR qemu-arm-static -L ${VEYRA_SYSROOT})

set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

# pkg-config describes this machine's libraries unless it is told to look into the sysroot.
set(ENV{PKG_CONFIG_LIBDIR}
  ${VEYRA_SYSROOT}/usr/lib/${VEYRA_TRIPLET}/pkgconfig:${VEYRA_SYSROOT}/usr/share/pkgconfig)
set(ENV{PKG_CONFIG_SYSROOT_DIR} ${VEYRA_SYSROOT})
