# SPDX-FileCopyrightText: the tcpinputplugin2 authors
# SPDX-License-Identifier: MIT

# The library's inside: clients, tasks, servers and threads.
core_test(tst_tcpclient2)
core_test(tst_clientreading)
core_test(tst_clientcutting)
core_test(tst_clientending)
core_test(tst_backlogwatch)
core_test(tst_plainclient)
core_test(tst_inputbuffer)
core_test(tst_receivingsocket)
core_test(tst_recordmaker)
core_test(tst_pendingconnections)
core_test(tst_clientmodel)
core_test(tst_tcptask2)
core_test(tst_taskmodel)
core_test(tst_taskstopping)
core_test(tst_connectionends)
core_test(tst_tcpserver 300)
core_test(tst_acceptguard)
core_test(tst_workerthread)
