# SPDX-FileCopyrightText: the tcpinputplugin2 authors
# SPDX-License-Identifier: MIT

# The library, the headers that hosts share with it, the programs, the documents, and for those who
# build hosts the CMake package TcpInputPlugin2 and tcpinputplugin2.pc.
include(CMakePackageConfigHelpers)
set(package_dir ${CMAKE_INSTALL_LIBDIR}/cmake/TcpInputPlugin2)

install(TARGETS tcpinputplugin2 LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR})
install(FILES ${TCPINPUT_FRAMEWORK_HEADERS}
    DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/tcpinputplugin2/plugin)
install(FILES ${TCPINPUT_KIT_HEADERS}
    DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/tcpinputplugin2/plugin/kit)
if(TCPINPUT_BUILD_PROGRAMS)
    install(TARGETS inputhost devicesim devicecat hostcheck RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
endif()

set(kit_recorder "")
if(TCPINPUT_BUILD_PROGRAMS)
    set(kit_recorder tcpinput_host_recording)
    install(FILES plugin/recording/trafficrecorder.h
        DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/tcpinputplugin2/plugin/recording)
endif()
install(TARGETS tcpinput_framework tcpinput_host_framework ${kit_recorder} EXPORT TcpInputPlugin2Targets
    ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR})
install(EXPORT TcpInputPlugin2Targets NAMESPACE TcpInputPlugin2:: DESTINATION ${package_dir})
configure_package_config_file(cmake/TcpInputPlugin2Config.cmake.in
    ${CMAKE_CURRENT_BINARY_DIR}/TcpInputPlugin2Config.cmake
    INSTALL_DESTINATION ${package_dir}
    PATH_VARS CMAKE_INSTALL_LIBDIR)
# A host and the library share classes: only the same major version fits.
write_basic_package_version_file(${CMAKE_CURRENT_BINARY_DIR}/TcpInputPlugin2ConfigVersion.cmake
    COMPATIBILITY SameMajorVersion)
install(FILES
    ${CMAKE_CURRENT_BINARY_DIR}/TcpInputPlugin2Config.cmake
    ${CMAKE_CURRENT_BINARY_DIR}/TcpInputPlugin2ConfigVersion.cmake
    DESTINATION ${package_dir})

# Its paths begin at the file itself, so that the installed tree can be moved.
file(RELATIVE_PATH TCPINPUT_PREFIX_FROM_PC
    ${CMAKE_INSTALL_FULL_LIBDIR}/pkgconfig ${CMAKE_INSTALL_PREFIX})
configure_file(cmake/tcpinputplugin2.pc.in ${CMAKE_CURRENT_BINARY_DIR}/tcpinputplugin2.pc @ONLY)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/tcpinputplugin2.pc
    DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)

file(GLOB documents CONFIGURE_DEPENDS docs/*.md)
install(FILES README.md LICENSE DESTINATION ${CMAKE_INSTALL_DOCDIR})
install(FILES ${documents} DESTINATION ${CMAKE_INSTALL_DOCDIR}/docs) # as the README refers to them
file(GLOB examples CONFIGURE_DEPENDS examples/*)
install(FILES ${examples} DESTINATION ${CMAKE_INSTALL_DOCDIR}/examples)
install(PROGRAMS scripts/make-certs DESTINATION ${CMAKE_INSTALL_DATADIR}/tcpinputplugin2)
