# SPDX-FileCopyrightText: the tcpinputplugin2 authors
# SPDX-License-Identifier: MIT

foreach(name IN ITEMS tst_ssl tst_sslsettings tst_tlskeys)
    core_test(${name})
    test_uses_certificates(${name})
endforeach()
target_compile_definitions(tst_tlskeys PRIVATE SOURCE_DIR="${PROJECT_SOURCE_DIR}")
foreach(name IN ITEMS tst_sessiontickets tst_tlsextensions tst_tlsidentity tst_tlsprivatekey)
    tls_test(core ${name})
endforeach()
# In its own process: a process chooses its TLS backend only once.
core_test(tst_notlsbackend)
