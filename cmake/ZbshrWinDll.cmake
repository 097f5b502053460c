# The Windows DLL is ZBSHR050.dll. It exports every function and constant the
# public headers declare, under its plain name, through a module-definition
# file generated from include/zbshr/*.h (so that a 32-bit __stdcall function
# is found as "AddDecimal", not "AddDecimal@12"). Its objects are the
# families' objects, compiled without dllexport; only the DLL gets DllMain.
if(NOT WIN32 OR NOT TARGET zbshr)
  return()
endif()

set(_funcs "")
set(_data "")
file(GLOB _headers CONFIGURE_DEPENDS "${PROJECT_SOURCE_DIR}/include/zbshr/*.h")
foreach(_h IN LISTS _headers)
  file(READ "${_h}" _text)
  string(REGEX REPLACE "/\\*([^*]|\\*+[^*/])*\\*+/" "" _text "${_text}")
  string(REGEX REPLACE "//[^\n]*" "" _text "${_text}")
  # Lines inside a #define (the macros that declare families of functions)
  # are expanded below, not read as declarations.
  string(REGEX REPLACE "#[ \t]*define[^\n]*(\\\\\n[^\n]*)*" "" _decl_text "${_text}")
  string(REGEX MATCHALL "ZBSHR_API\\([^)]*\\)[ \t\r\n*]*[A-Za-z_][A-Za-z0-9_]*[ \t\r\n]*\\(" _decls "${_decl_text}")
  foreach(_d IN LISTS _decls)
    string(REGEX REPLACE "^ZBSHR_API\\([^)]*\\)[ \t\r\n*]*([A-Za-z_][A-Za-z0-9_]*).*" "\\1" _n "${_d}")
    list(APPEND _funcs "${_n}")
  endforeach()
  string(REGEX MATCHALL "ZBSHR_EXPORT[ \t]+extern[^;(]*" _vars "${_decl_text}")
  foreach(_v IN LISTS _vars)
    string(REGEX REPLACE ".*[ \t*]([A-Za-z_][A-Za-z0-9_]*)[ \t\r\n]*$" "\\1" _n "${_v}")
    list(APPEND _data "${_n}")
  endforeach()
  string(REGEX MATCHALL "\nZBSHR_OSSAVE_DECLARE\\([A-Za-z0-9_]+\\)" _fmts "${_decl_text}")
  foreach(_f IN LISTS _fmts)
    string(REGEX REPLACE ".*\\(([A-Za-z0-9_]+)\\)" "\\1" _f "${_f}")
    list(APPEND _funcs osSave${_f}Begin osSave${_f}Column osSave${_f}Item osSave${_f}End)
  endforeach()
endforeach()
# The fault-injection switch lives in the test archive only.
list(FILTER _funcs EXCLUDE REGEX "^(zbshr_inject_fault|zbshr_clear_faults)$")
list(REMOVE_DUPLICATES _funcs)
list(SORT _funcs)
list(REMOVE_DUPLICATES _data)
list(SORT _data)

set(_def "; Generated from include/zbshr/*.h\nLIBRARY ZBSHR050.dll\nEXPORTS\n")
foreach(_n IN LISTS _funcs)
  string(APPEND _def "    ${_n}\n")
endforeach()
foreach(_n IN LISTS _data)
  string(APPEND _def "    ${_n} DATA\n")
endforeach()
set(ZBSHR_DEF_FILE "${PROJECT_BINARY_DIR}/ZBSHR050.def")
file(CONFIGURE OUTPUT "${ZBSHR_DEF_FILE}" CONTENT "${_def}")

target_sources(zbshr PRIVATE "${ZBSHR_DEF_FILE}" "${PROJECT_SOURCE_DIR}/src/platform/win32/dll/dllmain.cpp")
set_target_properties(zbshr PROPERTIES OUTPUT_NAME ZBSHR050 PREFIX "" IMPORT_PREFIX "lib"
                                       IMPORT_SUFFIX ".dll.a")
if(CMAKE_SIZEOF_VOID_P EQUAL 4)
  # The import library maps the decorated names callers reference
  # (_AddDecimal@12) to the plain exported ones.
  target_link_options(zbshr PRIVATE "LINKER:--enable-stdcall-fixup" "LINKER:--kill-at")
endif()
