# Writes the input of gperf, the well-known names with their abbreviation, from the row table.
# cmake -DDEF=<xmltag_wk.def> -DOUT=<file> -P xmltag_gperf.cmake
file(STRINGS ${DEF} rows REGEX "^KVUTIL_WK_TAG\\(.*:\",")
set(text [[
%language=C++
%define class-name xmltag_gperf
%define lookup-function-name find
%struct-type
%readonly-tables
%compare-strncmp
struct row_t { const char* name; int id; };
%%
]])
foreach(row IN LISTS rows)
  if(row MATCHES "^KVUTIL_WK_TAG\\( *([0-9]+), [A-Z0-9_]+, +\"([A-Z_]+:)\", +\"([^\"]+)\"")
    string(APPEND text "${CMAKE_MATCH_2}${CMAKE_MATCH_3}, ${CMAKE_MATCH_1}\n")
  endif()
endforeach()
file(WRITE ${OUT} "${text}")
