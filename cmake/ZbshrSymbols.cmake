# The shared library exports exactly the C functions its public headers
# declare, under the symbol version ZBSHR_5: a linker version script is
# generated from include/zbshr/*.h at configure time (the export family's
# functions come from ZBSHR_OSSAVE_DECLARE), and everything else, C++ template
# instantiations included, stays local. The test-only fault switch is left out.
# The ZBSHR_VERSION_* macros of api.h must agree with project(VERSION).

file(READ "${PROJECT_SOURCE_DIR}/include/zbshr/api.h" _api)
foreach(_part MAJOR MINOR PATCH)
  string(REGEX MATCH "#define ZBSHR_VERSION_${_part} ([0-9]+)" _m "${_api}")
  set(_hv_${_part} "${CMAKE_MATCH_1}")
endforeach()
if(NOT "${_hv_MAJOR}.${_hv_MINOR}.${_hv_PATCH}" STREQUAL "${PROJECT_VERSION}")
  message(FATAL_ERROR "include/zbshr/api.h says version ${_hv_MAJOR}.${_hv_MINOR}.${_hv_PATCH}, "
                      "the project says ${PROJECT_VERSION}: update the ZBSHR_VERSION_* macros")
endif()

set(_names "")
file(GLOB _headers CONFIGURE_DEPENDS "${PROJECT_SOURCE_DIR}/include/zbshr/*.h")
foreach(_h IN LISTS _headers)
  file(READ "${_h}" _text)
  # Comments hold examples such as "ZBSHR_API(type) name(args)": drop them.
  string(REGEX REPLACE "/\\*([^*]|\\*+[^*/])*\\*+/" "" _text "${_text}")
  string(REGEX MATCHALL "ZBSHR_API\\([^)]*\\)[ \t\r\n*]*[A-Za-z_][A-Za-z0-9_]*[ \t\r\n]*\\(" _decls "${_text}")
  foreach(_d IN LISTS _decls)
    string(REGEX REPLACE "^ZBSHR_API\\([^)]*\\)[ \t\r\n*]*([A-Za-z_][A-Za-z0-9_]*).*" "\\1" _n "${_d}")
    list(APPEND _names "${_n}")
  endforeach()
  string(REGEX MATCHALL "\nZBSHR_OSSAVE_DECLARE\\([A-Za-z0-9_]+\\)" _fmts "${_text}")
  foreach(_f IN LISTS _fmts)
    string(REGEX REPLACE ".*\\(([A-Za-z0-9_]+)\\)" "\\1" _f "${_f}")
    list(APPEND _names osSave${_f}Begin osSave${_f}Column osSave${_f}Item osSave${_f}End)
  endforeach()
endforeach()
list(FILTER _names EXCLUDE REGEX "^(osSave##.*|zbshr_inject_fault|zbshr_clear_faults)$")
list(FILTER _names EXCLUDE REGEX "##")
list(REMOVE_DUPLICATES _names)
list(SORT _names)
list(LENGTH _names _count)
set(_map "/* Generated from include/zbshr/*.h: the ${_count} exported C functions. */\nZBSHR_5 {\n  global:\n")
foreach(_n IN LISTS _names)
  string(APPEND _map "    ${_n};\n")
endforeach()
string(APPEND _map "  local:\n    *;\n};\n")
set(ZBSHR_VERSION_SCRIPT "${PROJECT_BINARY_DIR}/zbshr.map")
file(CONFIGURE OUTPUT "${ZBSHR_VERSION_SCRIPT}" CONTENT "${_map}")

if(TARGET zbshr AND NOT WIN32 AND NOT APPLE)
  target_link_options(zbshr PRIVATE "LINKER:--version-script=${ZBSHR_VERSION_SCRIPT}")
  set_property(TARGET zbshr APPEND PROPERTY LINK_DEPENDS "${ZBSHR_VERSION_SCRIPT}")
endif()
