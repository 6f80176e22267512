# The target `docs`: Doxygen's reference of the public header, and a check of the tests that a page names. It is not part
# of the default build.
find_program(DOXYGEN doxygen)
if(NOT DOXYGEN)
  message(STATUS "doxygen not found: the target 'docs' is left out")
  return()
endif()

set(DOXYFILE ${CMAKE_CURRENT_BINARY_DIR}/Doxyfile)
configure_file(docs/Doxyfile.in ${DOXYFILE} @ONLY)
set(NAMED_TESTS ${PROJECT_SOURCE_DIR}/scripts/named-tests.sh
  ${PROJECT_SOURCE_DIR}/docs/integration.md ${PROJECT_SOURCE_DIR}/tests/module)
add_custom_target(docs COMMAND ${DOXYGEN} ${DOXYFILE} COMMAND ${NAMED_TESTS} VERBATIM)
