# SPDX-FileCopyrightText: the tcpinputplugin2 authors
# SPDX-License-Identifier: MIT

# TcpClient2
core_test(tst_tcpclient2)
core_test(tst_clientcutorder)
core_test(tst_clientcutting)
core_test(tst_clientending)
core_test(tst_clientkick)
core_test(tst_clientlimits)
core_test(tst_clientmodel)
core_test(tst_clientoffers)
core_test(tst_clientprompt)
core_test(tst_clientreading)
core_test(tst_clienttimeout)
core_test(tst_connectionends)
core_test(tst_plainclient)

# TcpTask2
core_test(tst_tcptask2)
core_test(tst_taskclients)
core_test(tst_taskdestruction)
core_test(tst_taskequalids)
core_test(tst_taskmodel)
core_test(tst_taskoffers)
core_test(tst_taskstopping)
core_test(tst_taskthreads)

# TcpInputPlugin2
core_test(tst_configurationkeys)
test_uses_certificates(tst_configurationkeys)
target_compile_definitions(tst_configurationkeys PRIVATE SOURCE_DIR="${PROJECT_SOURCE_DIR}")
core_test(tst_schema)
target_link_libraries(tst_schema PRIVATE tcpinput_schema)
core_test(tst_proxykeys)
target_compile_definitions(tst_proxykeys PRIVATE SOURCE_DIR="${PROJECT_SOURCE_DIR}")
foreach(name IN ITEMS
        tst_configuration tst_configurationtls tst_nestedloops tst_plugindiscard tst_pluginleaving tst_pluginrotation
        tst_pluginshortage tst_pluginstatus tst_pluginstopping tst_pluginthreads tst_plugintls)
    core_test(${name})
    test_uses_certificates(${name})
    target_link_libraries(${name} PRIVATE OpenSSL::SSL) # for TLS devices, and OpenSSL's errors
endforeach()
