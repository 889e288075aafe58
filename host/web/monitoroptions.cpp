// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "host/web/monitoroptions.h"

namespace host {

bool hasWebServer()
{
#ifdef HOST_HAS_HTTP
    return true;
#else
    return false;
#endif
}

} // namespace host
