# Consumer files: the CMake package (find_package(libqz_cap CONFIG)) and the
# pkg-config modules. Both are relocatable, so a tree installed with
# `cmake --install --prefix DIR` works from DIR.
include(CMakePackageConfigHelpers)

install(EXPORT libqz_capTargets NAMESPACE libqz_cap:: DESTINATION ${QZCAP_INSTALL_CMAKEDIR}
        COMPONENT development)
install(EXPORT libqz_cap-platformTargets NAMESPACE libqz_cap::
        DESTINATION ${QZCAP_INSTALL_CMAKEDIR} COMPONENT platform-development)

configure_package_config_file(cmake/libqz_capConfig.cmake.in
  ${CMAKE_CURRENT_BINARY_DIR}/libqz_capConfig.cmake
  INSTALL_DESTINATION ${QZCAP_INSTALL_CMAKEDIR})
write_basic_package_version_file(${CMAKE_CURRENT_BINARY_DIR}/libqz_capConfigVersion.cmake
  COMPATIBILITY SameMajorVersion)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/libqz_capConfig.cmake
              ${CMAKE_CURRENT_BINARY_DIR}/libqz_capConfigVersion.cmake
        DESTINATION ${QZCAP_INSTALL_CMAKEDIR} COMPONENT development)

# pkg-config finds the prefix from where the .pc file lies.
set(QZCAP_INSTALL_PKGCONFIGDIR ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
file(RELATIVE_PATH QZCAP_PC_TO_PREFIX /${QZCAP_INSTALL_PKGCONFIGDIR} /)
string(REGEX REPLACE "/$" "" QZCAP_PC_TO_PREFIX "${QZCAP_PC_TO_PREFIX}")
foreach(module libqz_cap libqz_cap-platform)
  configure_file(cmake/${module}.pc.in ${CMAKE_CURRENT_BINARY_DIR}/${module}.pc @ONLY)
endforeach()
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/libqz_cap.pc
        DESTINATION ${QZCAP_INSTALL_PKGCONFIGDIR} COMPONENT development)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/libqz_cap-platform.pc
        DESTINATION ${QZCAP_INSTALL_PKGCONFIGDIR} COMPONENT platform-development)
