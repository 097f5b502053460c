include(CMakePackageConfigHelpers)
install(TARGETS zbshr zbshr_static EXPORT zbshrTargets
        LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
        ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR}
        RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR}
        INCLUDES DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
install(DIRECTORY include/zbshr DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
install(EXPORT zbshrTargets NAMESPACE zbshr:: DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/zbshr)
configure_package_config_file(cmake/zbshrConfig.cmake.in
    ${CMAKE_CURRENT_BINARY_DIR}/zbshrConfig.cmake
    INSTALL_DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/zbshr)
write_basic_package_version_file(${CMAKE_CURRENT_BINARY_DIR}/zbshrConfigVersion.cmake
    VERSION ${PROJECT_VERSION} COMPATIBILITY SameMajorVersion)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/zbshrConfig.cmake
              ${CMAKE_CURRENT_BINARY_DIR}/zbshrConfigVersion.cmake
        DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/zbshr)
# The .pc file finds the prefix relative to itself, so an installed tree can be moved.
file(RELATIVE_PATH ZBSHR_PC_UP "/root/${CMAKE_INSTALL_LIBDIR}/pkgconfig" "/root")
configure_file(cmake/zbshr.pc.in ${CMAKE_CURRENT_BINARY_DIR}/zbshr.pc @ONLY)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/zbshr.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
if(TARGET zbshr_cli)
  install(TARGETS zbshr_cli RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
endif()

# The program's manual page and bash completion (tools/CMakeLists.txt makes
# the page with help2man when it can), and the documents.
if(TARGET zbshr_cli)
  install(FILES "${PROJECT_SOURCE_DIR}/tools/zbshr.bash-completion"
          DESTINATION ${CMAKE_INSTALL_DATADIR}/bash-completion/completions RENAME zbshr)
  if(ZBSHR_MAN_PAGE)
    install(FILES "${ZBSHR_MAN_PAGE}" DESTINATION ${CMAKE_INSTALL_MANDIR}/man1)
  endif()
endif()
install(FILES README.md DESTINATION ${CMAKE_INSTALL_DOCDIR})
install(DIRECTORY docs/ DESTINATION ${CMAKE_INSTALL_DOCDIR} FILES_MATCHING PATTERN "*.md")

# `cpack -G DEB` (from the build folder) makes one Debian package with the
# libraries, headers, CMake and pkg-config files, the program, its manual page
# and completion.
set(CPACK_PACKAGE_NAME zbshr)
set(CPACK_PACKAGE_VENDOR "zbshr developers")
set(CPACK_PACKAGE_CONTACT "zbshr developers <zbshr@localhost>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "Shared services library (C API) and the zbshr program")
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_GENERATOR DEB)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_PACKAGE_DEPENDS "libc6 (>= 2.34), libstdc++6 (>= 12), libgcc-s1")
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
include(CPack)
