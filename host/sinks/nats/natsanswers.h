// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include <QtCore/QByteArray>
#include <QtCore/QString>

namespace host {

//! What has become of a request.
struct NatsAnswer
{
    enum class Kind {
        Data, // the server's answer
        Unknown, // no answer: it may have been done, or not
    };

    Kind kind = Kind::Unknown;
    QByteArray data;
};

//! What a stream says of a message, or of itself. A value.
struct StreamAnswer
{
    int errorCode = 0; // the server's, for programs; 0: no error
    QString error; // its text
    quint64 sequence = 0; // of the message; of the stream's last message
    QByteArray headers; // of a message that was asked for
    QString created; // when the stream was
};

constexpr int StreamNotFound = 10059;
constexpr int MessageTooLong = 10054;
constexpr int MessageNotFound = 10037;

// The answer to a publication, to a question for a message or for a stream, or to the creation of
// one. What cannot be understood is an error.
StreamAnswer readStreamAnswer(const QByteArray &json);

// The value of the header; empty: there is none. headers: as they come from the server.
QByteArray headerValue(const QByteArray &headers, const QByteArray &name);

// A text as the value of a header: control characters, which could end the line, and a blank at the
// beginning or the end, which readers leave out, are percent-encoded.
QByteArray headerText(const QString &text);

} // namespace host
