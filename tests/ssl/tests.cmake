# SPDX-FileCopyrightText: the tcpinputplugin2 authors
# SPDX-License-Identifier: MIT

core_test(tst_ssl)
test_uses_certificates(tst_ssl)
tls_test(core tst_sessiontickets)
# Alone in its process: the TLS backend is chosen once.
core_test(tst_notlsbackend)
