# SPDX-FileCopyrightText: the tcpinputplugin2 authors
# SPDX-License-Identifier: MIT

foreach(name IN ITEMS tst_session tst_tickets)
    tls_test(core ${name})
endforeach()
