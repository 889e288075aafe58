# SPDX-FileCopyrightText: the tcpinputplugin2 authors
# SPDX-License-Identifier: MIT

# dispatchercontract: what holds for any event dispatcher of Qt; Qt's own serve for comparison.
foreach(name IN ITEMS
        tst_timerqueue tst_dispatchercontract tst_epolleventdispatcher tst_nesteddeletions
        tst_wakeupmoderation)
    plugin_test(${name} 300)
    target_link_libraries(${name} PRIVATE tcpinput_eventloop Qt6::Network)
endforeach()
