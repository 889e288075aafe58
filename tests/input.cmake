# SPDX-FileCopyrightText: the tcpinputplugin2 authors
# SPDX-License-Identifier: MIT

# Certificates are made once for a build tree, never kept with the sources.
set(certificates_dir ${CMAKE_BINARY_DIR}/certificates)
add_custom_command(OUTPUT ${certificates_dir}/stamp
    COMMAND ${PROJECT_SOURCE_DIR}/scripts/make-certs ${certificates_dir}
    COMMAND ${CMAKE_COMMAND} -E touch ${certificates_dir}/stamp
    DEPENDS ${PROJECT_SOURCE_DIR}/scripts/make-certs
    VERBATIM)
add_custom_target(test_certificates DEPENDS ${certificates_dir}/stamp)

# test_uses_certificates(NAME): for tests that include certificates.h.
function(test_uses_certificates name)
    add_dependencies(${name} test_certificates)
    target_compile_definitions(${name} PRIVATE CERTIFICATES_DIR="${CMAKE_BINARY_DIR}/certificates")
endfunction()

foreach(name IN ITEMS tst_configuration tst_listening tst_nestedloops tst_ssl tst_tcpinputplugin2)
    core_test(${name})
    test_uses_certificates(${name})
endforeach()
target_link_libraries(tst_nestedloops PRIVATE OpenSSL::SSL) # for what it calls its errors

# Alone in its process: the TLS backend is chosen once.
core_test(tst_notlsbackend)
