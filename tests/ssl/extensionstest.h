// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include "ssl/extensions.h"
#include "ssl/ssl.h"
#include "tests/kit/certificatemaker.h"
#include "tests/ssl/ssltest.h"
#include "tls/settings.h"

#include <QtCore/QFile>
#include <QtCore/QJsonObject>
#include <QtCore/QTemporaryDir>
#include <QtTest/QTest>

namespace ssltest {

//! A server's key with its certificates: its own, an intermediate one and the authority's.
struct Identity
{
    explicit Identity(made::Key serverKey)
        : key(std::move(serverKey)),
          authority(made::certificate("authority", authorityKey, {authorityKey, nullptr}, true)),
          intermediate(made::certificate("intermediate", intermediateKey,
                                         {authorityKey, &authority}, true)),
          certificate(made::certificate("localhost", key, {intermediateKey, &intermediate}))
    {}

    const made::Key key;
    const made::Key authorityKey = made::ecKey();
    const made::Key intermediateKey = made::ecKey();
    const made::Certificate authority;
    const made::Certificate intermediate;
    const made::Certificate certificate;
};

//! Reads configurations that name files of the test's own.
class ExtensionsTest : public SslTest
{
protected:
    // Its name.
    QString file(const QString &name, const QByteArray &content) const
    {
        QString path = folder.filePath(name);
        QFile written(path);
        if (!written.open(QIODevice::WriteOnly) || written.write(content) != content.size())
            qFatal("Cannot write a file");
        return path;
    }

    // What start() does with the object. The lines of readSslConfig() are not kept.
    static bool read(const QJsonObject &object, tls::Settings &settings)
    {
        const bool hasFiles = ssl::readSslConfig(object, settings.base);
        takeLog();
        return tls::readExtensions(object, settings) && hasFiles;
    }

    QTemporaryDir folder;
};

} // namespace ssltest
