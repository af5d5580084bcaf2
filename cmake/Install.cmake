include(CMakePackageConfigHelpers)

install(TARGETS dischive dischive_shared dischive_catalog dhvapi
  EXPORT dischiveTargets
  ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR}
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
  RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
install(TARGETS dischive_cli RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
install(DIRECTORY include/ DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})

set(DISCHIVE_CMAKE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/dischive)
install(EXPORT dischiveTargets NAMESPACE dischive:: DESTINATION ${DISCHIVE_CMAKE_DIR})
configure_package_config_file(cmake/dischiveConfig.cmake.in
  ${PROJECT_BINARY_DIR}/dischiveConfig.cmake INSTALL_DESTINATION ${DISCHIVE_CMAKE_DIR})
write_basic_package_version_file(${PROJECT_BINARY_DIR}/dischiveConfigVersion.cmake
  COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/dischiveConfig.cmake
              ${PROJECT_BINARY_DIR}/dischiveConfigVersion.cmake
        DESTINATION ${DISCHIVE_CMAKE_DIR})

configure_file(cmake/dischive.pc.in ${PROJECT_BINARY_DIR}/dischive.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/dischive.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
