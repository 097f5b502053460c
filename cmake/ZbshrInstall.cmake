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
