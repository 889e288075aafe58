# SPDX-FileCopyrightText: the tcpinputplugin2 authors
# SPDX-License-Identifier: MIT

core_test(tst_tcpclient2)
core_test(tst_clientreading)
core_test(tst_clientcutting)
core_test(tst_clientending)
core_test(tst_clientmodel)
core_test(tst_plainclient)
core_test(tst_tcptask2)
core_test(tst_taskmodel)
core_test(tst_taskstopping)
core_test(tst_connectionends)
core_test(tst_configurationkeys)
target_compile_definitions(tst_configurationkeys PRIVATE SOURCE_DIR="${PROJECT_SOURCE_DIR}")
foreach(name IN ITEMS tst_configuration tst_nestedloops)
    core_test(${name})
    test_uses_certificates(${name})
endforeach()
tls_test(core tst_tcpinputplugin2)
target_link_libraries(tst_nestedloops PRIVATE OpenSSL::SSL) # for what it calls its errors
