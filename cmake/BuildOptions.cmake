# SPDX-FileCopyrightText: the tcpinputplugin2 authors
# SPDX-License-Identifier: MIT

# What our own targets are compiled with: link tcpinput_build_options PRIVATE.
add_library(tcpinput_build_options INTERFACE)
target_compile_features(tcpinput_build_options INTERFACE cxx_std_17)
target_compile_options(tcpinput_build_options INTERFACE
    -Wall -Wextra -Wpedantic -Wshadow -Wconversion -Wsign-conversion -Wnon-virtual-dtor
    -Woverloaded-virtual -Wold-style-cast -Wcast-qual -Wformat=2 -Wimplicit-fallthrough
    # Qt Test's macros leave variadic arguments out.
    $<$<CXX_COMPILER_ID:Clang>:-Wno-gnu-zero-variadic-macro-arguments>
    # What tcpinput/workers/locks.h annotates is never a matter of taste.
    $<$<CXX_COMPILER_ID:Clang>:-Werror=thread-safety>
    $<$<BOOL:${TCPINPUT_WERROR}>:-Werror>)
target_compile_definitions(tcpinput_build_options INTERFACE
    QT_NO_KEYWORDS QT_NO_FOREACH QT_NO_CAST_FROM_ASCII QT_NO_CAST_TO_ASCII
    # Qt 6.8 warns of what it deprecates; older versions know less and warn of less.
    QT_WARN_DEPRECATED_UP_TO=0x060800)

# By itself for the examples, which are compiled as a host's own sources are.
add_library(tcpinput_sanitizers INTERFACE)
target_link_libraries(tcpinput_build_options INTERFACE tcpinput_sanitizers)
if(TCPINPUT_SANITIZE)
    target_compile_definitions(tcpinput_sanitizers INTERFACE TCPINPUT_SANITIZED)
    target_compile_options(tcpinput_sanitizers INTERFACE
        # vptr: its check opens descriptors, and some tests take them all.
        -fsanitize=${TCPINPUT_SANITIZE} -fno-sanitize=vptr -fno-sanitize-recover=all
        -fno-omit-frame-pointer)
    target_link_options(tcpinput_sanitizers INTERFACE -fsanitize=${TCPINPUT_SANITIZE})
endif()

set(CMAKE_CXX_EXTENSIONS OFF)
set(CMAKE_CXX_VISIBILITY_PRESET hidden)
set(CMAKE_VISIBILITY_INLINES_HIDDEN ON)
set(CMAKE_POSITION_INDEPENDENT_CODE ON)

# ccache, when it is there, makes a second build of the same sources cheap.
find_program(CCACHE_PROGRAM ccache)
if(CCACHE_PROGRAM AND NOT CMAKE_CXX_COMPILER_LAUNCHER)
    # What ccache wants to be told before it caches compilations with precompiled headers.
    set(CMAKE_CXX_COMPILER_LAUNCHER ${CMAKE_COMMAND} -E env
        CCACHE_SLOPPINESS=pch_defines,time_macros ${CCACHE_PROGRAM})
endif()
