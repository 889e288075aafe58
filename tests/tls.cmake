# SPDX-FileCopyrightText: the tcpinputplugin2 authors
# SPDX-License-Identifier: MIT

host_test(tst_tlsmatrix 300)
host_test(tst_tlshandover 900)
core_test(tst_tlsfaults 900)
core_test(tst_tlshandshake)
core_test(tst_sessiontickets)
foreach(name IN ITEMS
        tst_tlsmatrix tst_tlshandover tst_tlsfaults tst_tlshandshake tst_sessiontickets)
    test_uses_certificates(${name})
    # For the devices that say when each byte of a handshake leaves.
    target_link_libraries(${name} PRIVATE OpenSSL::SSL)
    # Qt Test's own guard, five minutes for a function, is too short for the full load.
    set_property(TEST ${name} APPEND PROPERTY ENVIRONMENT QTEST_FUNCTION_TIMEOUT=900000)
endforeach()

if(NOT TARGET inputhost OR NOT TARGET devicesim)
    return()
endif()
host_test(tst_tlsprograms 300)
test_uses_certificates(tst_tlsprograms)
target_compile_definitions(tst_tlsprograms PRIVATE
    DEVICESIM_FILE="$<TARGET_FILE:devicesim>"
    INPUTHOST_FILE="$<TARGET_FILE:inputhost>")
add_dependencies(tst_tlsprograms devicesim inputhost)
