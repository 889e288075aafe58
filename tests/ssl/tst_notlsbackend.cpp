// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "tcpinput/tcpinputplugin2.h"
#include "tests/kit/loglines.h"
#include "tests/kit/testaddress.h"

#include <QtCore/QRegularExpression>
#include <QtNetwork/QSslSocket>
#include <QtTest/QTest>

using namespace Qt::StringLiterals;

namespace {

// Without Qt's own warnings, which begin when a server is made.
QStringList takeOurLog()
{
    return takeLog().filter(QRegularExpression(u"^[DIW]: "_s));
}

} // namespace

// Qt has no usable TLS backend. That is so, for example, if its OpenSSL plugin is not installed.
class tst_NoTlsBackend : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();
    void tlsIsRefused();
    void plainTcpWorks();

private:
    const QJsonObject plain{{u"ipAddr"_s, testAddress().toString()}, {u"port"_s, freePort()}};
};

void tst_NoTlsBackend::initTestCase()
{
    if (!QSslSocket::availableBackends().contains(u"cert-only"_s))
        QSKIP("Qt's backend without TLS is not installed");
    QVERIFY(QSslSocket::setActiveBackend(u"cert-only"_s));
    QVERIFY(!QSslSocket::supportsSsl());
}

void tst_NoTlsBackend::tlsIsRefused()
{
    const MessageCapture capture;
    QJsonObject config = plain;
    config.insert(u"ssl"_s, QJsonObject());
    config.insert(u"timeout"_s, 90);
    TcpInputPlugin2 plugin(nullptr, config);
    plugin.pluginId = u"p"_s;

    QVERIFY(!plugin.start());
    QCOMPARE(takeOurLog(),
             QStringList({u"W: TcpInputPlugin2(p): No usable TLS backend"_s,
                          u"W: TcpInputPlugin2(p): Failed to setup certificates, aborting"_s}));
    QCOMPARE(plugin.getStatus(), u"Listen: :0, timeout: 60s, pool size: 4\r\n"_s);

    // The object still uses TLS, although the new configuration has no key "ssl".
    plugin.setConfig(plain);
    QVERIFY(plugin.start());
    QVERIFY(takeOurLog().contains(u"I: TcpInputPlugin2(p): Starting SSL server on port %1"_s.arg(
            plain.value(u"port"_s).toInt())));
}

void tst_NoTlsBackend::plainTcpWorks()
{
    const MessageCapture capture;
    TcpInputPlugin2 plugin(nullptr, plain);
    QVERIFY(plugin.start());
    QCOMPARE(plugin.getStatus(),
             u"Listen: %1:%2, timeout: 60s, pool size: 4\r\n"_s.arg(testAddress().toString())
                     .arg(plain.value(u"port"_s).toInt()));
    QVERIFY(plugin.stop());
}

QTEST_GUILESS_MAIN(tst_NoTlsBackend)

#include "tst_notlsbackend.moc"
