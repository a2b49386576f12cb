# Fails when libplexa.so exports a dynamic symbol that is not one of the
# library's own names: a std:: instantiation, a helper that lost its hidden
# visibility, a symbol from a static dependency.
#   cmake -DLIB=libplexa.so -DNM=nm -P check-exports.cmake
execute_process(COMMAND ${NM} -D --defined-only -C ${LIB}
  OUTPUT_VARIABLE out RESULT_VARIABLE rc)
if(NOT rc EQUAL 0)
  message(FATAL_ERROR "${NM} failed on ${LIB}")
endif()
string(REPLACE ";" "\\;" out "${out}")
string(REPLACE "\n" ";" lines "${out}")

set(count 0)
set(foreign "")
foreach(line IN LISTS lines)
  # "ADDRESS TYPE NAME"; the name may hold spaces.
  if(NOT line MATCHES "^[0-9a-f]* [A-Za-z] (.*)$")
    continue()
  endif()
  set(name "${CMAKE_MATCH_1}")
  math(EXPR count "${count} + 1")
  string(REGEX REPLACE "^((construction )?vtable for |VTT for |typeinfo (name )?for |guard variable for |TLS (init|wrapper) function for |(non-virtual |virtual |covariant return )thunk to )" "" owner "${name}")
  if(NOT owner MATCHES "^ZNR" AND NOT owner MATCHES "^operator[^(]*\\(ZNR")
    list(APPEND foreign "${name}")
  endif()
endforeach()

message(STATUS "libplexa.so exports ${count} dynamic symbols")
if(count EQUAL 0)
  message(FATAL_ERROR "no exported symbols read from ${LIB}")
endif()
if(foreign)
  list(LENGTH foreign n)
  list(JOIN foreign "\n  " text)
  message(FATAL_ERROR "${n} exported symbols are not the library's own:\n  ${text}")
endif()
