# Debian packages (cpack -G DEB in a "device" build):
#   libqz-cap1     the runtime libraries: libqz_cap, the records, the platform stand-ins
#   libqz-cap-dev  headers, .so links, .proto sources, pkg-config and CMake files
#   qzcap-tools    the operators' tools
# Dependencies on system libraries are computed from the binaries
# (dpkg-shlibdeps); those between our own packages are stated.
set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME libqz-cap)
set(CPACK_PACKAGE_VENDOR "The libqz_cap developers")
set(CPACK_PACKAGE_CONTACT "The libqz_cap developers <maintainers@libqz-cap.invalid>")
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_HOMEPAGE_URL "https://libqz-cap.invalid/")
set(CPACK_DEBIAN_PACKAGE_RELEASE 1)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${CMAKE_BINARY_DIR}/proto ${CMAKE_BINARY_DIR}/src
    ${CMAKE_BINARY_DIR}/platform/mom ${CMAKE_BINARY_DIR}/platform/zlog
    ${CMAKE_BINARY_DIR}/platform/kril ${CMAKE_BINARY_DIR}/platform/monotime)
set(CPACK_STRIP_FILES ON)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_COMPONENTS_GROUPING ONE_PER_GROUP)

set(qzcap_deb_version "${PROJECT_VERSION}-${CPACK_DEBIAN_PACKAGE_RELEASE}")

set(CPACK_DEBIAN_LIB_PACKAGE_NAME libqz-cap1)
set(CPACK_DEBIAN_LIB_PACKAGE_SECTION libs)
# ldconfig runs from a trigger, not from maintainer scripts.
set(CPACK_DEBIAN_LIB_PACKAGE_CONTROL_EXTRA ${PROJECT_SOURCE_DIR}/cmake/debian/triggers
    ${PROJECT_SOURCE_DIR}/cmake/debian/postinst ${PROJECT_SOURCE_DIR}/cmake/debian/postrm)
set(CPACK_DEBIAN_LIB_DESCRIPTION
"Capability client library of a modular network device
libqz_cap lets application processes learn what the hardware and the
platform support: boolean, int32 and string capabilities published on the
device's message bus. This package holds the runtime libraries, the record
types and the stand-ins of the platform's bus client, logging service,
debug shell and clock.")

set(CPACK_DEBIAN_DEV_PACKAGE_NAME libqz-cap-dev)
set(CPACK_DEBIAN_DEV_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_DEV_PACKAGE_DEPENDS
    "libqz-cap1 (= ${qzcap_deb_version}), libprotobuf-c-dev, libhiredis-dev")
set(CPACK_DEBIAN_DEV_DESCRIPTION
"Capability client library of a modular network device (development files)
Headers of libqz_cap, its record types and the platform stand-ins, the
protobuf sources of the records, and the pkg-config modules and CMake
package that find them.")

set(CPACK_DEBIAN_TOOLS_PACKAGE_NAME qzcap-tools)
set(CPACK_DEBIAN_TOOLS_PACKAGE_SECTION utils)
set(CPACK_DEBIAN_TOOLS_PACKAGE_DEPENDS "libqz-cap1 (= ${qzcap_deb_version})")
set(CPACK_DEBIAN_TOOLS_DESCRIPTION
"Tools for the capabilities of a modular network device
qzcap publishes, lists, reads and watches capabilities on the device's
message bus; krilsh runs debug-shell commands in a running process.")

include(CPack)
cpack_add_component_group(lib)
cpack_add_component_group(dev)
cpack_add_component_group(tools)
cpack_add_component(runtime GROUP lib)
cpack_add_component(platform GROUP lib)
cpack_add_component(development GROUP dev)
cpack_add_component(platform-development GROUP dev)
cpack_add_component(tools GROUP tools)

# Every package carries its copyright and changelog where Debian expects them.
string(TIMESTAMP qzcap_changelog_date "%a, %d %b %Y %H:%M:%S +0000" UTC)
configure_file(cmake/debian/changelog.in ${CMAKE_BINARY_DIR}/debian/changelog @ONLY)
add_custom_command(OUTPUT ${CMAKE_BINARY_DIR}/debian/changelog.Debian.gz
  COMMAND gzip -9nc ${CMAKE_BINARY_DIR}/debian/changelog > ${CMAKE_BINARY_DIR}/debian/changelog.Debian.gz
  DEPENDS ${CMAKE_BINARY_DIR}/debian/changelog)
add_custom_target(qzcap_debian_changelog ALL DEPENDS ${CMAKE_BINARY_DIR}/debian/changelog.Debian.gz)
foreach(pair runtime:libqz-cap1 development:libqz-cap-dev tools:qzcap-tools)
  string(REPLACE ":" ";" pair ${pair})
  list(GET pair 0 component)
  list(GET pair 1 package)
  install(FILES cmake/debian/copyright DESTINATION ${CMAKE_INSTALL_DATAROOTDIR}/doc/${package}
          RENAME copyright COMPONENT ${component})
  install(FILES ${CMAKE_BINARY_DIR}/debian/changelog.Debian.gz
          DESTINATION ${CMAKE_INSTALL_DATAROOTDIR}/doc/${package} COMPONENT ${component})
endforeach()
