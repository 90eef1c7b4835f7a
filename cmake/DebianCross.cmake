# Toolchain file for Debian's cross compilers. VEYRA_ARCHITECTURE names a line of targets.list; the
# libraries of the target come from the directory "sysroot" in the build directory.

set(CMAKE_TRY_COMPILE_PLATFORM_VARIABLES VEYRA_ARCHITECTURE VEYRA_SYSROOT)
set(VEYRA_SYSROOT ${CMAKE_BINARY_DIR}/sysroot CACHE PATH "Libraries and headers of the target")

file(STRINGS ${CMAKE_CURRENT_LIST_DIR}/targets.list target REGEX "^${VEYRA_ARCHITECTURE} ")
if(NOT VEYRA_ARCHITECTURE OR NOT target)
  message(FATAL_ERROR "VEYRA_ARCHITECTURE is \"${VEYRA_ARCHITECTURE}\". Required: an architecture of "
    "${CMAKE_CURRENT_LIST_DIR}/targets.list")
endif()
string(REGEX MATCHALL "[^ ]+" target "${target}")
list(GET target 1 compilerPrefix)
list(GET target 2 CMAKE_LIBRARY_ARCHITECTURE)
list(GET target 3 CMAKE_SYSTEM_PROCESSOR)
list(GET target 4 emulator)

set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_CXX_COMPILER ${compilerPrefix}-g++)
set(CMAKE_SYSROOT ${VEYRA_SYSROOT})
set(CMAKE_CROSSCOMPILING_EMULATOR ${emulator}-static -L ${VEYRA_SYSROOT})

set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

# By default pkg-config describes the libraries of this machine. These settings make it search the
# sysroot.
set(ENV{PKG_CONFIG_LIBDIR} "${VEYRA_SYSROOT}/usr/lib/${CMAKE_LIBRARY_ARCHITECTURE}/pkgconfig:\
${VEYRA_SYSROOT}/usr/share/pkgconfig")
set(ENV{PKG_CONFIG_SYSROOT_DIR} ${VEYRA_SYSROOT})
