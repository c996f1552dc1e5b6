# Packaging checks, run by ctest as `cmake -DMODE=<mode> -D... -P run.cmake`
# (tests/CMakeLists.txt passes the variables). Modes: exports (the built
# library), install (`cmake --install` into PREFIX), find_package and
# pkg_config (a consumer built against PREFIX, then run: a device program with
# libzelta alone, and a build host's program with the MIB generator's library
# too), deb (`cpack -G DEB`, dpkg -i, both consumers against /usr, dpkg --purge
# whatever they found).
cmake_minimum_required(VERSION 3.25)

# Runs a command and stops with its output when it fails; `out_var` gets its
# standard output.
function(zelta_run out_var)
  execute_process(COMMAND ${ARGN} RESULT_VARIABLE rc OUTPUT_VARIABLE out ERROR_VARIABLE err
                  OUTPUT_STRIP_TRAILING_WHITESPACE)
  if(NOT rc EQUAL 0)
    list(JOIN ARGN " " line)
    message(FATAL_ERROR "failed (${rc}): ${line}\n${out}\n${err}")
  endif()
  set(${out_var} "${out}" PARENT_SCOPE)
endfunction()

set(library ${PREFIX}/${LIBDIR}/libzelta.so.${VERSION})
# The consumers are built with the sanitizers the library was built with: their
# runtime has to come first in the program.
string(REGEX REPLACE "^(.+)$" "-fsanitize=\\1" sanitize "${SANITIZE}")

if(MODE STREQUAL "exports")
  zelta_run(dynamic ${READELF} -d ${LIBRARY})
  if(NOT dynamic MATCHES "\\(SONAME\\)[^\n]*\\[libzelta\\.so\\.${VERSION_MAJOR}\\]")
    message(FATAL_ERROR "SONAME of ${LIBRARY} is not libzelta.so.${VERSION_MAJOR}:\n${dynamic}")
  endif()
  # Net-SNMP's runtime, the C/C++ runtime and a sanitizer's, nothing else: the
  # .deb's Depends (named by hand in a cross build) covers no more.
  string(REGEX MATCHALL "\\(NEEDED\\)[^[]*\\[[^]]*\\]" needed "${dynamic}")
  list(FILTER needed EXCLUDE REGEX "\\[(libnetsnmp(agent|mibs)?\\.so\\.[0-9]+|libstdc\\+\\+\\.so\\.6|libgcc_s\\.so\\.1|lib[cm]\\.so\\.6|libpthread\\.so\\.0|libdl\\.so\\.2|lib(a|ub|t|l)san\\.so\\.[0-9]+)\\]")
  if(needed)
    message(FATAL_ERROR "${LIBRARY} needs more than Net-SNMP and the C/C++ runtime: ${needed}")
  endif()
  # The export map keeps the dynamic symbols to namespace Quorvel (functions,
  # data, vtables, typeinfo, thunks, guard variables, local statics) and must
  # not hide the API either.
  zelta_run(symbols ${NM} -D --defined-only ${LIBRARY})
  string(REGEX MATCHALL "[^ \n]+(\n|$)" foreign "${symbols}")
  list(FILTER foreign EXCLUDE REGEX "^_Z(N.?.?|T[VITSWH]N|T[hvc].*N|GVZ?N|ZN.?.?)7Quorvel")
  if(foreign OR NOT symbols MATCHES " _ZN7Quorvel4Kvan10ParamGroup4saveEv(\n|$)")
    message(FATAL_ERROR "${LIBRARY} exports symbols outside namespace Quorvel, or not ParamGroup::save:\n${foreign}")
  endif()
  # The MIB generator lives in its own library, which exports it and nothing
  # outside namespace Quorvel either.
  zelta_run(all ${NM} --defined-only ${LIBRARY})
  zelta_run(generator ${NM} -D --defined-only ${MIBGEN_LIBRARY})
  string(REGEX MATCHALL "[^ \n]+(\n|$)" foreign "${generator}")
  list(FILTER foreign EXCLUDE REGEX "^_Z(N.?.?|T[VITSWH]N|T[hvc].*N|GVZ?N|ZN.?.?)7Quorvel")
  if(all MATCHES "MibModule" OR foreign OR NOT generator MATCHES "writeMibModule")
    message(FATAL_ERROR "libzelta carries the MIB generator, or ${MIBGEN_LIBRARY} exports other symbols:\n${foreign}")
  endif()

elseif(MODE STREQUAL "install")
  file(REMOVE_RECURSE ${PREFIX})
  zelta_run(_ ${CMAKE_COMMAND} --install ${BUILD_DIR} --prefix ${PREFIX} --config ${CONFIG})
  # The library, the soname link that programs load and the link that the
  # linker takes.
  file(REAL_PATH ${library} real_library)
  foreach(link libzelta.so.${VERSION_MAJOR} libzelta.so)
    file(REAL_PATH ${PREFIX}/${LIBDIR}/${link} real)
    if(NOT EXISTS ${library} OR NOT real STREQUAL real_library)
      message(FATAL_ERROR "${PREFIX}/${LIBDIR}/${link} is not a link to the library file libzelta.so.${VERSION}")
    endif()
  endforeach()
  # Every public header; neither they nor the CMake package hand Net-SNMP
  # (its headers, its libraries) to consumers, which link it through us.
  file(GLOB headers RELATIVE ${HEADER_SOURCE_DIR} ${HEADER_SOURCE_DIR}/*.h)
  file(GLOB installed RELATIVE ${PREFIX}/${INCLUDEDIR}/zelta ${PREFIX}/${INCLUDEDIR}/zelta/*)
  if(NOT headers STREQUAL installed)
    message(FATAL_ERROR "installed headers ${installed}, want ${headers}")
  endif()
  list(TRANSFORM installed PREPEND ${PREFIX}/${INCLUDEDIR}/zelta/)
  file(GLOB package ${PREFIX}/${LIBDIR}/cmake/zelta/zelta*.cmake)
  foreach(file IN LISTS installed package ITEMS ${PREFIX}/${LIBDIR}/cmake/zelta/zeltaConfig.cmake)
    file(STRINGS ${file} leaks REGEX "[<\"]net-snmp/|libnetsnmp")
    if(leaks)
      message(FATAL_ERROR "${file} hands Net-SNMP to consumers: ${leaks}")
    endif()
  endforeach()
  file(STRINGS ${PREFIX}/${LIBDIR}/pkgconfig/zelta.pc prefix REGEX "^prefix=")
  if(NOT prefix STREQUAL "prefix=${PREFIX}")
    message(FATAL_ERROR "zelta.pc has '${prefix}', installed under ${PREFIX}")
  endif()

# Both consumers check that the libzelta they load is `library`, so that
# another copy on the machine cannot stand in for it.
elseif(MODE STREQUAL "find_package")
  file(REMOVE_RECURSE ${WORK})
  foreach(mibgen OFF ON)
    zelta_run(_ ${CMAKE_COMMAND} -S ${CMAKE_CURRENT_LIST_DIR} -B ${WORK}/${mibgen} -G ${GENERATOR}
              -DCMAKE_PREFIX_PATH=${PREFIX} -DCMAKE_CXX_COMPILER=${CXX} "-DCMAKE_CXX_FLAGS=${sanitize}"
              -DWITH_MIBGEN=${mibgen})
    zelta_run(_ ${CMAKE_COMMAND} --build ${WORK}/${mibgen} --config ${CONFIG})
    file(GLOB_RECURSE exe ${WORK}/${mibgen}/zelta_consumer)
    zelta_run(out ${exe} ${library})
    message(STATUS "${out}")
  endforeach()

elseif(MODE STREQUAL "pkg_config")
  set(pc ${CMAKE_COMMAND} -E env --unset=PKG_CONFIG_LIBDIR --unset=PKG_CONFIG_SYSROOT_DIR
         PKG_CONFIG_PATH=${PREFIX}/${LIBDIR}/pkgconfig ${PKG_CONFIG})
  file(REMOVE_RECURSE ${WORK})
  file(MAKE_DIRECTORY ${WORK})
  foreach(module zelta zelta-mibgen)
    zelta_run(prefix ${pc} --variable=prefix ${module})
    zelta_run(flags ${pc} --cflags --libs ${module})
    if(NOT prefix STREQUAL PREFIX OR flags MATCHES "snmp")
      message(FATAL_ERROR "${module}.pc found has prefix ${prefix} (want ${PREFIX}) and flags ${flags} (want no Net-SNMP)")
    endif()
    separate_arguments(flags UNIX_COMMAND "${flags}")
    set(define "")
    if(module STREQUAL "zelta-mibgen")
      set(define -DZELTA_CONSUMER_MIBGEN)
    endif()
    zelta_run(_ ${CXX} ${sanitize} -Wall -Wextra -Werror ${define} ${CMAKE_CURRENT_LIST_DIR}/main.cpp ${flags}
              -o ${WORK}/${module}_consumer)
    zelta_run(out ${CMAKE_COMMAND} -E env LD_LIBRARY_PATH=${PREFIX}/${LIBDIR} ${WORK}/${module}_consumer ${library})
    message(STATUS "${out}")
  endforeach()

elseif(MODE STREQUAL "deb")
  find_program(DPKG dpkg)
  execute_process(COMMAND id -u OUTPUT_VARIABLE uid OUTPUT_STRIP_TRAILING_WHITESPACE)
  if(NOT DPKG OR NOT uid STREQUAL "0")
    message("ZELTA-SKIP: installing the .deb takes dpkg and root; run the tests as root to include it")
    return()
  endif()
  # One package test per machine at a time (build trees share /usr), and none
  # over a libzelta installed for real.
  file(LOCK /tmp/zelta-deb-test.lock GUARD PROCESS TIMEOUT 1800)
  set(package libzelta${VERSION_MAJOR})
  execute_process(COMMAND ${DPKG} -s ${package} RESULT_VARIABLE rc OUTPUT_QUIET ERROR_QUIET)
  if(rc EQUAL 0)
    message("ZELTA-SKIP: ${package} is already installed here; the test would replace and then remove it")
    return()
  endif()
  file(REMOVE_RECURSE ${WORK})
  zelta_run(_ ${CPACK} -G DEB -C ${CONFIG} -B ${WORK} --config ${BUILD_DIR}/CPackConfig.cmake)
  file(GLOB deb ${WORK}/*.deb)
  zelta_run(control dpkg-deb -f ${deb} Package Depends)
  if(NOT control MATCHES "(^|\n)Package: ${package}(\n|$)" OR NOT control MATCHES "Depends:[^\n]*[ ,]${NETSNMP_PACKAGE}([ ,\n]|$)")
    message(FATAL_ERROR "${deb}: want package ${package} depending on ${NETSNMP_PACKAGE}:\n${control}")
  endif()
  foreach(attempt RANGE 60)  # while another dpkg or apt holds the lock
    execute_process(COMMAND ${DPKG} -i ${deb} RESULT_VARIABLE installed OUTPUT_VARIABLE out ERROR_VARIABLE err)
    if(installed EQUAL 0 OR NOT err MATCHES "lock")
      break()
    endif()
    execute_process(COMMAND ${CMAKE_COMMAND} -E sleep 5)
  endforeach()
  # Both consumers against /usr, each in a child so that the package is
  # removed whatever they find.
  if(installed EQUAL 0)
    foreach(var IN ITEMS CXX GENERATOR CONFIG VERSION LIBDIR PKG_CONFIG SANITIZE)
      list(APPEND args "-D${var}=${${var}}")
    endforeach()
    foreach(mode IN ITEMS find_package pkg_config)
      execute_process(COMMAND ${CMAKE_COMMAND} ${args} -DMODE=${mode} -DPREFIX=/usr -DWORK=${WORK}/${mode}
                              -P ${CMAKE_CURRENT_LIST_FILE} RESULT_VARIABLE rc TIMEOUT 300)
      if(NOT rc EQUAL 0)
        list(APPEND failed ${mode})
      endif()
    endforeach()
  endif()
  execute_process(COMMAND ${DPKG} --purge ${package} RESULT_VARIABLE purged)
  if(NOT installed EQUAL 0 OR failed OR NOT purged EQUAL 0)
    message(FATAL_ERROR "dpkg -i: ${installed} ${err}; consumers failed: ${failed}; dpkg --purge: ${purged}")
  endif()

else()
  message(FATAL_ERROR "run.cmake: unknown MODE '${MODE}'")
endif()
