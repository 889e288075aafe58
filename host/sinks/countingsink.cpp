// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "host/sinks/countingsink.h"

#include "host/standardstream.h"

#include <cerrno>
#include <cstring>

namespace host {

void CountingSink::summarize(const QString &line)
{
    if (fd < 0)
        return;
    const StandardStream stream(fd);
    const QByteArray text = line.toUtf8() + '\n';
    for (qsizetype written = 0; written < text.size();) {
        const qsizetype size = stream.write(QByteArrayView(text).sliced(written));
        if (size < 0) {
            Q_EMIT failed(QStringLiteral("Cannot write to standard output: %1")
                                  .arg(QString::fromLocal8Bit(std::strerror(errno))));
            return;
        }
        written += size;
        if (size == 0)
            stream.waitUntilWritable(-1);
    }
}

} // namespace host
