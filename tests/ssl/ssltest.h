// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include "tests/kit/certificates.h"
#include "tests/kit/loglines.h"

#include <QtNetwork/QSslCertificate>
#include <QtNetwork/QSslConfiguration>
#include <QtNetwork/QSslKey>
#include <QtNetwork/QSslSocket>
#include <QtTest/QTest>

#include <optional>

namespace ssltest {

using namespace Qt::StringLiterals;

inline const QString ReadingLine = u"D: SSL: Reading SSL config"_s;

inline QSslCertificate certificate(const QString &name)
{
    return QSslCertificate(certificateText(name).toLatin1(), QSsl::Pem);
}

inline QSslKey rsaKey(const QString &name)
{
    return QSslKey(certificateText(name).toLatin1(), QSsl::Rsa);
}

// The configuration that an empty object gives.
inline QSslConfiguration verifyingDefault()
{
    QSslConfiguration config = QSslConfiguration::defaultConfiguration();
    config.setPeerVerifyMode(QSslSocket::VerifyPeer);
    return config;
}

// A test fails if it logs a line that it does not expect.
class SslTest : public QObject
{
protected:
    void prepare();
    void begin();
    void end();

    std::optional<MessageCapture> capture;
};

inline void SslTest::prepare()
{
    QVERIFY(QSslSocket::supportsSsl());
    const QStringList names{u"ca"_s, u"foreign-ca"_s, u"server"_s, u"client"_s, u"self-signed"_s};
    for (const QString &name : names) {
        QVERIFY(!certificate(name + u".pem"_s).isNull());
        QVERIFY(!rsaKey(name + u".key"_s).isNull());
    }
    // The options and modes that tests set must differ from the defaults.
    const auto config = QSslConfiguration::defaultConfiguration();
    QVERIFY(!config.testSslOption(QSsl::SslOptionDisableServerCipherPreference));
    QVERIFY(!config.handshakeMustInterruptOnError());
    QCOMPARE(config.peerVerifyMode(), QSslSocket::AutoVerifyPeer);
}

inline void SslTest::begin()
{
    capture.emplace();
}

// Each test states all lines that it expects.
inline void SslTest::end()
{
    const QStringList rest = takeLog();
    capture.reset();
    QCOMPARE(rest, QStringList());
}

} // namespace ssltest
