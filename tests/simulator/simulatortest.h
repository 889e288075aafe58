// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include "simulator/messageformat.h"
#include "simulatorreceivers.h"
#include "tests/kit/hangguard.h"
#include "tests/kit/testaddress.h"

#include <QtCore/QCryptographicHash>
#include <QtCore/QJsonArray>
#include <QtCore/QJsonDocument>
#include <QtCore/QJsonObject>
#include <QtCore/QProcess>
#include <QtCore/QTemporaryDir>
#include <QtNetwork/QSslKey>
#include <QtTest/QTest>

#include <csignal>

namespace simulatortest {

using namespace simulator;

inline QString text(const char *latin1)
{
    return QString::fromLatin1(latin1);
}

inline QStringList words(const char *latin1)
{
    return text(latin1).split(QLatin1Char(' '), Qt::SkipEmptyParts);
}

inline QByteArray sha1(const QByteArray &bytes)
{
    return QCryptographicHash::hash(bytes, QCryptographicHash::Sha1).toHex();
}

// The bytes of the device's messages, from number first to number last.
inline QByteArray stream(quint64 device, quint64 first, quint64 last, const Options &options = {})
{
    const MessageFormat format(options);
    QByteArray bytes;
    for (quint64 number = first; number <= last; ++number)
        format.append(bytes, device, number);
    return bytes;
}

/*!
    A run of the program devicesim. It reports as JSON.
*/
class Simulator
{
public:
    ~Simulator()
    {
        process.kill();
        process.waitForFinished();
    }

    void start(const QTcpServer &receiver, const QStringList &arguments)
    {
        start(QStringList{QStringLiteral("--host"), receiver.serverAddress().toString(),
                          QStringLiteral("--port"), QString::number(receiver.serverPort()),
                          QStringLiteral("--output"), QStringLiteral("json")}
              + arguments);
    }

    void setEnvironment(const QStringList &variables) { process.setEnvironment(variables); }

    void start(const QStringList &arguments)
    {
        process.start(QStringLiteral(DEVICESIM_FILE), arguments);
    }

    // Runs this thread's event loop, so that receivers continue.
    bool waitForEnd()
    {
        const bool ended = QTest::qWaitFor(
                [this] { return process.state() == QProcess::NotRunning; }, HangGuardMs);
        output = process.readAllStandardOutput();
        return ended && process.exitStatus() == QProcess::NormalExit;
    }

    // To its standard input.
    void write(const QByteArray &bytes) { process.write(bytes); }
    void endInput() { process.closeWriteChannel(); }
    // descriptor: takes what it writes to standard error.
    void writeErrorsTo(int descriptor)
    {
        process.setChildProcessModifier([descriptor] { ::dup2(descriptor, STDERR_FILENO); });
    }
    void setInputFile(const QString &file) { process.setStandardInputFile(file); }

    void signal(int number) { ::kill(static_cast<pid_t>(process.processId()), number); }

    int exitCode() const { return process.exitCode(); }
    QByteArray errors() { return process.readAllStandardError(); }
    QJsonObject document() const { return QJsonDocument::fromJson(output).object(); }
    QJsonObject summary() const { return document().value(text("summary")).toObject(); }
    QJsonArray connections() const { return document().value(text("connections")).toArray(); }
    QJsonObject connection(int index = 0) const { return connections().at(index).toObject(); }

    QByteArray output; // valid after waitForEnd()

private:
    QProcess process;
};

inline QString end(const QJsonObject &connection)
{
    return connection.value(text("end")).toString();
}

inline int number(const QJsonObject &object, const char *key)
{
    return object.value(text(key)).toInt(-1);
}

// Binds a port, but nobody listens on it.
class DeafPort
{
public:
    DeafPort() { socket.bind(testAddress(), 0); }
    QStringList arguments() const
    {
        return {QStringLiteral("--host"), testAddress().toString(), QStringLiteral("--port"),
                QString::number(socket.localPort())};
    }

private:
    QTcpSocket socket;
};

// Tests of the program, with certificates for TLS.
class SimulatorTest : public QObject
{
protected:
    void prepare();

    QString file(const char *name) const { return certificates.filePath(text(name)); }
    void openssl(const QStringList &arguments);
    QSslConfiguration serverConfiguration() const;

    QTemporaryDir certificates;
};

inline void SimulatorTest::prepare()
{
    QVERIFY(certificates.isValid());
    std::signal(SIGPIPE, SIG_IGN); // TlsPeer may write to closed connections
    const QStringList newKey =
            words("req -x509 -newkey ec -pkeyopt ec_paramgen_curve:P-256 -nodes");
    const QStringList byAuthority{text("-CA"), file("ca.pem"), text("-CAkey"), file("ca.key")};
    const auto made = [this](const char *name) {
        return QStringList{text("-keyout"), file(name) + text(".key"),
                           text("-out"),    file(name) + text(".pem"),
                           text("-subj"),   text("/CN=") + text(name)};
    };
    const QStringList serverNames{text("-addext"),
                                  text("subjectAltName=DNS:receiver.example,IP:")
                                          + testAddress().toString()};
    openssl(newKey + made("ca"));
    openssl(newKey + made("stranger"));
    openssl(newKey + made("server") + serverNames + byAuthority);
    openssl(newKey + made("device") + byAuthority);
}

inline void SimulatorTest::openssl(const QStringList &arguments)
{
    QProcess process;
    process.start(QStringLiteral("openssl"), arguments);
    QVERIFY2(process.waitForFinished(HangGuardMs), "the program openssl makes the certificates");
    QVERIFY2(process.exitCode() == 0, process.readAllStandardError().constData());
}

inline QSslConfiguration SimulatorTest::serverConfiguration() const
{
    QSslConfiguration configuration;
    QFile keyFile(file("server.key"));
    if (keyFile.open(QFile::ReadOnly))
        configuration.setPrivateKey(QSslKey(keyFile.readAll(), QSsl::Ec));
    configuration.setLocalCertificateChain(QSslCertificate::fromPath(file("server.pem")));
    configuration.setCaCertificates(QSslCertificate::fromPath(file("ca.pem")));
    return configuration;
}

} // namespace simulatortest
