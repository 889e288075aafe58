# SPDX-FileCopyrightText: the tcpinputplugin2 authors
# SPDX-License-Identifier: MIT

core_test(tst_acceptguard)
core_test(tst_connectionlimiter)
core_test(tst_handshakethreads)
core_test(tst_minutenotice)
core_test(tst_openhandshakes)
core_test(tst_peersinuse)
core_test(tst_pendingconnections)
core_test(tst_proxygate 300)
core_test(tst_proxyheader)
core_test(tst_tcpserver 300)
core_test(tst_listening)
test_uses_certificates(tst_listening)
tls_test(core tst_crowdedhandshakes)
tls_test(core tst_tlsendings 900)
tls_test(core tst_tlsfaults 900)
tls_test(core tst_tlshandshake)
