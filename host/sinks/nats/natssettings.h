// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include <QtCore/QByteArray>
#include <QtCore/QString>
#include <QtCore/QStringList>

namespace host {

//! Where a NatsStore puts messages, and how it gets there. A value.
struct NatsSettings
{
    QStringList servers; // HOST:PORT each, tried in turn
    QString stream;
    QString user; // empty: none
    QString password; // empty: the user is a token
    QString subject = QStringLiteral("dev.{connection}"); // see SubjectTemplate
    int replicas = 0; // with which a missing stream is created; 0: it is not
    QString caFile; // empty: no TLS, unless there is a certificate
    QString certificateFile;
    QString keyFile;
    QString credentialsFile;
    QByteArray epoch; // 32 hexadecimal digits, others in each start of the program

    bool wantsTls() const { return !caFile.isEmpty() || !certificateFile.isEmpty(); }
};

// Reads "[USER[:PASSWORD]@]HOST[:PORT][,HOST[:PORT]]/STREAM" into servers, stream, user and
// password. Users and passwords are percent-encoded where they have to be; the default port is
// 4222. Returns what is wrong with it, without showing any of it since it may hold a password.
// Empty: nothing.
QString readNatsAddress(const QString &text, NatsSettings &settings);

} // namespace host
