# Debian packages of the install rules, split the way Debian splits a library:
#   libvorlinkN     (component runtime)      libVorlink.so.N and its real file, N the
#                   major version: a new major version is a new soname and package
#   libvorlink-dev  (component development)  headers, the libVorlink.so link,
#                   libBytra.a, the CMake package, the pkg-config file, the schema,
#                   the API reference and CHANGELOG.md
#   vorlink-tools   (component tools)        the vorlink command and its manual pages
#   python3-vorlink (component python)       the Python package vorlink
# `scripts/package` builds them; `cpack -G DEB` in a build tree does the same.

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME vorlink)
set(CPACK_PACKAGE_VENDOR "Vorlink developers")
set(CPACK_PACKAGE_CONTACT "Vorlink developers <dev@vorlink.invalid>")
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
# The binaries are stripped as their debugging information goes into the
# -dbgsym packages below; CPack strips only what it has split.
set(CPACK_STRIP_FILES OFF)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_COMPONENTS_ALL runtime development tools)
if(VORLINK_BUILD_PYTHON)
    list(APPEND CPACK_COMPONENTS_ALL python)
endif()
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_RELEASE 1)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
# The tool's libVorlink.so.N is not installed yet when its dependencies are
# worked out: take it from the build tree. The package dependency on
# libvorlinkN comes from the component dependency below.
get_target_property(_vorlink_build_dir Vorlink BINARY_DIR)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${_vorlink_build_dir})
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS_POLICY ">=")
set(CPACK_DEBIAN_ENABLE_COMPONENT_DEPENDS ON)

set(CPACK_COMPONENT_DEVELOPMENT_DEPENDS runtime)
set(CPACK_COMPONENT_TOOLS_DEPENDS runtime)
set(CPACK_COMPONENT_PYTHON_DEPENDS runtime)

set(_vorlink_about "Vorlink is the message dictionary of the dialysis machine's internal CAN
bus: it turns a received message into a typed record, wire bytes, protobuf
bytes with a header, a one-line dump, and names and sizes by id.")

set(_vorlink_soname libVorlink.so.${PROJECT_VERSION_MAJOR})
set(CPACK_DEBIAN_RUNTIME_PACKAGE_NAME libvorlink${PROJECT_VERSION_MAJOR})
set(CPACK_DEBIAN_RUNTIME_PACKAGE_SECTION libs)
# dpkg's ldconfig trigger refreshes the loader cache, as Debian wants. CPack
# also writes a postinst and postrm that call ldconfig themselves; lintian
# warns about those, and they are harmless. The symbols file is made from
# packaging/libvorlinkN.symbols.gz by VorlinkDebStage.cmake, which fails when a
# symbol of it is no longer exported.
set(CPACK_VORLINK_SYMBOLS_OUT ${PROJECT_BINARY_DIR}/packaging/symbols)
set(CPACK_DEBIAN_RUNTIME_PACKAGE_CONTROL_EXTRA ${PROJECT_SOURCE_DIR}/packaging/triggers ${CPACK_VORLINK_SYMBOLS_OUT})
# The library, the tool and the Python extension ship stripped; their
# debugging information goes into libvorlinkN-dbgsym, vorlink-tools-dbgsym and
# python3-vorlink-dbgsym (.ddeb), under /usr/lib/debug/.build-id/, where gdb
# finds it by the binary's build id.
set(CPACK_DEBIAN_RUNTIME_DEBUGINFO_PACKAGE ON)
set(CPACK_DEBIAN_TOOLS_DEBUGINFO_PACKAGE ON)
set(CPACK_DEBIAN_PYTHON_DEBUGINFO_PACKAGE ON)
set(CPACK_DEBIAN_RUNTIME_DESCRIPTION "message dictionary of the dialysis machine's CAN bus
${_vorlink_about}
.
This package holds the shared library ${_vorlink_soname}.")

set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_NAME libvorlink-dev)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_SECTION libdevel)
# The CMake package and the pkg-config file ask for Qt 5 Core and protobuf.
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_DEPENDS "qtbase5-dev, libprotobuf-dev")
set(CPACK_DEBIAN_DEVELOPMENT_DESCRIPTION "message dictionary of the dialysis machine's CAN bus - development files
${_vorlink_about}
.
This package holds what a host program builds with: the headers, the
libVorlink.so link, the static libBytra.a the library links publicly, the
CMake package Vorlink::Vorlink, the pkg-config file vorlink and the schema
ZelkoMsgDefs.proto; and for the nodes' firmware the C99 header
vorlink_messages.h, CMake target Vorlink::Firmware.")

set(CPACK_DEBIAN_TOOLS_PACKAGE_NAME vorlink-tools)
set(CPACK_DEBIAN_TOOLS_PACKAGE_SECTION utils)
set(CPACK_DEBIAN_TOOLS_DESCRIPTION "message dictionary of the dialysis machine's CAN bus - command-line tool
${_vorlink_about}
.
This package holds the vorlink command: it decodes bus logs to dump lines,
JSON, protobuf text or binary, encodes them back, lists the dictionary and
writes synthetic logs.")

set(CPACK_DEBIAN_PYTHON_PACKAGE_NAME python3-vorlink)
set(CPACK_DEBIAN_PYTHON_PACKAGE_SECTION python)
# The extension is built for this interpreter's version; numpy only for MessageType.dtype.
math(EXPR _python_next "${Python3_VERSION_MINOR} + 1")
set(CPACK_DEBIAN_PYTHON_PACKAGE_DEPENDS
    "python3 (>= ${Python3_VERSION_MAJOR}.${Python3_VERSION_MINOR}), python3 (<< ${Python3_VERSION_MAJOR}.${_python_next})")
set(CPACK_DEBIAN_PYTHON_PACKAGE_RECOMMENDS "python3-numpy")
set(CPACK_DEBIAN_PYTHON_DESCRIPTION "message dictionary of the dialysis machine's CAN bus - Python 3 module
${_vorlink_about}
.
This package holds the Python module vorlink: the dictionary's message
types, decode and encode of records, and the protobuf bridge, with type
stubs.")

# After the install into the staging directory: each package gets its
# copyright and changelog, and the tool and the Python extension lose the
# RPATH they carry for `cmake --install` (the packaged library lives in a
# system directory).
set(CPACK_VORLINK_SOURCE_DIR ${PROJECT_SOURCE_DIR})
set(CPACK_VORLINK_BINDIR ${CMAKE_INSTALL_BINDIR})
set(CPACK_VORLINK_LIBRARY ${CMAKE_INSTALL_LIBDIR}/libVorlink.so.${PROJECT_VERSION})
set(CPACK_VORLINK_SYMBOLS ${VORLINK_SYMBOLS})
set(CPACK_VORLINK_PYTHON ${Python3_EXECUTABLE})
set(CPACK_PRE_BUILD_SCRIPTS ${PROJECT_SOURCE_DIR}/cmake/VorlinkDebStage.cmake)

# Everything the packages hold, and nothing else: what scripts/package builds
# before CPack, so that it works in a fresh tree without the tests.
add_custom_target(package-contents)
add_dependencies(package-contents Vorlink Bytra docs)
foreach(_target vorlink vorlink-man _vorlink vorlink_python_package)
    if(TARGET ${_target})
        add_dependencies(package-contents ${_target})
    endif()
endforeach()

include(CPack)
