# SPDX-FileCopyrightText: the tcpinputplugin2 authors
# SPDX-License-Identifier: MIT

# tst_dispatcher*: rules for every event dispatcher. Qt's own dispatchers run for comparison.
foreach(name IN ITEMS
        tst_dispatcherdescriptors tst_dispatchernotifiers tst_dispatcherthreads
        tst_dispatchertimers tst_dispatcherturns
        tst_epolleventdispatcher tst_nesteddeletions tst_timerqueue tst_wakeupmoderation)
    plugin_test(${name} 300)
    target_link_libraries(${name} PRIVATE tcpinput_eventloop Qt6::Network)
endforeach()
