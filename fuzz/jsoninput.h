// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include <QtCore/QByteArrayView>
#include <QtCore/QFile>
#include <QtCore/QJsonDocument>
#include <QtCore/QJsonObject>

inline QJsonDocument jsonFrom(QByteArrayView input)
{
    return QJsonDocument::fromJson(QByteArray::fromRawData(input.data(), input.size()));
}

// The input may name files of the working directory, where scripts/fuzz puts certificates. It may
// not name other files: reading some of them would never end.
inline bool namesLocalFilesOnly(const QJsonObject &sslObject)
{
    for (const char *key :
         {"CAFile", "CRLFile", "CertFile", "ChainFile", "KeyFile", "KeyPassphraseFile"}) {
        if (sslObject.value(QLatin1String(key)).toString().contains(QLatin1Char('/')))
            return false;
    }
    return true;
}

// "@NAME" as an inline certificate or key stands for the text of the file NAME. Each machine makes
// its own certificates, so the corpus cannot hold them.
inline QJsonObject withInlineFiles(QJsonObject sslObject)
{
    for (const char *key : {"CACertificate", "Certificate", "PrivateKey"}) {
        auto value = sslObject.find(QLatin1String(key));
        if (value == sslObject.end() || !value->toString().startsWith(QLatin1Char('@')))
            continue;
        QFile file(value->toString().mid(1));
        if (file.open(QIODevice::ReadOnly))
            *value = QString::fromLatin1(file.readAll());
    }
    return sslObject;
}
