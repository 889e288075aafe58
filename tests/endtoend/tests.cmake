# SPDX-FileCopyrightText: the tcpinputplugin2 authors
# SPDX-License-Identifier: MIT

host_test(tst_endtoend)
host_test(tst_delivery 600)
host_test(tst_lifecycle 600)
host_test(tst_offsets 300)
host_test(tst_latehosts 1800)
test_uses_certificates(tst_latehosts)
# Qt Test's own limit of five minutes for a test function is too short for the full load.
set_property(TEST tst_latehosts APPEND PROPERTY ENVIRONMENT QTEST_FUNCTION_TIMEOUT=900000)
foreach(name IN ITEMS tst_hostileanswers tst_hostilecalls)
    host_test(${name} 600)
    test_uses_certificates(${name})
endforeach()

tls_test(host tst_ends 300)
tls_test(host tst_limits 600)
tls_test(host tst_limitends 600)
foreach(name IN ITEMS tst_connectionlimits tst_counters tst_proxypeers tst_proxyrefusals)
    tls_test(host ${name} 300)
endforeach()
# Load balancers from Debian packages, if they are installed.
find_program(HAPROXY_FILE haproxy)
find_program(NGINX_FILE nginx)
find_file(NGINX_STREAM_FILE ngx_stream_module.so PATHS /usr/lib/nginx/modules)
mark_as_advanced(HAPROXY_FILE NGINX_FILE NGINX_STREAM_FILE)
if(HAPROXY_FILE AND NGINX_FILE AND NGINX_STREAM_FILE)
    tls_test(host tst_balancers 300)
    target_compile_definitions(tst_balancers PRIVATE HAPROXY_FILE="${HAPROXY_FILE}"
        NGINX_FILE="${NGINX_FILE}" NGINX_STREAM_FILE="${NGINX_STREAM_FILE}"
        SOURCE_DIR="${PROJECT_SOURCE_DIR}")
else()
    message(STATUS "No haproxy, or no nginx with its stream module: tst_balancers is left out")
endif()

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
