# The API reference: Doxygen over the installed headers and the pages of
# docs/reference, into <build>/docs/html, whenever a header changes (a few
# seconds). Anything undocumented in them fails the build. Installed with the
# development files, beside CHANGELOG.md.

find_program(DOXYGEN_EXECUTABLE doxygen REQUIRED)
get_filename_component(_vorlink_gen_dir ${VORLINK_GENERATED_SCHEMA} DIRECTORY)
set(VORLINK_DOCS_DIR ${PROJECT_BINARY_DIR}/docs)
set(_vorlink_doc_headers
    ${_vorlink_gen_dir}/ZelkoMsgDefs.h
    ${_vorlink_gen_dir}/ZelkoMsgProtoUtils.h
    ${_vorlink_gen_dir}/ZelkoMsgRowList.h
    ${_vorlink_gen_dir}/VorlinkVersion.h
    ${PROJECT_SOURCE_DIR}/lib/Vorlink/src/VorlinkExport.h)
file(GLOB _vorlink_doc_bytra ${PROJECT_SOURCE_DIR}/lib/Bytra/include/Bytra/*.h)
file(GLOB _vorlink_doc_pages ${PROJECT_SOURCE_DIR}/docs/reference/*.md)
list(JOIN _vorlink_doc_headers " " _inputs)
set(VORLINK_DOCS_INPUT "${_inputs} ${PROJECT_SOURCE_DIR}/lib/Bytra/include/Bytra ${PROJECT_SOURCE_DIR}/docs/reference")
set(VORLINK_DOCS_STRIP "${_vorlink_gen_dir} ${PROJECT_SOURCE_DIR}/lib/Vorlink/src ${PROJECT_SOURCE_DIR}/lib/Bytra/include")
configure_file(${PROJECT_SOURCE_DIR}/docs/reference/Doxyfile.in ${PROJECT_BINARY_DIR}/Doxyfile @ONLY)

add_custom_command(
    OUTPUT ${VORLINK_DOCS_DIR}/html/index.html
    COMMAND ${CMAKE_COMMAND} -E rm -rf ${VORLINK_DOCS_DIR}
    COMMAND ${DOXYGEN_EXECUTABLE} ${PROJECT_BINARY_DIR}/Doxyfile
    DEPENDS ${_vorlink_doc_headers} ${_vorlink_doc_bytra} ${_vorlink_doc_pages} ${PROJECT_BINARY_DIR}/Doxyfile
    COMMENT "Writing the API reference (Doxygen)"
    VERBATIM)
add_custom_target(docs ALL DEPENDS ${VORLINK_DOCS_DIR}/html/index.html)
add_dependencies(docs Vorlink)

install(DIRECTORY ${VORLINK_DOCS_DIR}/html
    DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/libvorlink-dev COMPONENT development)
install(FILES ${PROJECT_SOURCE_DIR}/CHANGELOG.md
    DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/libvorlink-dev COMPONENT development)
