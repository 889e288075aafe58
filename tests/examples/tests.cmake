# SPDX-FileCopyrightText: the tcpinputplugin2 authors
# SPDX-License-Identifier: MIT

# example_test(NAME SCRIPT [ARGUMENT...]): a script of this folder, for this build.
function(example_test name script)
    add_test(NAME ${name}
        COMMAND /usr/bin/python3 -B ${CMAKE_CURRENT_SOURCE_DIR}/examples/${script} ${CMAKE_BINARY_DIR} ${ARGN})
    set_tests_properties(${name} PROPERTIES TIMEOUT 300
        ENVIRONMENT "PYTHONPATH=${PROJECT_SOURCE_DIR};ASAN_OPTIONS=${sanitizer_options}")
endfunction()

example_test(examples check_programs.py)
if(TARGET example_store)
    example_test(examplestore check_store.py)
    example_test(examplestorereloads check_store.py --reloads 4 --tls)
endif()
