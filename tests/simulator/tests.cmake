# SPDX-FileCopyrightText: the tcpinputplugin2 authors
# SPDX-License-Identifier: MIT

# The simulator's parts that know neither sockets nor time.
plugin_test(tst_devicesimparts)
target_link_libraries(tst_devicesimparts PRIVATE devicesim_core)

# The program.
plugin_test(tst_devicesim 300)
target_link_libraries(tst_devicesim PRIVATE devicesim_core)
target_compile_definitions(tst_devicesim PRIVATE DEVICESIM_FILE="$<TARGET_FILE:devicesim>")
add_dependencies(tst_devicesim devicesim)
