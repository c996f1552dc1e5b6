# Debian package of the library: `cpack -G DEB` in the build tree (or
# `make package` from the source tree) makes lib<name><soversion>_<version>_<arch>.deb
# holding what `cmake --install` installs: the shared library with its soname
# links, the headers, the CMake package and zelta.pc, and the MIB generator's
# libzelta-mibgen with zelta-mibgen.pc, all under /usr.
#
# Included after lib/: it reads the Net-SNMP library and header found there.

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME ${PROJECT_NAME})
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "${PROJECT_DESCRIPTION}")
set(CPACK_PACKAGE_DESCRIPTION [[
C++17 shared library for the control programs of embedded Linux devices:
typed configuration parameters kept in text files and served over SNMP by an
agent thread inside the program. Includes the headers, the CMake package
(find_package(zelta)), zelta.pc, and the MIB generator library libzelta-mibgen
with zelta-mibgen.pc.]])
set(CPACK_PACKAGE_CONTACT "libzelta maintainers <maintainers@users.noreply.c-seed-5df880fa.example>")
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
# zelta.pc takes its prefix from the install step: with DESTDIR staging that
# step sees /usr, not the staging folder.
set(CPACK_SET_DESTDIR ON)
set(CPACK_INSTALL_PREFIX ${CPACK_PACKAGING_INSTALL_PREFIX})
set(CPACK_STRIP_FILES ON)
# Bracket expressions rather than backslash escapes: CPack writes these
# patterns into a generated CMake file, where "\\." would be an invalid escape.
set(CPACK_SOURCE_IGNORE_FILES "/[.]git/" "/build[^/]*/" "/demo-data/")

# Debian names a library package after its soname (libzelta.so.1: libzelta1),
# so that a later incompatible libzelta2 can be installed beside it.
set(CPACK_DEBIAN_PACKAGE_NAME lib${PROJECT_NAME}${PROJECT_VERSION_MAJOR})
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
# A shlibs file and the ldconfig trigger, so that programs packaged against us
# get "libzelta1 (>= version)" from dpkg-shlibdeps.
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS_POLICY ">=")
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)

# Net-SNMP's runtime package is named after its soname as well
# (libnetsnmp.so.40: libsnmp40). Derived from the library the build linked, so
# that the fallback below and the package test name the right one.
file(REAL_PATH "${NETSNMP_LIBRARY}" _zelta_netsnmp_real)
if(_zelta_netsnmp_real MATCHES "libnetsnmp\\.so\\.([0-9]+)")
  set(ZELTA_DEB_NETSNMP_PACKAGE libsnmp${CMAKE_MATCH_1})
else()
  set(ZELTA_DEB_NETSNMP_PACKAGE libsnmp40)
endif()
file(STRINGS "${NETSNMP_INCLUDE_DIR}/net-snmp/net-snmp-config.h" _zelta_netsnmp_version
     REGEX "^#define PACKAGE_VERSION \"[0-9.]+\"")
string(REGEX MATCH "[0-9][0-9.]*" _zelta_netsnmp_version "${_zelta_netsnmp_version}")

# Dependencies: dpkg-shlibdeps reads them off the library's NEEDED entries and
# the installed packages' symbol files. It cannot in a cross build (the target's
# libraries are not installed packages there) or without dpkg-dev; then they
# are named here, with Net-SNMP at least the version built against.
find_program(ZELTA_DPKG_SHLIBDEPS dpkg-shlibdeps)
mark_as_advanced(ZELTA_DPKG_SHLIBDEPS)
if(ZELTA_DPKG_SHLIBDEPS AND NOT CMAKE_CROSSCOMPILING)
  set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
else()
  set(_zelta_netsnmp_dep ${ZELTA_DEB_NETSNMP_PACKAGE})
  if(_zelta_netsnmp_version)
    string(APPEND _zelta_netsnmp_dep " (>= ${_zelta_netsnmp_version})")
  endif()
  set(CPACK_DEBIAN_PACKAGE_DEPENDS "${_zelta_netsnmp_dep}, libstdc++6, libgcc-s1, libc6")
endif()

# Without this CPack would label a cross-built package with the build host's
# architecture.
if(CMAKE_CROSSCOMPILING AND CMAKE_LIBRARY_ARCHITECTURE)
  find_program(ZELTA_DPKG_ARCHITECTURE dpkg-architecture)
  mark_as_advanced(ZELTA_DPKG_ARCHITECTURE)
  if(ZELTA_DPKG_ARCHITECTURE)
    execute_process(COMMAND ${ZELTA_DPKG_ARCHITECTURE} -t${CMAKE_LIBRARY_ARCHITECTURE} -qDEB_HOST_ARCH
                    OUTPUT_VARIABLE CPACK_DEBIAN_PACKAGE_ARCHITECTURE OUTPUT_STRIP_TRAILING_WHITESPACE ERROR_QUIET)
  endif()
  if(NOT CPACK_DEBIAN_PACKAGE_ARCHITECTURE)
    message(WARNING "zelta: no Debian architecture for ${CMAKE_LIBRARY_ARCHITECTURE}; set CPACK_DEBIAN_PACKAGE_ARCHITECTURE")
  endif()
endif()

include(CPack)
