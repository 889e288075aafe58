# SPDX-FileCopyrightText: the tcpinputplugin2 authors
# SPDX-License-Identifier: MIT

# The simulator's parts that use neither sockets nor timers.
foreach(name IN ITEMS tst_devicesimoptions tst_devicesimparts tst_replayparts)
    plugin_test(${name})
    target_link_libraries(${name} PRIVATE devicesim_core)
endforeach()

target_link_libraries(tst_replayparts PRIVATE tcpinput_recording)

# The program.
foreach(name IN ITEMS
        tst_devicesimfaults tst_devicesimreport tst_devicesimsending tst_devicesimtls)
    plugin_test(${name} 300)
    target_link_libraries(${name} PRIVATE devicesim_core)
    target_compile_definitions(${name} PRIVATE DEVICESIM_FILE="$<TARGET_FILE:devicesim>")
    add_dependencies(${name} devicesim)
endforeach()
