// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "tlsprobe.h"

#include "tests/kit/testaddress.h"

#include <QtCore/QCryptographicHash>

namespace {

QString hex(const QByteArray &bytes)
{
    return QString::fromLatin1(bytes.toHex());
}

//! Reads the parts of a message, one after the other. Behind the end everything is empty.
class Reader
{
public:
    explicit Reader(const QByteArray &message) : rest(message) {}

    QByteArray take(qsizetype count)
    {
        QByteArray part = rest.left(count);
        rest.remove(0, count);
        return part;
    }
    int number(int bytes)
    {
        int value = 0;
        const QByteArray part = take(bytes);
        for (const char byte : part)
            value = value * 256 + static_cast<uchar>(byte);
        return value;
    }
    // A part behind its length.
    QByteArray vector(int lengthBytes) { return take(number(lengthBytes)); }
    bool isEmpty() const { return rest.isEmpty(); }

private:
    QByteArray rest;
};

} // namespace

TlsProbe::TlsProbe(int minVersion, int maxVersion) : device(maxVersion)
{
    SSL_set_security_level(native(), 0);
    SSL_set_min_proto_version(native(), minVersion);
    SSL_set_options(native(), SSL_OP_NO_TICKET);
    SSL_set_psk_client_callback(native(),
                                [](SSL *, const char *, char *identity, unsigned int,
                                   unsigned char *key, unsigned int) {
                                    qstrcpy(identity, "stranger");
                                    *key = 1;
                                    return 1U;
                                });
    SSL_set_msg_callback(native(), note);
    SSL_set_msg_callback_arg(native(), this);
}

bool TlsProbe::shakeHands(quint16 port)
{
    if (!device.connect(testAddress(), port))
        qFatal("the probe cannot connect");
    const bool done = device.handshake();
    device.flush();
    if (!done)
        finish();
    else
        messages.append(QStringLiteral("%1 %2%3").arg(
                QLatin1String(SSL_get_version(native())),
                QLatin1String(SSL_get_cipher_name(native())),
                SSL_session_reused(native()) == 1 ? QStringLiteral(", resumed") : QString()));
    return done;
}

void TlsProbe::finish()
{
    device.socket.finish();
    device.readToEnd();
}

void TlsProbe::note(int isWritten, int, int type, const void *bytes, size_t length, SSL *,
                    void *probe)
{
    const QByteArray message(static_cast<const char *>(bytes), static_cast<qsizetype>(length));
    auto *self = static_cast<TlsProbe *>(probe);
    if (type == SSL3_RT_ALERT)
        self->messages.append(
                (isWritten != 0 ? QStringLiteral("alert sent ") : QStringLiteral("alert "))
                + hex(message));
    else if (type == SSL3_RT_HANDSHAKE && isWritten == 0)
        self->noteMessage(message);
}

void TlsProbe::noteMessage(const QByteArray &message)
{
    Reader reader(message);
    const int type = reader.number(1);
    const QByteArray body = reader.vector(3);
    switch (type) {
    case SSL3_MT_SERVER_HELLO:
        noteHello(body);
        break;
    case SSL3_MT_SERVER_KEY_EXCHANGE:
        noteKeyExchange(body);
        break;
    case SSL3_MT_CERTIFICATE_VERIFY:
        scheme = Reader(body).number(2);
        messages.append(QStringLiteral("signature %1").arg(scheme, 4, 16));
        break;
    case SSL3_MT_CERTIFICATE: // the whole chain
        messages.append(QStringLiteral("certificate ")
                        + hex(QCryptographicHash::hash(body, QCryptographicHash::Sha1)));
        break;
    case SSL3_MT_FINISHED:
        break;
    case SSL3_MT_NEWSESSION_TICKET:
        messages.append(QStringLiteral("ticket"));
        break;
    default: // nothing in them is random
        messages.append(QStringLiteral("message %1: %2").arg(type).arg(hex(body)));
        break;
    }
}

void TlsProbe::noteHello(const QByteArray &body)
{
    Reader reader(body);
    const QByteArray version = reader.take(2);
    const QByteArray random = reader.take(32);
    const qsizetype session = reader.vector(1).size();
    const QByteArray cipher = reader.take(2);
    const QByteArray compression = reader.take(1);
    Reader extensions(reader.vector(2));
    QStringList names;
    while (!extensions.isEmpty()) {
        const int type = extensions.number(2);
        QByteArray content = extensions.vector(2);
        if (type == TLSEXT_TYPE_key_share) {
            content.truncate(2); // behind the group comes a random key
            group = Reader(content).number(2);
        }
        names.append(QStringLiteral("%1=%2").arg(type).arg(hex(content)));
    }
    messages.append(
            QStringLiteral("hello %1, random%2, session %3, cipher %4, compression %5, "
                           "extensions %6")
                    .arg(hex(version), random.contains("DOWNGRD") ? hex(random.last(8)) : QString())
                    .arg(session)
                    .arg(hex(cipher), hex(compression), names.join(QLatin1Char(' '))));
}

void TlsProbe::noteKeyExchange(const QByteArray &body)
{
    constexpr int NamedCurve = 3;
    const int exchange = SSL_CIPHER_get_kx_nid(SSL_get_pending_cipher(native()));
    const bool shared = exchange == NID_kx_psk || exchange == NID_kx_rsa_psk
            || exchange == NID_kx_ecdhe_psk || exchange == NID_kx_dhe_psk;
    Reader reader(body);
    QStringList parts;
    if (shared)
        parts.append(QStringLiteral("hint ") + hex(reader.vector(2)));
    if (exchange == NID_kx_ecdhe || exchange == NID_kx_ecdhe_psk) {
        if (reader.number(1) == NamedCurve)
            group = reader.number(2);
        parts.append(QStringLiteral("group %1").arg(group, 4, 16));
        reader.vector(1); // the server's key, which is random
    } else if (exchange == NID_kx_dhe || exchange == NID_kx_dhe_psk) {
        parts.append(QStringLiteral("%1 bits").arg(8 * reader.vector(2).size()));
        parts.append(QStringLiteral("generator ") + hex(reader.vector(2)));
        reader.vector(2);
    }
    if (!reader.isEmpty()) {
        scheme = reader.number(2);
        parts.append(QStringLiteral("signature %1").arg(scheme, 4, 16));
    }
    messages.append(QStringLiteral("key exchange, ") + parts.join(QStringLiteral(", ")));
}
