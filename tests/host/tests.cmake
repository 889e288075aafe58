# SPDX-FileCopyrightText: the tcpinputplugin2 authors
# SPDX-License-Identifier: MIT

# The host's parts, one by one.
foreach(name IN ITEMS
        tst_exactreading tst_fairturns tst_framing tst_heldanswers tst_hostconfiguration tst_hostoptions
        tst_hosttexts tst_logging tst_loglimit tst_messagereader tst_natsparts tst_nearestkey tst_offertracker
        tst_process tst_storesink tst_streamsink tst_tlschecks tst_trafficrecorder tst_unfinished
        tst_webpage tst_webparts)
    plugin_test(${name})
    target_link_libraries(${name} PRIVATE inputhost_parts)
endforeach()

# A broker: each test starts servers of its own.
if(NATS_INCLUDE_DIR AND NATS_LIBRARY)
    foreach(name IN ITEMS tst_natsaway tst_natsstore tst_natstls)
        plugin_test(${name})
        target_link_libraries(${name} PRIVATE inputhost_parts)
    endforeach()
    target_link_libraries(tst_natstls PRIVATE OpenSSL::Crypto)
endif()

if(MICROHTTPD_INCLUDE_DIR AND MICROHTTPD_LIBRARY)
    plugin_test(tst_webserver)
    target_link_libraries(tst_webserver PRIVATE inputhost_parts)
endif()

# The stores, as far as the program has them.
get_target_property(host_definitions inputhost_parts COMPILE_DEFINITIONS)
if("HOST_HAS_SQLITE" IN_LIST host_definitions)
    find_package(Qt6 6.4 REQUIRED COMPONENTS Sql)
    foreach(name IN ITEMS tst_sqlitekeep tst_sqlitestore)
        plugin_test(${name})
        target_link_libraries(${name} PRIVATE inputhost_parts)
    endforeach()
endif()
if("HOST_HAS_POSTGRESQL" IN_LIST host_definitions)
    plugin_test(tst_postgresstore)
    target_link_libraries(tst_postgresstore PRIVATE inputhost_parts)
endif()

# host_program_test(NAME): a test that runs the program.
function(host_program_test name)
    plugin_test(${name} 300)
    target_link_libraries(${name} PRIVATE Qt6::Network)
    target_compile_definitions(${name} PRIVATE
        INPUTHOST_FILE="$<TARGET_FILE:inputhost>"
        PLUGIN_FILE="$<TARGET_FILE:tcpinputplugin2>")
    add_dependencies(${name} inputhost tcpinputplugin2)
endfunction()

foreach(name IN ITEMS
        tst_inputhostcheck tst_inputhostmessages tst_inputhostoutput tst_inputhostrecording
        tst_inputhostreload tst_inputhoststalls tst_inputhoststart tst_inputhoststatus
        tst_inputhoststopping tst_inputhosttls tst_servicenotifier)
    host_program_test(${name})
endforeach()
add_test(NAME hostiletexts
    COMMAND /usr/bin/python3 -B ${CMAKE_CURRENT_SOURCE_DIR}/host/check_hostile_texts.py ${CMAKE_BINARY_DIR})
set_tests_properties(hostiletexts PROPERTIES TIMEOUT 300
    ENVIRONMENT "PYTHONPATH=${PROJECT_SOURCE_DIR};ASAN_OPTIONS=${sanitizer_options}")
add_test(NAME configurationschema
    COMMAND /usr/bin/python3 -B ${CMAKE_CURRENT_SOURCE_DIR}/host/check_schema.py $<TARGET_FILE:inputhost>)
set_tests_properties(configurationschema PROPERTIES TIMEOUT 300)

if(NATS_INCLUDE_DIR AND NATS_LIBRARY)
    plugin_test(tst_inputhostnats 300)
    target_link_libraries(tst_inputhostnats PRIVATE inputhost_parts)
    target_compile_definitions(tst_inputhostnats PRIVATE
        INPUTHOST_FILE="$<TARGET_FILE:inputhost>"
        PLUGIN_FILE="$<TARGET_FILE:tcpinputplugin2>"
        CONSUMER_FILE="$<TARGET_FILE:example_consume_nats>")
    add_dependencies(tst_inputhostnats inputhost tcpinputplugin2 example_consume_nats)
endif()
if("HOST_HAS_SQLITE" IN_LIST host_definitions)
    host_program_test(tst_inputhoststore)
    target_link_libraries(tst_inputhoststore PRIVATE Qt6::Sql)
endif()

if(MICROHTTPD_INCLUDE_DIR AND MICROHTTPD_LIBRARY)
    host_program_test(tst_inputhostweb)
    test_uses_certificates(tst_inputhostweb)
    # It measures memory. ThreadSanitizer needs much of its own, AddressSanitizer keeps 256 MB of what
    # is freed.
    if(NOT TCPINPUT_SANITIZE MATCHES thread)
        add_test(NAME strangers
            COMMAND /usr/bin/python3 -B ${CMAKE_CURRENT_SOURCE_DIR}/host/check_strangers.py ${CMAKE_BINARY_DIR})
        set_tests_properties(strangers PROPERTIES TIMEOUT 300
            ENVIRONMENT "PYTHONPATH=${PROJECT_SOURCE_DIR};ASAN_OPTIONS=${sanitizer_options}:quarantine_size_mb=1")
    endif()
endif()

if(MICROHTTPD_INCLUDE_DIR AND MICROHTTPD_LIBRARY)
    add_library(standstill MODULE ${CMAKE_CURRENT_LIST_DIR}/standstill.cpp)
    target_link_libraries(standstill PRIVATE tcpinput_build_options ${CMAKE_DL_LIBS})
    host_program_test(tst_inputhoststalledworker)
    target_compile_definitions(tst_inputhoststalledworker PRIVATE
        STANDSTILL_FILE="$<TARGET_FILE:standstill>")
    add_dependencies(tst_inputhoststalledworker standstill)
    add_test(NAME systemd COMMAND /usr/bin/python3 -B ${CMAKE_CURRENT_SOURCE_DIR}/host/check_systemd.py
        ${CMAKE_BINARY_DIR} $<TARGET_FILE:standstill>)
    set_tests_properties(systemd PROPERTIES TIMEOUT 300 SKIP_RETURN_CODE 77
        ENVIRONMENT "PYTHONPATH=${PROJECT_SOURCE_DIR}")
    if(TCPINPUT_SANITIZE) # its own library has to be the first that is loaded
        set_tests_properties(tst_inputhoststalledworker systemd PROPERTIES DISABLED TRUE)
    endif()
endif()

find_program(HAPROXY_FILE haproxy)
mark_as_advanced(HAPROXY_FILE)
if(HAPROXY_FILE AND MICROHTTPD_INCLUDE_DIR AND MICROHTTPD_LIBRARY)
    host_program_test(tst_inputhostbalanced)
    target_compile_definitions(tst_inputhostbalanced PRIVATE HAPROXY_FILE="${HAPROXY_FILE}"
        SOURCE_DIR="${PROJECT_SOURCE_DIR}")
endif()

# The rules for Prometheus, with what they are to find.
find_program(PROMTOOL promtool)
if(PROMTOOL)
    add_test(NAME alerts
        COMMAND ${PROMTOOL} test rules ${CMAKE_CURRENT_SOURCE_DIR}/host/alerts_test.yml)
endif()
find_program(PROMETHEUS prometheus)
if(PROMETHEUS AND MICROHTTPD_INCLUDE_DIR AND MICROHTTPD_LIBRARY)
    add_test(NAME prometheus
        COMMAND /usr/bin/python3 -B ${CMAKE_CURRENT_SOURCE_DIR}/host/check_prometheus.py ${CMAKE_BINARY_DIR})
    set_tests_properties(prometheus PROPERTIES TIMEOUT 300
        ENVIRONMENT "PYTHONPATH=${PROJECT_SOURCE_DIR};ASAN_OPTIONS=${sanitizer_options}")
endif()

# The page, in a browser.
find_program(CHROMIUM chromium)
find_program(CHROMEDRIVER chromedriver)
if(CHROMIUM AND CHROMEDRIVER AND MICROHTTPD_INCLUDE_DIR AND MICROHTTPD_LIBRARY)
    add_test(NAME page
        COMMAND /usr/bin/python3 -B ${CMAKE_CURRENT_SOURCE_DIR}/host/check_page.py ${CMAKE_BINARY_DIR})
    set_tests_properties(page PROPERTIES TIMEOUT 300
        ENVIRONMENT "PYTHONPATH=${PROJECT_SOURCE_DIR};ASAN_OPTIONS=${sanitizer_options}")
endif()

target_link_libraries(tst_inputhostrecording PRIVATE tcpinput_recording)
target_link_libraries(tst_trafficrecorder PRIVATE tcpinput_recording)
test_uses_certificates(tst_inputhostreload) # its devices can TLS
target_link_libraries(tst_inputhostreload PRIVATE OpenSSL::SSL)
target_compile_definitions(tst_inputhoststart PRIVATE OLD_PLUGIN_FILE="$<TARGET_FILE:oldplugin>")
add_dependencies(tst_inputhoststart oldplugin)

# These make their certificates.
foreach(name IN ITEMS tst_inputhostcheck tst_inputhosttls tst_tlschecks)
    target_link_libraries(${name} PRIVATE OpenSSL::Crypto)
endforeach()

# store_test(NAME STORE [OPTION...]): plays devices on inputhost with that store. Skipped if the store is not
# installed. It is a short form of what scripts/stores plays.
function(store_test name store)
    add_test(NAME ${name} COMMAND /usr/bin/python3 -B ${CMAKE_CURRENT_SOURCE_DIR}/host/check_stores.py
        ${CMAKE_BINARY_DIR} ${store} ${ARGN})
    set_tests_properties(${name} PROPERTIES TIMEOUT 300 SKIP_RETURN_CODE 77
        ENVIRONMENT "PYTHONPATH=${PROJECT_SOURCE_DIR};ASAN_OPTIONS=${sanitizer_options}")
endfunction()

foreach(store IN ITEMS sqlite postgresql nats)
    string(TOUPPER HOST_HAS_${store} definition)
    if(definition IN_LIST host_definitions)
        store_test(stores_${store} ${store})
        store_test(stores_${store}_tls ${store} --tls)
        store_test(stores_${store}_kills ${store} --kills 5)
    endif()
endforeach()
