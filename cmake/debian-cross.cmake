# The common part of the toolchain files: Debian's cross compiler for ZENK_TRIPLE, and libraries of that architecture
# either from the machine itself (multiarch) or from a folder of unpacked packages, ZENK_SYSROOT.

set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_C_COMPILER ${ZENK_TRIPLE}-gcc)
set(CMAKE_CXX_COMPILER ${ZENK_TRIPLE}-g++)
set(CMAKE_LIBRARY_ARCHITECTURE ${ZENK_TRIPLE})
# CMake configures its probes with this file too, and they must see the same folder.
set(CMAKE_TRY_COMPILE_PLATFORM_VARIABLES ZENK_SYSROOT)
set(ZENK_SYSROOT "" CACHE PATH "Folder with unpacked packages of the target; empty takes the machine's multiarch ones")

set(zenk_pkgconfig_dirs ${ZENK_SYSROOT}/usr/lib/${ZENK_TRIPLE}/pkgconfig:${ZENK_SYSROOT}/usr/share/pkgconfig)
set(ENV{PKG_CONFIG_LIBDIR} ${zenk_pkgconfig_dirs})
set(ENV{PKG_CONFIG_SYSROOT_DIR} "${ZENK_SYSROOT}")

if(CMAKE_SYSTEM_PROCESSOR STREQUAL "aarch64")
  set(zenk_emulator qemu-aarch64-static)
else()
  set(zenk_emulator qemu-arm-static)
endif()
if(ZENK_SYSROOT)
  set(CMAKE_SYSROOT ${ZENK_SYSROOT})
  set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
  set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
  set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
  set(CMAKE_CROSSCOMPILING_EMULATOR ${zenk_emulator};-L;${ZENK_SYSROOT})
else()
  set(CMAKE_CROSSCOMPILING_EMULATOR ${zenk_emulator})
endif()
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
