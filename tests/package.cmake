# SPDX-FileCopyrightText: the tcpinputplugin2 authors
# SPDX-License-Identifier: MIT

# What was built; the package's test looks at what is installed.
set(built $<TARGET_FILE:tcpinputplugin2>)
if(TCPINPUT_BUILD_PROGRAMS)
    list(APPEND built $<TARGET_FILE:inputhost> $<TARGET_FILE:devicesim>)
endif()
add_test(NAME searchpaths COMMAND ${CMAKE_CURRENT_SOURCE_DIR}/package/check-search-paths ${built})

add_test(NAME package
    COMMAND ${CMAKE_CURRENT_SOURCE_DIR}/package/run-test ${CMAKE_BINARY_DIR} ${CMAKE_CXX_COMPILER})
set_tests_properties(package PROPERTIES TIMEOUT 300)
if(TCPINPUT_SANITIZE)
    set_tests_properties(package PROPERTIES
        ENVIRONMENT "MINIMALHOST_FLAGS=-fsanitize=${TCPINPUT_SANITIZE}")
endif()
