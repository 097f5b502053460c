# Windows cross builds run their test programs under Wine: a wrapper script in
# the build folder, with a Wine prefix of its own, becomes the emulator that
# CTest, test discovery and the Python-driven tests use. The 64-bit loader
# runs x86-64 programs, the 32-bit one (package wine32) i686 programs.

# zbshr_program_command(<var> <target>): the command that runs a program of
# this build from a script (the Python-driven tests). In a Windows cross build
# it is a launcher that runs the program under Wine and gives its text output
# with LF line ends; otherwise the program itself.
function(zbshr_program_command var target)
  if(WIN32 AND CMAKE_CROSSCOMPILING)
    set(_launcher "${PROJECT_BINARY_DIR}/run-${target}.sh")
    file(GENERATE OUTPUT "${_launcher}"
         CONTENT "#!/bin/bash\n# Runs ${target} under Wine; CRLF line ends become LF.\nset -o pipefail\n\"${PROJECT_BINARY_DIR}/wine-run.sh\" \"$<TARGET_FILE:${target}>\" \"$@\" | sed 's/\\r$//'\n"
         FILE_PERMISSIONS OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)
    set(${var} "${_launcher}" PARENT_SCOPE)
  else()
    set(${var} "$<TARGET_FILE:${target}>" PARENT_SCOPE)
  endif()
endfunction()

if(NOT (WIN32 AND CMAKE_CROSSCOMPILING))
  return()
endif()

if(CMAKE_SIZEOF_VOID_P EQUAL 8)
  set(ZBSHR_WINE_LOADER /usr/lib/wine/wine64)
  set(ZBSHR_WINE_SERVER /usr/lib/wine/wineserver64)
  set(ZBSHR_WINE_ARCH_LINE "WINEARCH=win64; export WINEARCH")
  set(ZBSHR_WINE_PACKAGE "wine64")
else()
  set(ZBSHR_WINE_LOADER /usr/lib/wine/wine)
  set(ZBSHR_WINE_SERVER /usr/lib/wine/wineserver32)
  set(ZBSHR_WINE_ARCH_LINE "WINEARCH=win32; export WINEARCH")
  set(ZBSHR_WINE_PACKAGE "wine32:i386")
endif()
set(ZBSHR_WINE_PREFIX "${PROJECT_BINARY_DIR}/wineprefix")
configure_file("${PROJECT_SOURCE_DIR}/cmake/wine-run.sh.in" "${PROJECT_BINARY_DIR}/wine-run.sh"
               @ONLY FILE_PERMISSIONS OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE
               WORLD_READ WORLD_EXECUTE)
if(NOT CMAKE_CROSSCOMPILING_EMULATOR)
  set(CMAKE_CROSSCOMPILING_EMULATOR "${PROJECT_BINARY_DIR}/wine-run.sh")
endif()
if(NOT EXISTS "${ZBSHR_WINE_LOADER}")
  message(WARNING "${ZBSHR_WINE_LOADER} is missing (package ${ZBSHR_WINE_PACKAGE}): "
                  "the Windows programs build, but their tests cannot run")
endif()

# GoogleTest is built from the sources Debian ships (package googletest),
# with this toolchain, as part of the build.
if(ZBSHR_BUILD_TESTS AND NOT TARGET GTest::gtest)
  set(ZBSHR_GTEST_SOURCE "/usr/src/googletest" CACHE PATH "GoogleTest sources for cross builds")
  set(BUILD_GMOCK OFF CACHE BOOL "" FORCE)
  set(INSTALL_GTEST OFF CACHE BOOL "" FORCE)
  set(gtest_force_shared_crt ON CACHE BOOL "" FORCE)
  add_subdirectory("${ZBSHR_GTEST_SOURCE}" "${PROJECT_BINARY_DIR}/googletest" EXCLUDE_FROM_ALL SYSTEM)
  foreach(_t gtest gtest_main)
    if(NOT TARGET GTest::${_t})
      add_library(GTest::${_t} ALIAS ${_t})
    endif()
  endforeach()
  set(GTest_FOUND TRUE)
endif()

