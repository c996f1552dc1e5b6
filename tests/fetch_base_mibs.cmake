# Puts the IETF base modules SNMPv2-SMI, SNMPv2-TC and SNMPv2-CONF into DEST,
# once per build tree: every generated MIB module imports from them, and
# Debian ships none of them. The npm package net-snmp carries them under
# lib/mibs/; only the three files are kept. When npm cannot fetch it, DEST
# gets why-missing.txt instead, and the tests that need the modules skip with
# that reason: this script itself never fails.
#   cmake -DDEST=<dir> -P fetch_base_mibs.cmake
cmake_minimum_required(VERSION 3.25)

set(modules SNMPv2-SMI SNMPv2-TC SNMPv2-CONF)
set(have TRUE)
foreach(module ${modules})
  if(NOT EXISTS ${DEST}/${module}.mib)
    set(have FALSE)
  endif()
endforeach()
if(have)
  return()
endif()

function(give_up reason)
  file(WRITE ${DEST}/why-missing.txt "${reason}\n")
  message(STATUS "base MIB modules not fetched: ${reason}")
endfunction()

file(REMOVE_RECURSE ${DEST})
file(MAKE_DIRECTORY ${DEST})
find_program(NPM npm)
if(NOT NPM)
  give_up("no npm command (Debian: npm) to fetch the npm package net-snmp with")
  return()
endif()
# A cache of its own, so that nothing lands in the home directory.
set(work ${DEST}/fetch)
file(MAKE_DIRECTORY ${work})
execute_process(COMMAND ${NPM} pack net-snmp@3 --silent --cache ${work}/cache WORKING_DIRECTORY ${work}
                RESULT_VARIABLE rc OUTPUT_VARIABLE out ERROR_VARIABLE err TIMEOUT 300)
file(GLOB tarball ${work}/net-snmp-*.tgz)
if(NOT rc EQUAL 0 OR NOT tarball)
  string(STRIP "${err}" err)
  give_up("`npm pack net-snmp@3` failed (${rc}): ${err}")
  file(REMOVE_RECURSE ${work})
  return()
endif()
file(ARCHIVE_EXTRACT INPUT ${tarball} DESTINATION ${work} PATTERNS package/lib/mibs/SNMPv2-*)
foreach(module ${modules})
  if(NOT EXISTS ${work}/package/lib/mibs/${module}.mib)
    give_up("${tarball} has no lib/mibs/${module}.mib")
    file(REMOVE_RECURSE ${work})
    return()
  endif()
endforeach()
foreach(module ${modules})
  file(COPY_FILE ${work}/package/lib/mibs/${module}.mib ${DEST}/${module}.mib)
endforeach()
file(REMOVE_RECURSE ${work})
message(STATUS "base MIB modules in ${DEST}")
