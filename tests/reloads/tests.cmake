# SPDX-FileCopyrightText: the tcpinputplugin2 authors
# SPDX-License-Identifier: MIT

# reload_test(NAME RUN... [OPTION...]): devices, and a host that reloads. scripts/reloads is the long form.
function(reload_test name)
    add_test(NAME ${name}
        COMMAND /usr/bin/python3 -B ${CMAKE_CURRENT_SOURCE_DIR}/reloads/check_reloads.py
            ${CMAKE_BINARY_DIR} ${ARGN})
    set_tests_properties(${name} PROPERTIES TIMEOUT 300
        ENVIRONMENT "PYTHONPATH=${PROJECT_SOURCE_DIR};ASAN_OPTIONS=${sanitizer_options}")
endfunction()

reload_test(reloads sending connects stubborn)
reload_test(reloadstls sending connects --tls)
if("HOST_HAS_SQLITE" IN_LIST host_definitions AND TARGET devicecat)
    reload_test(reloadskept sending connects --keep)
endif()
