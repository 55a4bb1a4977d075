# API pages: the target `docs` writes them to api/html in the build folder.
find_program(DORADO_DOXYGEN doxygen)
set(DORADO_API_DIR ${PROJECT_BINARY_DIR}/api)
configure_file(docs/Doxyfile.in ${PROJECT_BINARY_DIR}/Doxyfile @ONLY)
if(DORADO_DOXYGEN)
    file(MAKE_DIRECTORY ${DORADO_API_DIR})
    add_custom_target(docs COMMAND ${DORADO_DOXYGEN} ${PROJECT_BINARY_DIR}/Doxyfile
                      WORKING_DIRECTORY ${PROJECT_SOURCE_DIR} VERBATIM)
endif()
