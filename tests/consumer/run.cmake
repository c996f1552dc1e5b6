# Packaging checks, run by ctest as `cmake -DMODE=<mode> -D... -P run.cmake`
# (tests/CMakeLists.txt passes the variables):
#   exports       the built library: soname, NEEDED entries, dynamic symbols
#   install       `cmake --install` into PREFIX and what lands there
#   find_package  this folder's project built against PREFIX, then run
#   pkg_config    main.cpp compiled with `pkg-config --cflags --libs zelta`
#                 from PREFIX, then run
#   deb           `cpack -G DEB`, the package's control fields and files, then
#                 dpkg -i, both consumers against /usr, and dpkg --purge
#   deb_consumers the part of `deb` that runs while the package is installed
cmake_minimum_required(VERSION 3.25)

set(SOURCE_DIR ${CMAKE_CURRENT_LIST_DIR})

# Runs a command; on failure stops with its output. OUTPUT <var> keeps stdout.
function(zelta_run)
  cmake_parse_arguments(PARSE_ARGV 0 arg "" "OUTPUT" "COMMAND")
  execute_process(COMMAND ${arg_COMMAND} RESULT_VARIABLE rc OUTPUT_VARIABLE out ERROR_VARIABLE err)
  if(NOT rc EQUAL 0)
    string(JOIN " " line ${arg_COMMAND})
    message(FATAL_ERROR "failed (${rc}): ${line}\n${out}\n${err}")
  endif()
  if(arg_OUTPUT)
    set(${arg_OUTPUT} "${out}" PARENT_SCOPE)
  endif()
endfunction()

# The NEEDED entries and the SONAME of an ELF file.
function(zelta_dynamic file needed_var soname_var)
  zelta_run(OUTPUT dyn COMMAND ${READELF} -d ${file})
  string(REGEX MATCHALL "\\(NEEDED\\)[^[]*\\[[^]]*\\]" lines "${dyn}")
  set(needed "")
  foreach(line IN LISTS lines)
    string(REGEX REPLACE ".*\\[(.*)\\]" "\\1" lib "${line}")
    list(APPEND needed ${lib})
  endforeach()
  set(soname "")
  if(dyn MATCHES "\\(SONAME\\)[^[]*\\[([^]]*)\\]")
    set(soname ${CMAKE_MATCH_1})
  endif()
  set(${needed_var} "${needed}" PARENT_SCOPE)
  set(${soname_var} "${soname}" PARENT_SCOPE)
endfunction()

# A consumer must need libzelta itself and nothing of Net-SNMP: the library
# links Net-SNMP privately.
function(zelta_check_consumer_needed exe)
  zelta_dynamic(${exe} needed soname)
  if(NOT "libzelta.so.${VERSION_MAJOR}" IN_LIST needed)
    message(FATAL_ERROR "${exe} does not need libzelta.so.${VERSION_MAJOR}; NEEDED: ${needed}")
  endif()
  foreach(lib IN LISTS needed)
    if(lib MATCHES "netsnmp")
      message(FATAL_ERROR "${exe} needs ${lib}: Net-SNMP leaked into the consumer's link; NEEDED: ${needed}")
    endif()
  endforeach()
endfunction()

# The CMake package's files are there, and its imported target does not hand
# Net-SNMP's libraries to consumers (a linker with --as-needed would hide that
# from the NEEDED check).
function(zelta_check_cmake_package dir)
  foreach(file IN ITEMS zeltaConfig.cmake zeltaConfigVersion.cmake zeltaTargets.cmake)
    if(NOT EXISTS ${dir}/${file})
      message(FATAL_ERROR "CMake package file ${file} not installed in ${dir}")
    endif()
  endforeach()
  file(GLOB target_files ${dir}/zeltaTargets*.cmake)
  foreach(file IN LISTS target_files)
    file(STRINGS ${file} leaks REGEX "netsnmp")
    if(leaks)
      message(FATAL_ERROR "${file} hands Net-SNMP to consumers: ${leaks}")
    endif()
  endforeach()
endfunction()

# Flags for the consumer programs: warnings as errors (the public headers must
# compile cleanly in a stranger's build; the CMake project sets its own) and
# the sanitizers the library was built with, whose runtime must come first in
# the program.
set(consumer_flags -Wall -Wextra -Werror)
set(sanitize_flags "")
if(SANITIZE)
  set(sanitize_flags -fsanitize=${SANITIZE} -fno-omit-frame-pointer)
endif()

# Configures and builds this folder's project in `work` with `extra` cache
# arguments, checks where zelta's package came from, runs the program.
function(zelta_cmake_consumer work expected_dir library)
  file(REMOVE_RECURSE ${work})
  string(JOIN " " flags ${sanitize_flags})
  zelta_run(COMMAND ${CMAKE_COMMAND} -S ${SOURCE_DIR} -B ${work} -G ${GENERATOR}
            -DCMAKE_CXX_COMPILER=${CXX} -DCMAKE_BUILD_TYPE=${CONFIG}
            "-DCMAKE_CXX_FLAGS=${flags}" "-DCMAKE_EXE_LINKER_FLAGS=${flags}" ${ARGN})
  file(STRINGS ${work}/CMakeCache.txt zelta_dir REGEX "^zelta_DIR:")
  string(REGEX REPLACE "^zelta_DIR:[A-Z]*=" "" zelta_dir "${zelta_dir}")
  file(REAL_PATH "${zelta_dir}" zelta_dir_real)
  file(REAL_PATH "${expected_dir}" expected_real)
  if(NOT zelta_dir_real STREQUAL expected_real)
    message(FATAL_ERROR "find_package(zelta) used ${zelta_dir}, not ${expected_dir}")
  endif()
  zelta_run(COMMAND ${CMAKE_COMMAND} --build ${work} --config ${CONFIG})
  set(exe ${work}/zelta_consumer)
  if(NOT EXISTS ${exe})
    set(exe ${work}/${CONFIG}/zelta_consumer)
  endif()
  zelta_check_consumer_needed(${exe})
  zelta_run(OUTPUT out COMMAND ${exe} ${library})
  message(STATUS "find_package consumer (${zelta_dir}):\n${out}")
endfunction()

# Compiles main.cpp with pkg-config's flags for zelta (searched in `pc_path`,
# or pkg-config's default folders when empty), checks the prefix it names, and
# runs the program with `ld_path` added to the loader's path.
function(zelta_pkg_config_consumer work pc_path want_prefix ld_path library)
  file(REMOVE_RECURSE ${work})
  file(MAKE_DIRECTORY ${work})
  set(env ${CMAKE_COMMAND} -E env --unset=PKG_CONFIG_LIBDIR --unset=PKG_CONFIG_SYSROOT_DIR)
  if(pc_path)
    list(APPEND env PKG_CONFIG_PATH=${pc_path})
  else()
    list(APPEND env --unset=PKG_CONFIG_PATH)
  endif()
  zelta_run(OUTPUT version COMMAND ${env} ${PKG_CONFIG} --modversion zelta)
  string(STRIP "${version}" version)
  if(NOT version STREQUAL VERSION)
    message(FATAL_ERROR "pkg-config reports zelta ${version}, built ${VERSION}")
  endif()
  zelta_run(OUTPUT prefix COMMAND ${env} ${PKG_CONFIG} --variable=prefix zelta)
  string(STRIP "${prefix}" prefix)
  if(NOT prefix STREQUAL want_prefix)
    message(FATAL_ERROR "zelta.pc names prefix '${prefix}', installed under '${want_prefix}'")
  endif()
  zelta_run(OUTPUT flags COMMAND ${env} ${PKG_CONFIG} --cflags --libs zelta)
  string(STRIP "${flags}" flags)
  message(STATUS "pkg-config --cflags --libs zelta: ${flags}")
  if(flags MATCHES "netsnmp")
    message(FATAL_ERROR "pkg-config hands Net-SNMP to consumers: ${flags}")
  endif()
  separate_arguments(flags UNIX_COMMAND "${flags}")
  set(exe ${work}/zelta_consumer)
  zelta_run(COMMAND ${CXX} ${consumer_flags} ${sanitize_flags} ${SOURCE_DIR}/main.cpp ${flags} -o ${exe})
  zelta_check_consumer_needed(${exe})
  set(run ${exe} ${library})
  if(ld_path)
    set(run ${CMAKE_COMMAND} -E env LD_LIBRARY_PATH=${ld_path} ${run})
  endif()
  zelta_run(OUTPUT out COMMAND ${run})
  message(STATUS "pkg-config consumer:\n${out}")
endfunction()

# Whether `name` matches one of the export map's patterns: our namespace only.
function(zelta_is_ours name out)
  if(name MATCHES "^_ZN.?.?7Quorvel" OR name MATCHES "^_ZT[VITSWH]N7Quorvel" OR name MATCHES "^_ZT[hvc].*N7Quorvel"
     OR name MATCHES "^_ZGVZ?N7Quorvel" OR name MATCHES "^_ZZN.?.?7Quorvel")
    set(${out} TRUE PARENT_SCOPE)
  else()
    set(${out} FALSE PARENT_SCOPE)
  endif()
endfunction()

if(MODE STREQUAL "exports")
  zelta_dynamic(${LIBRARY} needed soname)
  if(NOT soname STREQUAL "libzelta.so.${VERSION_MAJOR}")
    message(FATAL_ERROR "SONAME of ${LIBRARY} is '${soname}', want libzelta.so.${VERSION_MAJOR}")
  endif()
  # At run time the library may need Net-SNMP's libraries (package libsnmp40),
  # the C/C++ runtime and a sanitizer's runtime, nothing else.
  foreach(lib IN LISTS needed)
    if(NOT lib MATCHES "^(libnetsnmp(agent|mibs)?\\.so\\.[0-9]+|libstdc\\+\\+\\.so\\.6|libgcc_s\\.so\\.1|libm\\.so\\.6|libc\\.so\\.6|libpthread\\.so\\.0|libdl\\.so\\.2|lib(a|ub|t|l)san\\.so\\.[0-9]+)$")
      message(FATAL_ERROR "${LIBRARY} needs ${lib}, which neither Net-SNMP's runtime nor the C/C++ runtime provides")
    endif()
  endforeach()
  message(STATUS "SONAME ${soname}; NEEDED ${needed}")

  zelta_run(OUTPUT symbols COMMAND ${NM} -D --defined-only ${LIBRARY})
  string(REGEX MATCHALL "[^\n]+" lines "${symbols}")
  set(count 0)
  set(foreign "")
  set(names "")
  foreach(line IN LISTS lines)
    string(REGEX REPLACE "^.* ([^ ]+)$" "\\1" name "${line}")
    list(APPEND names ${name})
    math(EXPR count "${count} + 1")
    zelta_is_ours(${name} ours)
    if(NOT ours)
      list(APPEND foreign ${name})
    endif()
  endforeach()
  if(foreign)
    list(LENGTH foreign n)
    string(JOIN "\n  " shown ${foreign})
    message(FATAL_ERROR "${LIBRARY} exports ${n} symbols outside namespace Quorvel "
                        "(Net-SNMP's, std:: instantiations or a new API the export map misses):\n  ${shown}")
  endif()
  # The map must not hide the API either.
  foreach(api _ZN7Quorvel4Kvan10ParamGroup4saveEv _ZN7Quorvel4Kvan12ParamManager13loadAllGroupsEv
              _ZTVN7Quorvel4Kvan5ParamE)
    if(NOT api IN_LIST names)
      message(FATAL_ERROR "${LIBRARY} does not export ${api}")
    endif()
  endforeach()
  message(STATUS "${count} exported symbols, all in namespace Quorvel")

elseif(MODE STREQUAL "install")
  file(REMOVE_RECURSE ${PREFIX})
  zelta_run(OUTPUT out COMMAND ${CMAKE_COMMAND} --install ${BUILD_DIR} --prefix ${PREFIX} --config ${CONFIG})
  message(STATUS "${out}")
  set(lib ${PREFIX}/${LIBDIR})
  # The real file, the soname link programs load and the link the linker uses.
  if(NOT EXISTS ${lib}/libzelta.so.${VERSION} OR IS_SYMLINK ${lib}/libzelta.so.${VERSION})
    message(FATAL_ERROR "no library file ${lib}/libzelta.so.${VERSION}")
  endif()
  foreach(link_target IN ITEMS "libzelta.so.${VERSION_MAJOR}:libzelta.so.${VERSION}" "libzelta.so:libzelta.so.${VERSION_MAJOR}")
    string(REPLACE ":" ";" pair "${link_target}")
    list(GET pair 0 link)
    list(GET pair 1 target)
    if(NOT IS_SYMLINK ${lib}/${link})
      message(FATAL_ERROR "${lib}/${link} is not a symbolic link")
    endif()
    file(READ_SYMLINK ${lib}/${link} points)
    if(NOT points STREQUAL target)
      message(FATAL_ERROR "${lib}/${link} points to ${points}, want ${target}")
    endif()
  endforeach()
  zelta_dynamic(${lib}/libzelta.so.${VERSION} needed soname)
  if(NOT soname STREQUAL "libzelta.so.${VERSION_MAJOR}")
    message(FATAL_ERROR "installed library has SONAME '${soname}'")
  endif()

  # Every public header, and none of them pulls in Net-SNMP's headers, which
  # consumers do not have.
  file(GLOB headers RELATIVE ${HEADER_SOURCE_DIR} ${HEADER_SOURCE_DIR}/*.h)
  foreach(header IN LISTS headers)
    set(installed ${PREFIX}/${INCLUDEDIR}/zelta/${header})
    if(NOT EXISTS ${installed})
      message(FATAL_ERROR "header ${header} not installed as ${installed}")
    endif()
    file(STRINGS ${installed} includes REGEX "^[ \t]*#[ \t]*include[ \t]*[<\"]net-snmp/")
    if(includes)
      message(FATAL_ERROR "${installed} includes a Net-SNMP header: ${includes}")
    endif()
  endforeach()

  zelta_check_cmake_package(${lib}/cmake/zelta)

  set(pc ${lib}/pkgconfig/zelta.pc)
  if(NOT EXISTS ${pc})
    message(FATAL_ERROR "zelta.pc not installed in ${lib}/pkgconfig")
  endif()
  file(STRINGS ${pc} prefix_line REGEX "^prefix=")
  if(NOT prefix_line STREQUAL "prefix=${PREFIX}")
    message(FATAL_ERROR "${pc} has '${prefix_line}', installed under ${PREFIX}")
  endif()

elseif(MODE STREQUAL "find_package")
  zelta_cmake_consumer(${WORK} ${PREFIX}/${LIBDIR}/cmake/zelta ${PREFIX}/${LIBDIR}/libzelta.so.${VERSION}
                       -DCMAKE_PREFIX_PATH=${PREFIX})

elseif(MODE STREQUAL "pkg_config")
  zelta_pkg_config_consumer(${WORK} ${PREFIX}/${LIBDIR}/pkgconfig ${PREFIX} ${PREFIX}/${LIBDIR}
                            ${PREFIX}/${LIBDIR}/libzelta.so.${VERSION})

elseif(MODE STREQUAL "deb")
  execute_process(COMMAND id -u OUTPUT_VARIABLE uid OUTPUT_STRIP_TRAILING_WHITESPACE)
  find_program(DPKG dpkg)
  find_program(DPKG_DEB dpkg-deb)
  find_program(DPKG_QUERY dpkg-query)
  if(NOT DPKG OR NOT DPKG_DEB OR NOT DPKG_QUERY)
    message("ZELTA-SKIP: no dpkg on this machine, so no Debian package to build and install")
    return()
  endif()
  if(NOT uid STREQUAL "0")
    message("ZELTA-SKIP: installing the package with dpkg -i needs root; run the tests as root to include it")
    return()
  endif()
  set(package libzelta${VERSION_MAJOR})
  # One package test per machine at a time: two build trees share the dpkg
  # database and /usr.
  file(LOCK /tmp/zelta-deb-test.lock GUARD PROCESS TIMEOUT 1800)
  execute_process(COMMAND ${DPKG_QUERY} -W -f=\${db:Status-Abbrev} ${package}
                  RESULT_VARIABLE rc OUTPUT_VARIABLE status ERROR_QUIET)
  if(rc EQUAL 0 AND NOT status MATCHES "^[up]n")
    message("ZELTA-SKIP: ${package} is already installed here (${status}); the test would replace and then remove it")
    return()
  endif()

  file(REMOVE_RECURSE ${WORK})
  zelta_run(OUTPUT out COMMAND ${CPACK} -G DEB -C ${CONFIG} -B ${WORK}/cpack --config ${BUILD_DIR}/CPackConfig.cmake)
  file(GLOB debs ${WORK}/cpack/*.deb)
  list(LENGTH debs n)
  if(NOT n EQUAL 1)
    message(FATAL_ERROR "cpack made ${n} .deb files, want one:\n${out}")
  endif()
  set(deb ${debs})

  zelta_run(OUTPUT control COMMAND ${DPKG_DEB} -f ${deb} Package Version Architecture Depends)
  message(STATUS "${deb}:\n${control}")
  string(REGEX MATCH "Package: ([^\n]*)" _ "${control}")
  if(NOT CMAKE_MATCH_1 STREQUAL package)
    message(FATAL_ERROR "Package is '${CMAKE_MATCH_1}', want ${package} (after the soname)")
  endif()
  string(REGEX MATCH "Version: ([^\n]*)" _ "${control}")
  if(NOT CMAKE_MATCH_1 STREQUAL VERSION)
    message(FATAL_ERROR "Version is '${CMAKE_MATCH_1}', want ${VERSION}")
  endif()
  execute_process(COMMAND ${DPKG} --print-architecture OUTPUT_VARIABLE arch OUTPUT_STRIP_TRAILING_WHITESPACE)
  string(REGEX MATCH "Architecture: ([^\n]*)" _ "${control}")
  if(NOT CMAKE_MATCH_1 STREQUAL arch)
    message(FATAL_ERROR "Architecture is '${CMAKE_MATCH_1}', want ${arch}")
  endif()
  # The runtime needs Net-SNMP's runtime package and the C/C++ runtime only:
  # never a -dev package, never a library the build does not link.
  string(REGEX MATCH "Depends: ([^\n]*)" _ "${control}")
  string(REPLACE "," ";" depends "${CMAKE_MATCH_1}")
  set(names "")
  foreach(dep IN LISTS depends)
    string(REGEX REPLACE "^ *([^ ]+).*" "\\1" name "${dep}")
    list(APPEND names ${name})
    if(NOT name MATCHES "^(${NETSNMP_PACKAGE}|libc6|libgcc-s1|libstdc\\+\\+6|lib(a|ub|t|l)san[0-9]+)$")
      message(FATAL_ERROR "Depends names ${name}: ${CMAKE_MATCH_1}")
    endif()
  endforeach()
  if(NOT NETSNMP_PACKAGE IN_LIST names)
    message(FATAL_ERROR "Depends does not name ${NETSNMP_PACKAGE}: ${CMAKE_MATCH_1}")
  endif()

  zelta_run(OUTPUT contents COMMAND ${DPKG_DEB} -c ${deb})
  foreach(want IN ITEMS "/libzelta\\.so\\.${VERSION}" "/libzelta\\.so\\.${VERSION_MAJOR} -> libzelta\\.so\\.${VERSION}"
                        "/libzelta\\.so -> libzelta\\.so\\.${VERSION_MAJOR}" "/usr/include/zelta/zelta\\.h"
                        "/cmake/zelta/zeltaConfig\\.cmake" "/pkgconfig/zelta\\.pc")
    if(NOT contents MATCHES "(^|\n)[^\n]*${want}(\n|$)")
      message(FATAL_ERROR "${deb} lacks ${want}:\n${contents}")
    endif()
  endforeach()

  # Install, build and run both consumers against /usr in a child, then remove
  # the package whatever the child found.
  set(install_log "")
  foreach(attempt RANGE 60)
    execute_process(COMMAND ${DPKG} -i ${deb} RESULT_VARIABLE installed OUTPUT_VARIABLE out ERROR_VARIABLE err)
    string(APPEND install_log "${out}${err}")
    if(installed EQUAL 0 OR NOT err MATCHES "lock")
      break()
    endif()
    # Another dpkg or apt-get holds the database lock; wait for it.
    execute_process(COMMAND ${CMAKE_COMMAND} -E sleep 5)
  endforeach()
  set(child_rc 0)
  set(child_out "")
  if(installed EQUAL 0)
    execute_process(COMMAND ${CMAKE_COMMAND} -DMODE=deb_consumers -DWORK=${WORK} -DPACKAGE=${package}
                            -DREADELF=${READELF} -DPKG_CONFIG=${PKG_CONFIG} -DCXX=${CXX} -DGENERATOR=${GENERATOR}
                            -DCONFIG=${CONFIG} -DVERSION=${VERSION} -DVERSION_MAJOR=${VERSION_MAJOR}
                            -DSANITIZE=${SANITIZE} -DDPKG_QUERY=${DPKG_QUERY} -P ${CMAKE_CURRENT_LIST_FILE}
                    RESULT_VARIABLE child_rc OUTPUT_VARIABLE child_out ERROR_VARIABLE child_err)
    string(APPEND child_out "${child_err}")
  endif()
  execute_process(COMMAND ${DPKG} --purge ${package} RESULT_VARIABLE removed OUTPUT_VARIABLE out ERROR_VARIABLE err)
  execute_process(COMMAND ${DPKG_QUERY} -W -f=\${db:Status-Abbrev} ${package}
                  RESULT_VARIABLE rc OUTPUT_VARIABLE status ERROR_QUIET)
  message(STATUS "${child_out}")
  if(NOT installed EQUAL 0)
    message(FATAL_ERROR "dpkg -i ${deb} failed:\n${install_log}")
  endif()
  if(NOT removed EQUAL 0 OR (rc EQUAL 0 AND NOT status MATCHES "^[up]n"))
    message(FATAL_ERROR "dpkg --purge ${package} left it as '${status}':\n${out}\n${err}")
  endif()
  if(NOT child_rc EQUAL 0)
    message(FATAL_ERROR "consumers against the installed package failed")
  endif()

elseif(MODE STREQUAL "deb_consumers")
  zelta_run(OUTPUT files COMMAND ${DPKG_QUERY} -L ${PACKAGE})
  string(REGEX MATCH "[^\n]*/libzelta\\.so\\.${VERSION}" library "${files}")
  string(REGEX MATCH "[^\n]*/cmake/zelta/zeltaConfig\\.cmake" config "${files}")
  string(REGEX MATCH "[^\n]*/pkgconfig/zelta\\.pc" pc "${files}")
  if(NOT library OR NOT config OR NOT pc)
    message(FATAL_ERROR "${PACKAGE} lacks the library, the CMake package or zelta.pc:\n${files}")
  endif()
  get_filename_component(config_dir ${config} DIRECTORY)
  zelta_check_cmake_package(${config_dir})
  # Both find the package in the compiler's and the tools' default places;
  # the checks inside fail if another copy on the machine is found instead.
  zelta_cmake_consumer(${WORK}/find_package ${config_dir} ${library})
  zelta_pkg_config_consumer(${WORK}/pkg_config "" /usr "" ${library})

else()
  message(FATAL_ERROR "run.cmake: unknown MODE '${MODE}'")
endif()
