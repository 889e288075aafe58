// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "host/sinks/nats/natsanswers.h"

#include <QtCore/QJsonDocument>
#include <QtCore/QJsonObject>

namespace host {
namespace {

constexpr int NotUnderstood = -1;

bool isControl(char c)
{
    return (c >= 0 && c < ' ') || c == '\x7f';
}

quint64 numberIn(const QJsonObject &object, QLatin1String key)
{
    return static_cast<quint64>(object.value(key).toInteger());
}

} // namespace

StreamAnswer readStreamAnswer(const QByteArray &json)
{
    StreamAnswer answer;
    const QJsonDocument document = QJsonDocument::fromJson(json);
    if (!document.isObject()) {
        answer.errorCode = NotUnderstood;
        answer.error = QStringLiteral("no JetStream server answers");
        return answer;
    }
    const QJsonObject object = document.object();
    if (object.contains(QLatin1String("error"))) {
        const QJsonObject error = object.value(QLatin1String("error")).toObject();
        answer.errorCode = error.value(QLatin1String("err_code")).toInt(NotUnderstood);
        answer.error = error.value(QLatin1String("description")).toString();
        return answer;
    }
    if (object.contains(QLatin1String("message"))) {
        const QJsonObject message = object.value(QLatin1String("message")).toObject();
        answer.sequence = numberIn(message, QLatin1String("seq"));
        answer.headers =
                QByteArray::fromBase64(message.value(QLatin1String("hdrs")).toString().toLatin1());
        return answer;
    }
    if (object.contains(QLatin1String("state"))) {
        const QJsonObject state = object.value(QLatin1String("state")).toObject();
        answer.sequence = numberIn(state, QLatin1String("last_seq"));
        answer.created = object.value(QLatin1String("created")).toString();
        return answer;
    }
    answer.sequence = numberIn(object, QLatin1String("seq"));
    if (answer.sequence == 0) {
        answer.errorCode = NotUnderstood;
        answer.error = QStringLiteral("the server's answer has no sequence number");
    }
    return answer;
}

QByteArray headerValue(const QByteArray &headers, const QByteArray &name)
{
    const QByteArray begin = "\r\n" + name + ": ";
    const qsizetype at = headers.indexOf(begin);
    if (at < 0)
        return {};
    const qsizetype value = at + begin.size();
    const qsizetype end = headers.indexOf("\r\n", value);
    return headers.mid(value, end < 0 ? -1 : end - value);
}

QByteArray headerText(const QString &text)
{
    const QByteArray bytes = text.toUtf8();
    QByteArray value;
    value.reserve(bytes.size());
    for (qsizetype n = 0; n < bytes.size(); ++n) {
        const char c = bytes[n];
        if (isControl(c) || (c == ' ' && (n == 0 || n == bytes.size() - 1)))
            value += '%' + QByteArray(1, c).toHex().toUpper();
        else
            value += c;
    }
    return value;
}

} // namespace host
