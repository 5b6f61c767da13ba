# Fails when the shared library LIBRARY defines a dynamic symbol whose name
# does not start with "kuv". Run as: cmake -DLIBRARY=... [-DNM=nm] -P this file.

cmake_minimum_required(VERSION 3.20)

if(NOT LIBRARY)
  message(FATAL_ERROR "check_exports: LIBRARY not given")
endif()
if(NOT NM)
  set(NM nm)
endif()

execute_process(COMMAND ${NM} -D --defined-only ${LIBRARY}
  OUTPUT_VARIABLE listing
  RESULT_VARIABLE result)
if(NOT result EQUAL 0)
  message(FATAL_ERROR "check_exports: ${NM} failed on ${LIBRARY}")
endif()

# Markers that the linker defines in every shared object.
set(linker_symbols _init _fini _edata _end __bss_start __end__ __bss_start__
    _bss_end__ __bss_end__)

string(REPLACE "\n" ";" lines "${listing}")
set(count 0)
set(strays)
foreach(line IN LISTS lines)
  # "<address> <type> <name>[@version]"
  if(NOT line MATCHES "^[0-9a-fA-F]+ +([A-Za-z]) +([^ @]+)")
    continue()
  endif()
  set(type ${CMAKE_MATCH_1})
  set(name ${CMAKE_MATCH_2})
  if(type STREQUAL "A" OR name IN_LIST linker_symbols)
    continue()
  endif()
  math(EXPR count "${count} + 1")
  if(NOT name MATCHES "^kuv")
    list(APPEND strays "${type} ${name}")
  endif()
endforeach()

if(count EQUAL 0)
  message(FATAL_ERROR "check_exports: ${LIBRARY} exports nothing")
endif()
if(strays)
  list(LENGTH strays n)
  list(JOIN strays "\n  " shown)
  message(FATAL_ERROR "check_exports: ${n} exported symbol(s) outside kuv...:\n  ${shown}")
endif()
message(STATUS "check_exports: ${count} symbols, all kuv...")
