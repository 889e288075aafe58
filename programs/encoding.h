// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

namespace programs {

/*!
    Makes the encoding UTF-8 if the locale has another one. Qt would do this by itself, but newer
    versions complain about such a locale, over several lines.

    Thread: main(), before other threads and before the application object.
*/
void settleEncoding();

} // namespace programs
