# SPDX-FileCopyrightText: the tcpinputplugin2 authors
# SPDX-License-Identifier: MIT

foreach(name IN ITEMS tst_recorder tst_recordingformat tst_recordingwriter)
    plugin_test(${name})
    # Qt6::Network: the precompiled headers were made with it.
    target_link_libraries(${name} PRIVATE tcpinput_recording Qt6::Network)
endforeach()

if(TARGET devicecat)
    plugin_test(tst_devicecat)
    target_link_libraries(tst_devicecat PRIVATE tcpinput_recording Qt6::Network)
    target_compile_definitions(tst_devicecat PRIVATE DEVICECAT_FILE="$<TARGET_FILE:devicecat>")
    add_dependencies(tst_devicecat devicecat)
endif()

# The programs, each with what the other has made.
if(TARGET inputhost AND TARGET devicesim)
    plugin_test(tst_recordreplay 300)
    test_uses_certificates(tst_recordreplay)
    target_link_libraries(tst_recordreplay PRIVATE tcpinput_recording Qt6::Network)
    target_compile_definitions(tst_recordreplay PRIVATE
        DEVICESIM_FILE="$<TARGET_FILE:devicesim>"
        INPUTHOST_FILE="$<TARGET_FILE:inputhost>"
        PLUGIN_FILE="$<TARGET_FILE:tcpinputplugin2>")
    add_dependencies(tst_recordreplay devicesim inputhost tcpinputplugin2)
endif()
