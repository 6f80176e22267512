# The target `docs`: Doxygen's reference of the public header. It is not part of the default build.
find_program(DOXYGEN doxygen)
if(NOT DOXYGEN)
  message(STATUS "doxygen not found: the target 'docs' is left out")
  return()
endif()

set(DOXYFILE ${CMAKE_CURRENT_BINARY_DIR}/Doxyfile)
configure_file(docs/Doxyfile.in ${DOXYFILE} @ONLY)
add_custom_target(docs COMMAND ${DOXYGEN} ${DOXYFILE} VERBATIM)
