// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include <QtCore/QFile>
#include <QtCore/QJsonObject>
#include <QtCore/QString>

// CERTIFICATES_DIR: where the build has let scripts/make-certs make them; its --help names them.

inline QString certificateFile(const QString &name)
{
    return QStringLiteral(CERTIFICATES_DIR "/") + name;
}

// A file's text; empty if it cannot be read.
inline QString certificateText(const QString &name)
{
    QFile file(certificateFile(name));
    return file.open(QIODevice::ReadOnly) ? QString::fromLatin1(file.readAll()) : QString();
}

// An "ssl" object with the good server certificate; clients need none.
inline QJsonObject serverTls()
{
    return {{QStringLiteral("CertFile"), certificateFile(QStringLiteral("server.pem"))},
            {QStringLiteral("KeyFile"), certificateFile(QStringLiteral("server.key"))},
            {QStringLiteral("verifyPeer"), false}};
}
