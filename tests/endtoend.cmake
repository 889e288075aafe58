# SPDX-FileCopyrightText: the tcpinputplugin2 authors
# SPDX-License-Identifier: MIT

host_test(tst_endtoend)
host_test(tst_delivery 600)
host_test(tst_lifecycle 600)
host_test(tst_offsets 300)
host_test(tst_latehosts 600)
test_uses_certificates(tst_latehosts)
