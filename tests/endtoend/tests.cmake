# SPDX-FileCopyrightText: the tcpinputplugin2 authors
# SPDX-License-Identifier: MIT

host_test(tst_endtoend)
host_test(tst_delivery 600)
host_test(tst_lifecycle 600)
host_test(tst_offsets 300)
host_test(tst_latehosts 1800)
test_uses_certificates(tst_latehosts)
# Qt Test's own guard, five minutes for a function, is too short for the full load.
set_property(TEST tst_latehosts APPEND PROPERTY ENVIRONMENT QTEST_FUNCTION_TIMEOUT=900000)
foreach(name IN ITEMS tst_hostileanswers tst_hostilecalls)
    host_test(${name} 600)
    test_uses_certificates(${name})
endforeach()

tls_test(host tst_ends 300)
tls_test(host tst_limits 600)
tls_test(host tst_limitends 600)
foreach(name IN ITEMS tst_proxypeers tst_proxyrefusals)
    tls_test(host ${name} 300)
endforeach()
tls_test(host tst_tlsmatrix 300)
tls_test(host tst_tlshandover 900)

if(NOT TARGET inputhost OR NOT TARGET devicesim)
    return()
endif()
tls_test(host tst_tlsprograms 300)
target_compile_definitions(tst_tlsprograms PRIVATE
    DEVICESIM_FILE="$<TARGET_FILE:devicesim>"
    INPUTHOST_FILE="$<TARGET_FILE:inputhost>")
add_dependencies(tst_tlsprograms devicesim inputhost)
