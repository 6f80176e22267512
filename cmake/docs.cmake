# `docs`: the reference that Doxygen makes of the public header. No part of the build: it is asked for by name.
find_program(DOXYGEN doxygen)
if(NOT DOXYGEN)
  message(STATUS "doxygen not found: the target 'docs' is left out")
  return()
endif()

set(DOXYFILE ${CMAKE_CURRENT_BINARY_DIR}/Doxyfile)
configure_file(docs/Doxyfile.in ${DOXYFILE} @ONLY)
add_custom_target(docs COMMAND ${DOXYGEN} ${DOXYFILE} VERBATIM)
