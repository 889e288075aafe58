# SPDX-FileCopyrightText: the tcpinputplugin2 authors
# SPDX-License-Identifier: MIT

# The same parser with one fault each; 0 has none.
foreach(number RANGE 20)
    set(name plantedparser${number})
    add_library(${name} MODULE ${CMAKE_CURRENT_LIST_DIR}/plantedparser.cpp)
    target_compile_definitions(${name} PRIVATE PLANTED=${number})
    set_target_properties(${name} PROPERTIES PREFIX "" AUTOMOC OFF
        LIBRARY_OUTPUT_DIRECTORY ${CMAKE_CURRENT_BINARY_DIR}/planted)
    list(APPEND planted_parsers ${name})
endforeach()

foreach(name IN ITEMS
        tst_hostchecklibraries tst_hostcheckparser tst_hostcheckparts tst_hostcheckprograms tst_parserprocess)
    plugin_test(${name})
    target_link_libraries(${name} PRIVATE Qt6::Network)
    target_compile_definitions(${name} PRIVATE
        HOSTCHECK_FILE="$<TARGET_FILE:hostcheck>"
        INPUTHOST_FILE="$<TARGET_FILE:inputhost>"
        PLUGIN_FILE="$<TARGET_FILE:tcpinputplugin2>"
        STOCK_PLUGIN_FILE="$<TARGET_FILE:stockplugin>"
        PLANTED_DIR="${CMAKE_CURRENT_BINARY_DIR}/planted")
    add_dependencies(${name} hostcheck inputhost stockplugin tcpinputplugin2 ${planted_parsers})
endforeach()
# A hang guard: it tries thousands of inputs, under a sanitizer slowly.
set_tests_properties(tst_hostcheckparser PROPERTIES TIMEOUT 1200)
set_property(TEST tst_hostcheckparser APPEND PROPERTY ENVIRONMENT QTEST_FUNCTION_TIMEOUT=900000)
foreach(name IN ITEMS tst_hostcheckparts tst_parserprocess)
    target_link_libraries(${name} PRIVATE hostcheck_parser)
endforeach()
