# SPDX-FileCopyrightText: the tcpinputplugin2 authors
# SPDX-License-Identifier: MIT

# Its parts, one by one.
foreach(name IN ITEMS tst_acknowledgements tst_framings tst_handover)
    plugin_test(${name})
    target_link_libraries(${name} PRIVATE TcpInputPlugin2::framework)
endforeach()

# A host that is made with it, and the built library.
foreach(name IN ITEMS tst_inputsession tst_sessiontraps)
    host_test(${name})
    test_uses_certificates(${name})
endforeach()
host_test(tst_pluginrunner)
tls_test(host tst_reloading 300)
host_test(tst_hungreceiver)
test_uses_certificates(tst_hungreceiver)
add_library(oldplugin MODULE plugin/kit/oldplugin.cpp) # see there
target_link_libraries(oldplugin PRIVATE TcpInputPlugin2::framework tcpinput_build_options)
target_compile_definitions(tst_inputsession PRIVATE
    OLD_PLUGIN_FILE="$<TARGET_FILE:oldplugin>" PROJECT_VERSION="${PROJECT_VERSION}")
add_dependencies(tst_inputsession oldplugin)
