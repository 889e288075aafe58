# SPDX-FileCopyrightText: the tcpinputplugin2 authors
# SPDX-License-Identifier: MIT

add_test(NAME clusteraccount
    COMMAND /usr/bin/python3 -B ${CMAKE_CURRENT_SOURCE_DIR}/cluster/check_account.py)
set_tests_properties(clusteraccount PROPERTIES TIMEOUT 300 ENVIRONMENT "PYTHONPATH=${PROJECT_SOURCE_DIR}")

# scripts/cluster in short.
if(NATS_INCLUDE_DIR AND NATS_LIBRARY)
    add_test(NAME cluster
        COMMAND ${PROJECT_SOURCE_DIR}/scripts/cluster ${CMAKE_BINARY_DIR}
            --devices 50 --interval 0.2 --seconds 1 --away 4)
    set_tests_properties(cluster PROPERTIES TIMEOUT 900 SKIP_RETURN_CODE 77
        ENVIRONMENT "ASAN_OPTIONS=${sanitizer_options}")
endif()
