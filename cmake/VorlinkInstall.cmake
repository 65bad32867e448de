# Install rules: the library with its soname links, its public headers (the
# Bytra platform headers they include among them), the schema, a CMake package
# exporting Vorlink::Vorlink, a pkg-config file, and the vorlink tool.

include(CMakePackageConfigHelpers)

set(VORLINK_CMAKE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/Vorlink)
get_filename_component(_vorlink_gen_dir ${VORLINK_GENERATED_SCHEMA} DIRECTORY)

# Bytra is a static library linked PUBLIC into Vorlink: hosts that instantiate
# its getValue template need it too, so it travels with the package.
set_target_properties(Bytra PROPERTIES EXPORT_NAME Bytra)
install(TARGETS Vorlink Bytra
    EXPORT VorlinkTargets
    LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT runtime NAMELINK_COMPONENT development
    ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT development
    INCLUDES DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})

install(FILES
    ${_vorlink_gen_dir}/ZelkoMsgDefs.h
    ${_vorlink_gen_dir}/ZelkoMsgProtoUtils.h
    ${_vorlink_gen_dir}/ZelkoMsgRowList.h
    ${_vorlink_gen_dir}/ZelkoMsgDefs.pb.h
    ${_vorlink_gen_dir}/VorlinkVersion.h
    ${PROJECT_SOURCE_DIR}/lib/Vorlink/src/VorlinkExport.h
    DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/Vorlink COMPONENT development)
install(DIRECTORY ${PROJECT_SOURCE_DIR}/lib/Bytra/include/Bytra
    DESTINATION ${CMAKE_INSTALL_INCLUDEDIR} COMPONENT development
    FILES_MATCHING PATTERN "*.h")
install(FILES ${VORLINK_GENERATED_SCHEMA}
    DESTINATION ${CMAKE_INSTALL_DATADIR}/vorlink/proto COMPONENT development)

install(EXPORT VorlinkTargets
    NAMESPACE Vorlink::
    DESTINATION ${VORLINK_CMAKE_DIR} COMPONENT development)

# The nodes' firmware: vorlink_messages.h and Vorlink::Firmware, an INTERFACE
# target with its include directory only, exported apart from the library so
# that it needs neither Qt nor protobuf.
install(FILES ${VORLINK_FIRMWARE_HEADER}
    DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/Vorlink COMPONENT development)
set_target_properties(VorlinkFirmware PROPERTIES EXPORT_NAME Firmware)
install(TARGETS VorlinkFirmware EXPORT VorlinkFirmwareTargets)
install(EXPORT VorlinkFirmwareTargets
    NAMESPACE Vorlink::
    DESTINATION ${VORLINK_CMAKE_DIR} COMPONENT development)

file(WRITE ${PROJECT_BINARY_DIR}/VorlinkConfig.cmake.in [=[
@PACKAGE_INIT@

# Firmware: vorlink_messages.h alone, for any C compiler. Asked for alone
# (find_package(Vorlink COMPONENTS Firmware)), nothing else is looked for.
include("${CMAKE_CURRENT_LIST_DIR}/VorlinkFirmwareTargets.cmake")
set(Vorlink_Firmware_FOUND TRUE)
if(Vorlink_FIND_COMPONENTS STREQUAL "Firmware")
    set_and_check(Vorlink_INCLUDE_DIR "@PACKAGE_CMAKE_INSTALL_INCLUDEDIR@/Vorlink")
    check_required_components(Vorlink)
    return()
endif()

include(CMakeFindDependencyMacro)
find_dependency(Qt5 @Qt5_VERSION_MAJOR@.@Qt5_VERSION_MINOR@ COMPONENTS Core)
find_dependency(Protobuf)

include("${CMAKE_CURRENT_LIST_DIR}/VorlinkTargets.cmake")
set(Vorlink_Host_FOUND TRUE)
set_and_check(Vorlink_INCLUDE_DIR "@PACKAGE_CMAKE_INSTALL_INCLUDEDIR@/Vorlink")
set_and_check(Vorlink_PROTO_DIR "@PACKAGE_CMAKE_INSTALL_DATADIR@/vorlink/proto")
check_required_components(Vorlink)
]=])
configure_package_config_file(${PROJECT_BINARY_DIR}/VorlinkConfig.cmake.in
    ${PROJECT_BINARY_DIR}/VorlinkConfig.cmake
    INSTALL_DESTINATION ${VORLINK_CMAKE_DIR}
    PATH_VARS CMAKE_INSTALL_INCLUDEDIR CMAKE_INSTALL_DATADIR)
write_basic_package_version_file(${PROJECT_BINARY_DIR}/VorlinkConfigVersion.cmake
    VERSION ${PROJECT_VERSION}
    COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/VorlinkConfig.cmake ${PROJECT_BINARY_DIR}/VorlinkConfigVersion.cmake
    DESTINATION ${VORLINK_CMAKE_DIR} COMPONENT development)

# pkg-config: prefix-relative, so the installed tree can be moved. Qt 5 is
# built with -reduce-relocations, and its headers refuse code that is not
# position independent: -fPIC is part of what a host compiles with.
file(WRITE ${PROJECT_BINARY_DIR}/vorlink.pc.in [=[
prefix=${pcfiledir}/../..
exec_prefix=${prefix}
libdir=${prefix}/@CMAKE_INSTALL_LIBDIR@
includedir=${prefix}/@CMAKE_INSTALL_INCLUDEDIR@
protodir=${prefix}/@CMAKE_INSTALL_DATADIR@/vorlink/proto

Name: Vorlink
Description: Message dictionary of the dialysis machine's CAN bus
Version: @PROJECT_VERSION@
Requires: Qt5Core protobuf
Libs: -L${libdir} -lVorlink -lBytra
Cflags: -I${includedir}/Vorlink -I${includedir} -fPIC
]=])
configure_file(${PROJECT_BINARY_DIR}/vorlink.pc.in ${PROJECT_BINARY_DIR}/vorlink.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/vorlink.pc
    DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig COMPONENT development)

if(TARGET vorlink)
    install(TARGETS vorlink RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT tools)
endif()
