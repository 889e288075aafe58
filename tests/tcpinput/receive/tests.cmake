# SPDX-FileCopyrightText: the tcpinputplugin2 authors
# SPDX-License-Identifier: MIT

core_test(tst_backlogwatch)
core_test(tst_inputbuffer)
core_test(tst_promptlist)
core_test(tst_receivingbytes)
core_test(tst_receivingend)
core_test(tst_receivingsocket)
core_test(tst_recordmaker)
core_test(tst_warmblocks)
