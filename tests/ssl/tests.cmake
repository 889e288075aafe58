# SPDX-FileCopyrightText: the tcpinputplugin2 authors
# SPDX-License-Identifier: MIT

foreach(name IN ITEMS tst_ssl tst_sslsettings)
    core_test(${name})
    test_uses_certificates(${name})
endforeach()
tls_test(core tst_sessiontickets)
# In its own process: a process chooses its TLS backend only once.
core_test(tst_notlsbackend)
