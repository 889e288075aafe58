// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include <QtCore/QFile>
#include <QtCore/QJsonObject>
#include <QtCore/QString>

// CERTIFICATES_DIR: the build has run scripts/make-certs in it. The script's --help lists the
// files.

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

// An "ssl" object with the valid server certificate. Clients need no certificate.
inline QJsonObject serverTls()
{
    return {{QStringLiteral("CertFile"), certificateFile(QStringLiteral("server.pem"))},
            {QStringLiteral("KeyFile"), certificateFile(QStringLiteral("server.key"))},
            {QStringLiteral("verifyPeer"), false}};
}
