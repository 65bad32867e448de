# Run by CPack between its install into the staging directory and the making
# of the Debian packages (CPACK_PRE_BUILD_SCRIPTS): gives each package its
# copyright file and changelog, and takes from the tool and the Python
# extension the RPATH they carry
# for `cmake --install` into any prefix. The packaged library lives in a
# system directory, where the loader finds it without one.
set(_version "${CPACK_PACKAGE_VERSION}-${CPACK_DEBIAN_PACKAGE_RELEASE}")
set(_src ${CPACK_VORLINK_SOURCE_DIR}/packaging)
file(READ ${_src}/changelog.in _changelog)
string(REPLACE "@DEB_VERSION@" "${_version}" _changelog "${_changelog}")

foreach(_component IN LISTS CPACK_COMPONENTS_ALL)
    string(TOUPPER ${_component} _upper)
    set(_root ${CPACK_TEMPORARY_DIRECTORY}/${_component})
    set(_doc ${_root}${CPACK_PACKAGING_INSTALL_PREFIX}/share/doc/${CPACK_DEBIAN_${_upper}_PACKAGE_NAME})
    file(MAKE_DIRECTORY ${_doc})
    file(COPY ${_src}/copyright DESTINATION ${_doc})
    file(WRITE ${_doc}/changelog.Debian "${_changelog}")
    execute_process(COMMAND gzip -9nf ${_doc}/changelog.Debian COMMAND_ERROR_IS_FATAL ANY)
endforeach()

file(GLOB _tools ${CPACK_TEMPORARY_DIRECTORY}/tools${CPACK_PACKAGING_INSTALL_PREFIX}/${CPACK_VORLINK_BINDIR}/*)
file(GLOB_RECURSE _extensions ${CPACK_TEMPORARY_DIRECTORY}/python/*.so)
list(APPEND _tools ${_extensions})
foreach(_tool IN LISTS _tools)
    file(RPATH_REMOVE FILE ${_tool})
endforeach()
