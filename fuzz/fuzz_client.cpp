// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

// A connection's client. The input says what arrives, how the host answers and what time it is.

#include "fuzz/fuzztarget.h"
#include "tests/tcpinput/clientrun.h"

void initialise()
{
    static int argc = 1;
    static char name[] = "fuzz";
    static char *argv[] = {name, nullptr};
    static const QCoreApplication application(argc, argv);
}

void fuzz(QByteArrayView input)
{
    ClientRun run(input);
    const bool same = run.play();
    require(same, same ? QString() : run.difference());
}
