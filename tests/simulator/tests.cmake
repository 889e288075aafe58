# SPDX-FileCopyrightText: the tcpinputplugin2 authors
# SPDX-License-Identifier: MIT

# The simulator's parts that use neither sockets nor timers.
foreach(name IN ITEMS
        tst_devicesimmanual tst_devicesimoptions tst_devicesimparts tst_inputlines tst_messageparts tst_replayparts
        tst_scriptparts)
    plugin_test(${name})
    target_link_libraries(${name} PRIVATE devicesim_core)
endforeach()

target_link_libraries(tst_replayparts PRIVATE tcpinput_recording)
target_compile_definitions(tst_devicesimmanual PRIVATE
    MANUAL_FILE="${PROJECT_SOURCE_DIR}/docs/DEVICESIM.md")
target_link_libraries(tst_messageparts PRIVATE TcpInputPlugin2::framework)

# The program.
foreach(name IN ITEMS
        tst_devicesimfaults tst_devicesimmessages tst_devicesimprogress tst_devicesimreport tst_devicesimscripts
        tst_devicesimsending tst_devicesimtls)
    plugin_test(${name} 300)
    target_link_libraries(${name} PRIVATE devicesim_core)
    target_compile_definitions(${name} PRIVATE DEVICESIM_FILE="$<TARGET_FILE:devicesim>")
    add_dependencies(${name} devicesim)
endforeach()

# The program with hosts that read what it sends.
if(TARGET inputhost AND TARGET example_tracker)
    plugin_test(tst_devicesimhosts 300)
    target_link_libraries(tst_devicesimhosts PRIVATE Qt6::Network)
    target_compile_definitions(tst_devicesimhosts PRIVATE
        DEVICESIM_FILE="$<TARGET_FILE:devicesim>"
        INPUTHOST_FILE="$<TARGET_FILE:inputhost>"
        PLUGIN_FILE="$<TARGET_FILE:tcpinputplugin2>"
        TRACKER_FILE="$<TARGET_FILE:example_tracker>")
    add_dependencies(tst_devicesimhosts devicesim inputhost tcpinputplugin2 example_tracker)
endif()
