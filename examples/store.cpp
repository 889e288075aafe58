// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

// Puts the lines that devices send into an SQLite database, in a thread of its own. The plugin is
// answered when a line is committed: devices have to wait for a database that is slow, and none of
// their lines is lost or stored twice. SIGHUP makes a fresh plugin; SIGINT and SIGTERM end the
// program when everything that was read is stored.
//
// Arguments: the address and the port to listen on, the database's file and, to try out a slow
// database, how many milliseconds a commit takes; with a certificate and its key it speaks TLS.

#include "messagestore.h"
#include "unixsignals.h"

#include <plugin/kit/inputsession.h>

#include <QtCore/QCoreApplication>
#include <QtCore/QThread>

namespace {

//! The store's thread.
class StoreThread
{
public:
    explicit StoreThread(MessageStore &messageStore) : store(messageStore)
    {
        store.moveToThread(&thread);
        thread.start();
    }
    ~StoreThread() // behind all messages that are on their way
    {
        call([this] { store.close(); });
        thread.quit();
        thread.wait();
    }

    bool open()
    {
        bool isOpen = false;
        call([&] { isOpen = store.open(); });
        return isOpen;
    }

private:
    template<class Function>
    void call(Function function)
    {
        QMetaObject::invokeMethod(&store, function, Qt::BlockingQueuedConnection);
    }

    MessageStore &store;
    QThread thread;
};

QJsonObject configurationOf(const QStringList &arguments)
{
    QJsonObject configuration = {{"ipAddr", arguments[1]}, {"port", arguments[2].toInt()}};
    if (arguments.size() > 6)
        configuration.insert("ssl",
                             QJsonObject{{"CertFile", arguments[5]},
                                         {"KeyFile", arguments[6]},
                                         {"verifyPeer", false}});
    return configuration;
}

void reload(inputkit::InputSession &session, const QJsonObject &configuration)
{
    if (!session.reload(configuration))
        qWarning("not reloaded: %s", qPrintable(session.errorString()));
    if (!session.isListening()) // not even with the old configuration: store what is there, and end
        QCoreApplication::exit(1);
}

} // namespace

int main(int argc, char **argv)
{
    UnixSignals unixSignals{SIGINT, SIGTERM, SIGHUP};
    QCoreApplication application(argc, argv);
    const QStringList arguments = QCoreApplication::arguments();
    if (argc < 4)
        qFatal("usage: store ADDRESS PORT DATABASE [DELAY_MS [CERTIFICATE KEY]]");

    MessageStore store(arguments[3], arguments.value(4).toInt());
    StoreThread thread(store);
    if (!thread.open())
        return 1;

    inputkit::InputSettings settings;
    settings.handlers.message = [&store](const auto &message) { store.add(message); };
    settings.handlers.end = [&store](const auto &end) { store.add(end); };
    settings.receiver = &store;
    settings.acknowledging = true;
    inputkit::InputSession session(settings);
    store.setAcknowledge(session.acknowledger());
    if (!session.start(configurationOf(arguments)))
        qFatal("%s", qPrintable(session.errorString()));

    unixSignals.connect(&application, [&](int number) {
        if (number != SIGHUP)
            QCoreApplication::quit();
        else
            reload(session, configurationOf(arguments));
    });
    return QCoreApplication::exec();
}
