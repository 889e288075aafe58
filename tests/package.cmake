# SPDX-FileCopyrightText: the tcpinputplugin2 authors
# SPDX-License-Identifier: MIT

add_test(NAME package
    COMMAND ${CMAKE_CURRENT_SOURCE_DIR}/package/run-test ${CMAKE_BINARY_DIR} ${CMAKE_CXX_COMPILER})
set_tests_properties(package PROPERTIES TIMEOUT 300)
if(TCPINPUT_SANITIZE)
    set_tests_properties(package PROPERTIES
        ENVIRONMENT "MINIMALHOST_FLAGS=-fsanitize=${TCPINPUT_SANITIZE}")
endif()
