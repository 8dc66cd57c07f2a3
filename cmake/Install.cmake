include(CMakePackageConfigHelpers)

install(TARGETS pelmor EXPORT pelmorTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} NAMELINK_COMPONENT Development
  PUBLIC_HEADER DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})

install(EXPORT pelmorTargets
  NAMESPACE pelmor::
  DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/pelmor)

configure_package_config_file(${PROJECT_SOURCE_DIR}/cmake/pelmorConfig.cmake.in
  ${PROJECT_BINARY_DIR}/pelmorConfig.cmake
  INSTALL_DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/pelmor)
write_basic_package_version_file(${PROJECT_BINARY_DIR}/pelmorConfigVersion.cmake
  VERSION ${PROJECT_VERSION} COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/pelmorConfig.cmake ${PROJECT_BINARY_DIR}/pelmorConfigVersion.cmake
  DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/pelmor)

# Relocatable: the prefix is found from the .pc file's own place.
file(RELATIVE_PATH PELMOR_PC_TO_PREFIX /root/${CMAKE_INSTALL_LIBDIR}/pkgconfig /root)
configure_file(${PROJECT_SOURCE_DIR}/cmake/pelmor.pc.in ${PROJECT_BINARY_DIR}/pelmor.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/pelmor.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
