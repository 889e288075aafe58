# SPDX-FileCopyrightText: the tcpinputplugin2 authors
# SPDX-License-Identifier: MIT

add_test(NAME clusteraccount
    COMMAND /usr/bin/python3 -B ${CMAKE_CURRENT_SOURCE_DIR}/cluster/check_account.py)
set_tests_properties(clusteraccount PROPERTIES TIMEOUT 300 ENVIRONMENT "PYTHONPATH=${PROJECT_SOURCE_DIR}")

# The drill itself is no test: a device that is told to go, and is at once with another host, can
# overtake on a busy machine what it has left with the first one. scripts/cluster counts that.
