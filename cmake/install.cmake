# What is installed where, in three components: runtime (what a program needs to run), development (what it takes to
# build one) and tools (the programs). Every path is written relative to the prefix, so the tree may be moved.
include(GNUInstallDirs)
include(CMakePackageConfigHelpers)

# In a private prefix the second library finds the first one beside itself, when it is linked with and when it is loaded;
# a system prefix needs no path (CMAKE_SKIP_INSTALL_RPATH).
set_target_properties(cloudtunnel_module PROPERTIES INSTALL_RPATH "$ORIGIN")
install(TARGETS cloudtunnel cloudtunnel_module EXPORT cloudtunnel-targets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT runtime NAMELINK_COMPONENT development
  INCLUDES DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
install(TARGETS cloudtunnel_static cloudtunnel_module_static EXPORT cloudtunnel-static-targets
  ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT development
  INCLUDES DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
install(FILES include/cloudtunnel.h include/cloudtunnel_module.h DESTINATION ${CMAKE_INSTALL_INCLUDEDIR} COMPONENT development)

# ---------------------------------------------------------------------------------------------------------- pkg-config
set(pkgconfig_dir ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
file(RELATIVE_PATH pc_prefix ${CMAKE_INSTALL_FULL_LIBDIR}/pkgconfig ${CMAKE_INSTALL_PREFIX})
file(RELATIVE_PATH pc_libdir ${CMAKE_INSTALL_PREFIX} ${CMAKE_INSTALL_FULL_LIBDIR})
file(RELATIVE_PATH pc_includedir ${CMAKE_INSTALL_PREFIX} ${CMAKE_INSTALL_FULL_INCLUDEDIR})
configure_file(cmake/cloudtunnel.pc.in cloudtunnel.pc @ONLY)
configure_file(cmake/cloudtunnel-module.pc.in cloudtunnel-module.pc @ONLY)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/cloudtunnel.pc ${CMAKE_CURRENT_BINARY_DIR}/cloudtunnel-module.pc
  DESTINATION ${pkgconfig_dir} COMPONENT development)

# ---------------------------------------------------------------------------------------------------------- CMake package
# The static library has its own list of targets: only a project that asks for it needs the libraries that it needs.
set(package_dir ${CMAKE_INSTALL_LIBDIR}/cmake/cloudtunnel)
install(EXPORT cloudtunnel-targets NAMESPACE cloudtunnel:: DESTINATION ${package_dir} COMPONENT development)
install(EXPORT cloudtunnel-static-targets NAMESPACE cloudtunnel:: DESTINATION ${package_dir} COMPONENT development)
configure_package_config_file(cmake/cloudtunnel-config.cmake.in cloudtunnel-config.cmake
  INSTALL_DESTINATION ${package_dir} NO_SET_AND_CHECK_MACRO)
write_basic_package_version_file(cloudtunnel-config-version.cmake COMPATIBILITY SameMajorVersion)
install(FILES
  ${CMAKE_CURRENT_BINARY_DIR}/cloudtunnel-config.cmake ${CMAKE_CURRENT_BINARY_DIR}/cloudtunnel-config-version.cmake
  DESTINATION ${package_dir} COMPONENT development)

# ---------------------------------------------------------------------------------------------------------- programs
if(CLOUDTUNNEL_BUILD_TOOLS)
  # The program finds the libraries by a relative path, likewise.
  file(RELATIVE_PATH bin_to_lib ${CMAKE_INSTALL_FULL_BINDIR} ${CMAKE_INSTALL_FULL_LIBDIR})
  set_target_properties(cloudtunnel-module PROPERTIES INSTALL_RPATH "$ORIGIN/${bin_to_lib}")
  install(TARGETS cloudtunnel-module RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT tools)
  configure_file(packaging/systemd/cloudtunnel-module.service.in cloudtunnel-module.service @ONLY)
  set(CLOUDTUNNEL_SYSTEMD_UNIT_DIR lib/systemd/system CACHE STRING
    "where systemd's unit of cloudtunnel-module goes; empty: nowhere")
  if(CLOUDTUNNEL_SYSTEMD_UNIT_DIR)
    install(FILES ${CMAKE_CURRENT_BINARY_DIR}/cloudtunnel-module.service
      DESTINATION ${CLOUDTUNNEL_SYSTEMD_UNIT_DIR} COMPONENT tools)
  endif()
  foreach(program cloudtunnel-explain cloudtunnel-sim)
    if(TARGET ${program})
      install(TARGETS ${program} RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT tools)
    endif()
  endforeach()
endif()

# ---------------------------------------------------------------------------------------------------------- trust
add_subdirectory(trust)

# ---------------------------------------------------------------------------------------------------------- descriptions
set(examples CMakeLists.txt minimal_module.c echo_poll.c echo_libuv.c echo_libevent.c echo_glib.c echo_sd_event.c echo_asio.cpp)
list(TRANSFORM examples PREPEND examples/)
install(FILES ${examples} DESTINATION ${CMAKE_INSTALL_DOCDIR}/examples COMPONENT development)
install(PROGRAMS examples/echo.sh examples/echo.py DESTINATION ${CMAKE_INSTALL_DOCDIR}/examples COMPONENT development)
include(cmake/man.cmake)
