// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "tests/kit/certificates.h"
#include "tests/kit/hangguard.h"
#include "tests/kit/testaddress.h"
#include "tests/kit/tlsengines.h"

#include <QtCore/QJsonDocument>
#include <QtCore/QJsonObject>
#include <QtCore/QProcess>
#include <QtTest/QtTest>

namespace {

QString text(const char *latin1)
{
    return QString::fromLatin1(latin1);
}

//! A running program. The destructor kills it.
class Program
{
public:
    Program(const QString &file, const QStringList &arguments) { process.start(file, arguments); }
    ~Program()
    {
        process.kill();
        process.waitForFinished(HangGuardMs);
    }
    Q_DISABLE_COPY_MOVE(Program)

    // The exit code. -1 if the program crashed, or did not end before the hang guard.
    int finish()
    {
        const bool ended =
                process.state() == QProcess::NotRunning || process.waitForFinished(HangGuardMs);
        return ended && process.exitStatus() == QProcess::NormalExit ? process.exitCode() : -1;
    }

    QProcess process;
};

} // namespace

/*!
    TLS with the programs alone, as an operator uses them.
*/
class tst_TlsPrograms : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase_data();
    void init();
    void cleanup();

    void hearsOpenSsl();
    void faultyDevices_data();
    void faultyDevices();

private:
    QString where() const { return text("%1:%2").arg(testAddress().toString()).arg(port); }
    void startHost(const QStringList &arguments = {});
    QByteArray stopHost();
    int simulate(const QStringList &arguments) const;

    quint16 port = 0;
    std::unique_ptr<Program> host;
};

void tst_TlsPrograms::initTestCase_data()
{
    QTest::addColumn<QString>("engine");
    for (const char *engine : TlsEngines)
        QTest::newRow(engine) << QString::fromLatin1(engine);
}

void tst_TlsPrograms::init()
{
    port = freePort();
}

void tst_TlsPrograms::cleanup()
{
    host.reset();
}

// Returns when the host listens.
void tst_TlsPrograms::startHost(const QStringList &arguments)
{
    QFETCH_GLOBAL(QString, engine);
    const QByteArray tls =
            QJsonDocument(withEngine(serverTls(), engine)).toJson(QJsonDocument::Compact);
    host = std::make_unique<Program>(text(INPUTHOST_FILE),
                                     QStringList{text("--plugin"), text(PLUGIN_FILE), text("--set"),
                                                 text("ipAddr=") + testAddress().toString(),
                                                 text("--set"), text("port=%1").arg(port),
                                                 text("--set"),
                                                 text("ssl=") + QString::fromUtf8(tls)}
                                             + arguments);
    QByteArray log;
    QTRY_VERIFY2_WITH_TIMEOUT((log += host->process.readAllStandardError()).contains("Listening"),
                              log.constData(), HangGuardMs);
}

// Stops the host. Returns its output since the last read, or "failed" if its exit code is not 0.
QByteArray tst_TlsPrograms::stopHost()
{
    host->process.terminate();
    return host->finish() == 0 ? host->process.readAllStandardOutput() : QByteArray("failed");
}

int tst_TlsPrograms::simulate(const QStringList &arguments) const
{
    Program simulator(text(DEVICESIM_FILE),
                      QStringList{text("--host"), testAddress().toString(), text("--port"),
                                  QString::number(port), text("--tls"), text("--ca"),
                                  certificateFile(text("ca.pem")), text("--server-name"),
                                  text("localhost"), text("--quiet")}
                              + arguments);
    return simulator.finish();
}

void tst_TlsPrograms::hearsOpenSsl()
{
    startHost();
    Program client(text("openssl"),
                   {text("s_client"), text("-quiet"), text("-no_ign_eof"), text("-connect"),
                    where(), text("-CAfile"), certificateFile(text("ca.pem")),
                    text("-verify_return_error")});
    client.process.write("hello\n");
    client.process.closeWriteChannel();
    QCOMPARE(client.finish(), 0);
    QByteArray line;
    QTRY_VERIFY_WITH_TIMEOUT((line += host->process.readAllStandardOutput()).endsWith('\n'),
                             HangGuardMs);
    const QJsonObject record = QJsonDocument::fromJson(line).object();
    QCOMPARE(record.value(text("text")).toString(), text("hello"));
    QVERIFY(!record.value(text("peer")).toString().isEmpty());
    QCOMPARE(stopHost(), QByteArray());
}

void tst_TlsPrograms::faultyDevices_data()
{
    QTest::addColumn<QString>("fault");
    QTest::addColumn<QString>("version");
    QTest::addColumn<bool>("delivers");
    for (const char *version : {"1.2", "1.3"}) {
        const auto add = [version](const char *fault, bool delivers) {
            QTest::addRow("%s, %s", fault, version) << text(fault) << text(version) << delivers;
        };
        add("silent", false);
        add("garbage", false);
        add("abort-handshake", false);
        add("close-notify-only", true);
        add("close-without-reading", true);
    }
}

// The host gets what the faulty devices could deliver, and serves the good devices after them.
void tst_TlsPrograms::faultyDevices()
{
    QFETCH(QString, fault);
    QFETCH(QString, version);
    QFETCH(bool, delivers);
    constexpr int Faulty = 20;
    constexpr int Good = 3;
    constexpr int Messages = 10;
    startHost({text("--output"), text("raw")});
    QStringList arguments{text("--fault"),       fault,
                          text("--tls-version"), version,
                          text("--connections"), QString::number(Faulty),
                          text("--messages"),    QString::number(Messages)};
    if (fault == QLatin1String("silent"))
        arguments << text("--linger-ms") << text("100");
    QCOMPARE(simulate(arguments), 0);
    QCOMPARE(simulate({text("--connections"), QString::number(Good), text("--messages"),
                       QString::number(Messages)}),
             0);
    const qsizetype expected = (delivers ? Faulty + Good : Good) * Messages;
    QByteArray messages;
    QTRY_VERIFY_WITH_TIMEOUT((messages += host->process.readAllStandardOutput()).count('\n')
                                     >= expected,
                             HangGuardMs);
    messages += stopHost();
    QCOMPARE(messages.count('\n'), expected);
}

QTEST_GUILESS_MAIN(tst_TlsPrograms)
#include "tst_tlsprograms.moc"
