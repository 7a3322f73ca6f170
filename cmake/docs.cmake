# The target `docs`: the API reference in docs/api of the build, where Doxygen is installed.
configure_file(docs/Doxyfile.in ${PROJECT_BINARY_DIR}/Doxyfile @ONLY)
find_program(DOXYGEN doxygen)
if(DOXYGEN)
    add_custom_target(docs
        COMMAND ${CMAKE_COMMAND} -E make_directory ${PROJECT_BINARY_DIR}/docs
        COMMAND ${DOXYGEN} ${PROJECT_BINARY_DIR}/Doxyfile
        VERBATIM)
endif()
