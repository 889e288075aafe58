# SPDX-FileCopyrightText: the tcpinputplugin2 authors
# SPDX-License-Identifier: MIT

foreach(name IN ITEMS tst_recorder tst_recordingformat tst_recordingwriter)
    plugin_test(${name})
    # Qt6::Network: the precompiled headers were made with it.
    target_link_libraries(${name} PRIVATE tcpinput_recording Qt6::Network)
endforeach()
