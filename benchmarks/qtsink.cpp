// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

// qtsink PORT [CERTIFICATE KEY]
//
// What a server written with Qt's own classes costs: QTcpServer, the sockets spread over four
// threads with Qt's event dispatcher, readAll(), bytes and newlines counted. With a certificate it
// speaks TLS. Runs until SIGTERM, then prints the counts.

#include "benchmarks/linecounter.h"
#include "benchmarks/sinkprocess.h"

#include <QtCore/QCoreApplication>
#include <QtCore/QFile>
#include <QtCore/QSocketNotifier>
#include <QtCore/QThread>
#include <QtNetwork/QSslConfiguration>
#include <QtNetwork/QSslKey>
#include <QtNetwork/QSslSocket>
#include <QtNetwork/QTcpServer>

#include <array>
#include <memory>

namespace {

constexpr int Backlog = 4096; // as the other receivers: no device has to connect twice
constexpr std::size_t ThreadCount = 4; // the plugin's default

// Null without a certificate: plain TCP.
std::unique_ptr<QSslConfiguration> readTls(const QStringList &arguments)
{
    if (arguments.size() < 4)
        return nullptr;
    QFile certificate(arguments.at(2));
    QFile key(arguments.at(3));
    if (!certificate.open(QIODevice::ReadOnly) || !key.open(QIODevice::ReadOnly))
        qFatal("qtsink: cannot read certificate or key");
    auto tls = std::make_unique<QSslConfiguration>(QSslConfiguration::defaultConfiguration());
    tls->setLocalCertificate(QSslCertificate(&certificate));
    const QByteArray pem = key.readAll();
    const QSslKey rsa(pem, QSsl::Rsa);
    tls->setPrivateKey(rsa.isNull() ? QSslKey(pem, QSsl::Ec) : rsa);
    tls->setPeerVerifyMode(QSslSocket::VerifyNone);
    return tls;
}

/*!
    The sockets of one thread.

    Thread: its own; take() must be called there, and counter is read after its end.
*/
class Worker : public QObject
{
    Q_OBJECT

public:
    explicit Worker(const QSslConfiguration *configuration) : tls(configuration) {}

    // Makes the socket here, in the thread that will use it: a socket must not change threads while
    // its notifiers are enabled.
    void take(qintptr descriptor)
    {
        QTcpSocket *socket = tls ? makeTlsSocket(descriptor) : makeSocket<QTcpSocket>(descriptor);
        ++counter.connections;
        connect(socket, &QIODevice::readyRead, this, [this, socket] { read(socket); });
        connect(socket, &QAbstractSocket::disconnected, this, [this, socket] {
            read(socket);
            socket->deleteLater();
        });
    }

    LineCounter counter;

private:
    template<class Socket>
    Socket *makeSocket(qintptr descriptor)
    {
        auto *socket = new Socket(this);
        socket->setSocketDescriptor(descriptor);
        return socket;
    }

    QTcpSocket *makeTlsSocket(qintptr descriptor)
    {
        auto *socket = makeSocket<QSslSocket>(descriptor);
        socket->setSslConfiguration(*tls);
        socket->startServerEncryption();
        return socket;
    }

    void read(QTcpSocket *socket)
    {
        const QByteArray data = socket->readAll();
        counter.add(data.constData(), static_cast<std::size_t>(data.size()));
    }

    const QSslConfiguration *const tls; // null: plain TCP
};

class Server : public QTcpServer
{
    Q_OBJECT

public:
    explicit Server(const QSslConfiguration *tls)
    {
        for (std::size_t i = 0; i < ThreadCount; ++i) {
            workers[i] = std::make_unique<Worker>(tls);
            workers[i]->moveToThread(&threads[i]);
            threads[i].start();
        }
    }

    // Stops the threads and returns the sum of their counts.
    LineCounter finish()
    {
        close();
        LineCounter sum;
        for (std::size_t i = 0; i < ThreadCount; ++i) {
            threads[i].quit();
            threads[i].wait();
            sum.add(workers[i]->counter);
        }
        return sum;
    }

protected:
    void incomingConnection(qintptr descriptor) override
    {
        Worker *worker = workers[next++ % ThreadCount].get();
        QMetaObject::invokeMethod(worker, [worker, descriptor] { worker->take(descriptor); });
    }

private:
    std::array<QThread, ThreadCount> threads;
    std::array<std::unique_ptr<Worker>, ThreadCount> workers;
    std::size_t next = 0;
};

} // namespace

int main(int argc, char **argv)
{
    raiseDescriptorLimit();
    const int stop = openStopSignal();
    const QCoreApplication application(argc, argv);
    const QStringList arguments = QCoreApplication::arguments();
    const std::unique_ptr<QSslConfiguration> tls = readTls(arguments);

    Server server(tls.get());
    server.setListenBacklogSize(Backlog);
    const bool listening = server.listen(QHostAddress::LocalHost, arguments.value(1).toUShort());
    if (!listening)
        qWarning("qtsink: cannot listen");

    const QSocketNotifier stopNotifier(stop, QSocketNotifier::Read);
    QObject::connect(&stopNotifier, &QSocketNotifier::activated, &server,
                     [] { QCoreApplication::quit(); });
    if (listening)
        QCoreApplication::exec();
    server.finish().print();
    std::fflush(stdout);
    // Exits without closing thousands of sockets one by one.
    std::_Exit(listening ? 0 : 1);
}

#include "qtsink.moc"
