# SPDX-FileCopyrightText: the tcpinputplugin2 authors
# SPDX-License-Identifier: MIT

# The library, the headers that hosts share with it, the programs, and the CMake package
# TcpInputPlugin2 with the target TcpInputPlugin2::framework for hosts.
include(CMakePackageConfigHelpers)
set(package_dir ${CMAKE_INSTALL_LIBDIR}/cmake/TcpInputPlugin2)

install(TARGETS tcpinputplugin2 LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR})
install(FILES ${TCPINPUT_FRAMEWORK_HEADERS}
    DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/tcpinputplugin2/plugin)
if(TCPINPUT_BUILD_PROGRAMS)
    install(TARGETS inputhost devicesim RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
endif()

install(TARGETS tcpinput_host_framework EXPORT TcpInputPlugin2Targets)
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
