# SPDX-FileCopyrightText: the tcpinputplugin2 authors
# SPDX-License-Identifier: MIT

# The host's parts, one by one.
foreach(name IN ITEMS
        tst_framing tst_hostconfiguration tst_hostoptions tst_hostoutput tst_hosttexts
        tst_messagereader tst_offertracker tst_process)
    plugin_test(${name})
    target_link_libraries(${name} PRIVATE inputhost_parts)
endforeach()

# The program.
plugin_test(tst_inputhost 300)
target_link_libraries(tst_inputhost PRIVATE Qt6::Network)
target_compile_definitions(tst_inputhost PRIVATE
    INPUTHOST_FILE="$<TARGET_FILE:inputhost>"
    PLUGIN_FILE="$<TARGET_FILE:tcpinputplugin2>")
add_dependencies(tst_inputhost inputhost tcpinputplugin2)
