# The Debian packages, made by cpack: one for each component of cmake/install.cmake. They depend on what dpkg-shlibdeps finds
# in the programs and the library; the development files on exactly the library they came with.
set(CLOUDTUNNEL_MAINTAINER "libcloudtunnel maintainers <maintainers@libcloudtunnel.invalid>" CACHE STRING
  "who answers for the packages: Name <address>")
set(package_revision 1)
set(package_version ${PROJECT_VERSION}-${package_revision})

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME ${PROJECT_NAME})
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_CONTACT ${CLOUDTUNNEL_MAINTAINER})
set(CPACK_PACKAGE_DIRECTORY ${CMAKE_BINARY_DIR})
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_INSTALL_DEFAULT_DIRECTORY_PERMISSIONS
  OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)
set(CPACK_STRIP_FILES ON)
set(CPACK_COMPONENTS_ALL runtime development tools)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_RELEASE ${package_revision})
set(CPACK_DEBIAN_PACKAGE_SOURCE ${PROJECT_NAME})
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)

set(about "Processes on a network device load this library to open tunnels to the
cloud management platform and to keep them. They drive its loop and timers.")

set(CPACK_DEBIAN_RUNTIME_PACKAGE_NAME libcloudtunnel1)
set(CPACK_DEBIAN_RUNTIME_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_RUNTIME_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_RUNTIME_PACKAGE_CONTROL_EXTRA ${PROJECT_SOURCE_DIR}/packaging/debian/triggers)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS_POLICY ">=")
set(CPACK_COMPONENT_RUNTIME_DESCRIPTION "${about}\n\nThis is what a program needs to run.")

set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_NAME libcloudtunnel-dev)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_DEPENDS
  "libcloudtunnel1 (= ${package_version}), libssl-dev, libjson-c-dev")
set(CPACK_COMPONENT_DEVELOPMENT_DESCRIPTION
  "${about}\n\nFor building programs: the headers, the static libraries, the files for\npkg-config and CMake, man pages and examples.")

set(CPACK_DEBIAN_TOOLS_PACKAGE_NAME cloudtunnel-tools)
set(CPACK_DEBIAN_TOOLS_PACKAGE_SECTION net)
set(CPACK_DEBIAN_TOOLS_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${CMAKE_BINARY_DIR}) # the library of the build, for the programs' sake
set(CPACK_DEBIAN_TOOLS_PACKAGE_DEPENDS "libcloudtunnel1 (>= ${PROJECT_VERSION})")
set(CPACK_COMPONENT_TOOLS_DESCRIPTION
  "${about}\n\ncloudtunnel-module is a module process, cloudtunnel-sim a simulator of the\nplatform and the daemon; cloudtunnel-explain tells from a log what became of\neach tunnel. A module for OpenSSL's configuration has the\ncertificate of the platform checked.")

# ---------------------------------------------------------------------------------------------------------- documents
# The documents that every Debian package contains. The day of the release comes from the change log.
file(STRINGS CHANGELOG.md released REGEX "^## \\[${PROJECT_VERSION}\\] - ")
string(REGEX REPLACE ".* - " "" released "${released}")
execute_process(COMMAND date -u -R -d "${released}" OUTPUT_VARIABLE release_date OUTPUT_STRIP_TRAILING_WHITESPACE
  COMMAND_ERROR_IS_FATAL ANY)
set(documents ${CMAKE_CURRENT_BINARY_DIR}/debian)
configure_file(packaging/debian/changelog.in ${documents}/changelog.Debian @ONLY)
configure_file(packaging/debian/copyright ${documents}/copyright COPYONLY)
configure_file(CHANGELOG.md ${documents}/changelog COPYONLY)
set(CPACK_PRE_BUILD_SCRIPTS ${PROJECT_SOURCE_DIR}/packaging/debian/documents.cmake)
set(CPACK_CLOUDTUNNEL_DOCUMENTS ${documents})
include(CPack)
