# SPDX-FileCopyrightText: the tcpinputplugin2 authors
# SPDX-License-Identifier: MIT

# For the devices that say when each byte of a handshake leaves.
find_package(OpenSSL 3.0 REQUIRED COMPONENTS SSL)

host_test(tst_tlsmatrix 300)
host_test(tst_tlshandover 900)
core_test(tst_tlsfaults 900)
foreach(name IN ITEMS tst_tlsmatrix tst_tlshandover tst_tlsfaults)
    test_uses_certificates(${name})
    target_link_libraries(${name} PRIVATE OpenSSL::SSL)
endforeach()
