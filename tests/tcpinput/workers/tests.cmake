# SPDX-FileCopyrightText: the tcpinputplugin2 authors
# SPDX-License-Identifier: MIT

core_test(tst_memoryreturn)
core_test(tst_workerthread)
