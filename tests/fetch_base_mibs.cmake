# Puts the IETF base modules SNMPv2-SMI, SNMPv2-TC and SNMPv2-CONF into DEST,
# once per build tree: every generated MIB module imports from them, and
# Debian ships none of them. The npm package net-snmp carries them under
# lib/mibs/; only the three files are kept. When npm cannot fetch it, DEST
# gets why-missing.txt instead, and the tests that need the modules skip with
# that reason: this script itself never fails.
#   cmake -DDEST=<dir> -P fetch_base_mibs.cmake
cmake_minimum_required(VERSION 3.25)

set(modules SNMPv2-SMI SNMPv2-TC SNMPv2-CONF)
# SNMPv2-CONF is copied last: when it is there, so are the others.
if(EXISTS ${DEST}/SNMPv2-CONF.mib)
  return()
endif()
file(REMOVE_RECURSE ${DEST})
# A cache of its own, so that nothing lands in the home directory.
set(work ${DEST}/fetch)
file(MAKE_DIRECTORY ${work})
find_program(NPM npm)
if(NOT NPM)
  set(why "no npm command (Debian: npm) to fetch the npm package net-snmp with")
else()
  execute_process(COMMAND ${NPM} pack net-snmp@3 --silent --cache ${work}/cache WORKING_DIRECTORY ${work}
                  RESULT_VARIABLE rc OUTPUT_VARIABLE out ERROR_VARIABLE err TIMEOUT 300)
  file(GLOB tarball ${work}/net-snmp-*.tgz)
  string(STRIP "${err}" err)
  if(NOT rc EQUAL 0 OR NOT tarball)
    set(why "`npm pack net-snmp@3` failed (${rc}): ${err}")
  else()
    file(ARCHIVE_EXTRACT INPUT ${tarball} DESTINATION ${work} PATTERNS package/lib/mibs/SNMPv2-*)
  endif()
endif()
foreach(module ${modules})
  if(NOT why AND NOT EXISTS ${work}/package/lib/mibs/${module}.mib)
    set(why "${tarball} has no lib/mibs/${module}.mib")
  endif()
endforeach()
if(why)
  file(WRITE ${DEST}/why-missing.txt "${why}\n")
  message(STATUS "base MIB modules not fetched: ${why}")
else()
  foreach(module ${modules})
    file(COPY_FILE ${work}/package/lib/mibs/${module}.mib ${DEST}/${module}.mib)
  endforeach()
  message(STATUS "base MIB modules in ${DEST}")
endif()
file(REMOVE_RECURSE ${work})
