# Cross build for 32-bit ARM Linux (arm-linux-gnueabihf), run under qemu-arm.
#
# The sysroot is a folder holding Debian's armhf packages unpacked with
# dpkg-deb (scripts/armhf.sh makes it). Compiler and linker see it through
# --sysroot, every find_library/find_path/find_package/pkg-config lookup is
# confined to it, and programs still come from the host (qemu, pkg-config,
# snmpget...). Default: build-armhf/sysroot beside this file's source tree;
# another one is given with -DZELTA_ARMHF_SYSROOT=/abs/path.

set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR arm)
set(CMAKE_LIBRARY_ARCHITECTURE arm-linux-gnueabihf)

set(ZELTA_ARMHF_TRIPLET arm-linux-gnueabihf)
set(CMAKE_C_COMPILER ${ZELTA_ARMHF_TRIPLET}-gcc)
set(CMAKE_CXX_COMPILER ${ZELTA_ARMHF_TRIPLET}-g++)

if(NOT ZELTA_ARMHF_SYSROOT)
  get_filename_component(ZELTA_ARMHF_SYSROOT "${CMAKE_CURRENT_LIST_DIR}/../build-armhf/sysroot" ABSOLUTE)
endif()
set(ZELTA_ARMHF_SYSROOT "${ZELTA_ARMHF_SYSROOT}" CACHE PATH "Folder with the unpacked armhf Debian packages")
# try_compile projects read this file again without our cache.
list(APPEND CMAKE_TRY_COMPILE_PLATFORM_VARIABLES ZELTA_ARMHF_SYSROOT)
if(NOT EXISTS "${ZELTA_ARMHF_SYSROOT}/usr/include/net-snmp/net-snmp-config.h")
  message(FATAL_ERROR "No armhf sysroot at ${ZELTA_ARMHF_SYSROOT}: run scripts/armhf.sh (or make test-armhf) first")
endif()

set(CMAKE_SYSROOT "${ZELTA_ARMHF_SYSROOT}")
set(CMAKE_FIND_ROOT_PATH "${ZELTA_ARMHF_SYSROOT}")
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

# pkg_check_modules must read the armhf .pc files and prefix their -I/-L with
# the sysroot, also when cmake re-runs itself from a build without the script.
set(ENV{PKG_CONFIG_LIBDIR} "${ZELTA_ARMHF_SYSROOT}/usr/lib/${ZELTA_ARMHF_TRIPLET}/pkgconfig:${ZELTA_ARMHF_SYSROOT}/usr/share/pkgconfig")
set(ENV{PKG_CONFIG_SYSROOT_DIR} "${ZELTA_ARMHF_SYSROOT}")
unset(ENV{PKG_CONFIG_PATH})

# Test programs (also gtest_discover_tests) run under user-mode emulation;
# -L makes qemu load the armhf loader and libraries from the sysroot.
find_program(ZELTA_QEMU_ARM qemu-arm REQUIRED)
set(CMAKE_CROSSCOMPILING_EMULATOR "${ZELTA_QEMU_ARM};-L;${ZELTA_ARMHF_SYSROOT}")
