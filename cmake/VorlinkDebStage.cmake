# Run by CPack between its install into the staging directory and the making
# of the Debian packages (CPACK_PRE_BUILD_SCRIPTS): gives each package its
# copyright file and changelog, and takes from the tool and the Python
# extension the RPATH they carry
# for `cmake --install` into any prefix. The packaged library lives in a
# system directory, where the loader finds it without one. The library's
# symbols file comes from packaging/libvorlinkN.symbols.gz, through
# dpkg-gensymbols, which fails when a symbol listed there is gone.
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

# The development files' lintian overrides, each with its reason.
set(_overrides ${CPACK_TEMPORARY_DIRECTORY}/development${CPACK_PACKAGING_INSTALL_PREFIX}/share/lintian/overrides)
file(MAKE_DIRECTORY ${_overrides})
file(COPY_FILE ${_src}/libvorlink-dev.lintian-overrides ${_overrides}/libvorlink-dev)

file(GLOB _tools ${CPACK_TEMPORARY_DIRECTORY}/tools${CPACK_PACKAGING_INSTALL_PREFIX}/${CPACK_VORLINK_BINDIR}/*)
file(GLOB_RECURSE _extensions ${CPACK_TEMPORARY_DIRECTORY}/python/*.so)
list(APPEND _tools ${_extensions})
foreach(_tool IN LISTS _tools)
    file(RPATH_REMOVE FILE ${_tool})
endforeach()

set(_library ${CPACK_TEMPORARY_DIRECTORY}/runtime${CPACK_PACKAGING_INSTALL_PREFIX}/${CPACK_VORLINK_LIBRARY})
if(NOT EXISTS ${CPACK_VORLINK_SYMBOLS})
    message(FATAL_ERROR "${CPACK_VORLINK_SYMBOLS} is missing: a new major version needs its symbols file "
        "(cmake --build BUILD --target update-symbols)")
endif()
get_filename_component(_out_dir ${CPACK_VORLINK_SYMBOLS_OUT} DIRECTORY)
file(MAKE_DIRECTORY ${_out_dir})
execute_process(
    COMMAND ${CPACK_VORLINK_PYTHON} ${CPACK_VORLINK_SOURCE_DIR}/scripts/symbols check ${_library}
        ${CPACK_VORLINK_SYMBOLS} ${_version} ${CPACK_VORLINK_SYMBOLS_OUT}
    RESULT_VARIABLE _status)
if(NOT _status EQUAL 0)
    message(FATAL_ERROR "the library lost symbols of ${CPACK_VORLINK_SYMBOLS}")
endif()
