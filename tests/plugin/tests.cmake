# SPDX-FileCopyrightText: the tcpinputplugin2 authors
# SPDX-License-Identifier: MIT

# The shared headers alone: they must work in a program that does not load the library.
foreach(name IN ITEMS
        tst_connection tst_cwrn tst_exactoffers tst_framework tst_frameworklayout tst_parseddata
        tst_parseddatathreads tst_subids)
    plugin_test(${name})
    target_link_libraries(${name} PRIVATE TcpInputPlugin2::framework)
endforeach()

# What the built library shows to a host.
host_test(tst_entrypoints)
target_link_libraries(tst_entrypoints PRIVATE ${CMAKE_DL_LIBS})
target_compile_definitions(tst_entrypoints PRIVATE NM_PROGRAM="${CMAKE_NM}")
