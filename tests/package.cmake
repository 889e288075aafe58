# SPDX-FileCopyrightText: the tcpinputplugin2 authors
# SPDX-License-Identifier: MIT

include(CheckCXXSourceCompiles)

# The built files. The package's test checks the installed ones.
set(built $<TARGET_FILE:tcpinputplugin2>)
if(TCPINPUT_BUILD_PROGRAMS)
    list(APPEND built $<TARGET_FILE:inputhost> $<TARGET_FILE:devicesim> $<TARGET_FILE:devicecat>
        $<TARGET_FILE:hostcheck>)
endif()
add_test(NAME searchpaths COMMAND ${CMAKE_CURRENT_SOURCE_DIR}/package/check-search-paths ${built})

add_test(NAME package
    COMMAND ${CMAKE_CURRENT_SOURCE_DIR}/package/run-test ${CMAKE_BINARY_DIR} ${CMAKE_CXX_COMPILER})
# The minimal host is built with AddressSanitizer even if the library is not: nothing else finds its
# memory errors at exit.
set(minimalhost_sanitizer ${TCPINPUT_SANITIZE})
if(NOT minimalhost_sanitizer)
    set(CMAKE_REQUIRED_FLAGS -fsanitize=address)
    check_cxx_source_compiles("int main() {}" TCPINPUT_HAS_ADDRESS_SANITIZER)
    unset(CMAKE_REQUIRED_FLAGS)
    if(TCPINPUT_HAS_ADDRESS_SANITIZER)
        set(minimalhost_sanitizer address)
    endif()
endif()
set(minimalhost_flags "")
if(minimalhost_sanitizer)
    set(minimalhost_flags "-g -fsanitize=${minimalhost_sanitizer}")
endif()
set_tests_properties(package PROPERTIES
    TIMEOUT 1200 # a hang guard: it builds two hosts, under a sanitizer slowly
    ENVIRONMENT "MINIMALHOST_FLAGS=${minimalhost_flags};ASAN_OPTIONS=${sanitizer_options}")
