// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "plugin/factory.h"
#include "plugin/iconnectionhandler.h"
#include "plugin/iinputplugin.h"
#include "tests/kit/hangguard.h"
#include "tests/kit/memorylayout.h"
#include "tests/plugin/frameworktest.h"

#include <QtCore/QMetaMethod>
#include <QtCore/QThread>
#include <QtNetwork/QTcpServer>
#include <QtTest/QSignalSpy>
#include <QtTest/QTest>

#include <memory>
#include <type_traits>

using namespace Qt::StringLiterals;
using namespace frameworktest;

namespace {

class TestHandler : public IConnectionHandler
{
public:
    using IConnectionHandler::IConnectionHandler;

    void handleConnection(Connection conn) override
    {
        received.append(conn);
        conn.setPluginId(QStringLiteral("changed by the handler"));
    }
    void stopAll() override { ++stops; }

    QList<Connection> received;
    int stops = 0;
};

} // namespace

// The behaviour of the framework's classes.
class tst_Framework : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void construction();
    void identityAndConfiguration();
    void setConfigReplacesTheWholeObject();
    void metaCallsDispatchVirtually();
    void metaCallsThroughTheBase();
    void slotsByPointerToMember();
    void virtualDestruction();

    void signalsCarryTheirArguments();
    void recordsTravelWithoutCopy();
    void queryWithNothingConnected();
    void queryAnswers();
    void lastDirectAnswerWins();
    void queuedAnswersDoNotCount();
    void queryByName();

    void handlerReceivesACopy();
    void handlerInAnotherThread();

    void creatorMakesObjects();
    void creatorWithAFunction();
    void creatorsAreDestroyedVirtually();
    void creatorMap();
};

void tst_Framework::construction()
{
    const TestPlugin bare(nullptr);
    QCOMPARE(bare.parent(), nullptr);
    QVERIFY(bare.pluginId.isEmpty());
    QVERIFY(bare.config.isEmpty());

    QObject parent;
    QJsonObject config{{u"port"_s, 7446}};
    const auto *configured = new TestPlugin(&parent, config);
    config.insert(u"port"_s, 1);
    QCOMPARE(configured->parent(), &parent);
    QVERIFY(configured->pluginId.isEmpty());
    QCOMPARE(configured->config, (QJsonObject{{u"port"_s, 7446}}));

    QVERIFY((new TestPlugin(&parent))->config.isEmpty());
    QCOMPARE(parent.children().size(), 2);
}

void tst_Framework::identityAndConfiguration()
{
    TestPlugin plugin(nullptr);
    IPlugin &base = plugin;
    base.pluginId = u"tcp"_s;
    base.setConfig({{u"port"_s, 1}});
    QCOMPARE(plugin.pluginId, u"tcp"_s);
    QCOMPARE(plugin.config.value(u"port"_s).toInt(), 1);
}

void tst_Framework::setConfigReplacesTheWholeObject()
{
    TestPlugin plugin(nullptr, {{u"port"_s, 1}, {u"timeout"_s, 2}});
    QSignalSpy error(&plugin, &IInputPlugin::sError);
    QSignalSpy connected(&plugin, &IInputPlugin::sConnect);
    QSignalSpy disconnected(&plugin, &IInputPlugin::sDisconnect);
    QSignalSpy received(&plugin, &IInputPlugin::receivedData);
    QSignalSpy terminate(&plugin, &IInputPlugin::terminate);

    QJsonObject config{{u"port"_s, 3}};
    plugin.setConfig(config);
    config.insert(u"port"_s, 4);

    QCOMPARE(plugin.config, (QJsonObject{{u"port"_s, 3}}));
    QCOMPARE(plugin.calls, QString()); // no function was called, not even onConfigChanged()
    for (const QSignalSpy *spy : {&error, &connected, &disconnected, &received, &terminate})
        QCOMPARE(spy->count(), 0);

    plugin.setConfig({});
    QVERIFY(plugin.config.isEmpty());
}

void tst_Framework::metaCallsDispatchVirtually()
{
    TestPlugin plugin(nullptr);
    bool result = false;
    QString status;
    QVERIFY(QMetaObject::invokeMethod(&plugin, "onConfigChanged"));
    QVERIFY(QMetaObject::invokeMethod(&plugin, "start", Q_RETURN_ARG(bool, result)));
    QCOMPARE(result, true);
    plugin.startResult = false;
    QVERIFY(QMetaObject::invokeMethod(&plugin, "start", Q_RETURN_ARG(bool, result)));
    QCOMPARE(result, false);
    QVERIFY(QMetaObject::invokeMethod(&plugin, "stop", Q_RETURN_ARG(bool, result)));
    QCOMPARE(result, true);
    QVERIFY(QMetaObject::invokeMethod(&plugin, "getStatus", Q_RETURN_ARG(QString, status)));
    QCOMPARE(status, u"status"_s);
    const SubIdMap subIds{{u"task"_s, u"3"_s}};
    const int length = 17;
    QVERIFY(QMetaObject::invokeMethod(&plugin, "discard", QGenericArgument("int", &length),
                                      QGenericArgument("QMap<QString,QString>", &subIds)));
    QCOMPARE(plugin.calls, u"onConfigChanged start start stop discard(17,3) "_s);
}

// The meta-objects of IPlugin and of IInputPlugin both have each slot. Both call the override.
void tst_Framework::metaCallsThroughTheBase()
{
    TestPlugin plugin(nullptr);
    for (const QMetaObject *meta : {&IPlugin::staticMetaObject, &IInputPlugin::staticMetaObject}) {
        plugin.calls.clear();
        bool result = false;
        QString status;
        const auto own = [meta](const char *signature) {
            const QMetaMethod method = meta->method(meta->indexOfMethod(signature));
            return method.enclosingMetaObject() == meta ? method : QMetaMethod();
        };
        QVERIFY(own("onConfigChanged()").invoke(&plugin));
        QVERIFY(own("start()").invoke(&plugin, Q_RETURN_ARG(bool, result)));
        QVERIFY(own("stop()").invoke(&plugin, Q_RETURN_ARG(bool, result)));
        QVERIFY(own("getStatus()").invoke(&plugin, Q_RETURN_ARG(QString, status)));
        QCOMPARE(plugin.calls, u"onConfigChanged start stop "_s);
        QCOMPARE(status, u"status"_s);
    }
}

void tst_Framework::slotsByPointerToMember()
{
    TestPlugin source(nullptr);
    TestPlugin plugin(nullptr);
    QVERIFY(connect(&source, &IInputPlugin::sConnect, &plugin, &IInputPlugin::start));
    QVERIFY(connect(&source, &IInputPlugin::sDisconnect, &plugin, &IPlugin::stop));
    Q_EMIT source.sConnect();
    Q_EMIT source.sDisconnect();
    QCOMPARE(plugin.calls, u"start stop "_s);
}

void tst_Framework::virtualDestruction()
{
    const int before = TestPlugin::alive;
    delete static_cast<IInputPlugin *>(new TestPlugin(nullptr));
    delete static_cast<IPlugin *>(new TestPlugin(nullptr));
    delete static_cast<QObject *>(new TestPlugin(nullptr));
    QCOMPARE(TestPlugin::alive, before);
}

void tst_Framework::signalsCarryTheirArguments()
{
    TestPlugin plugin(nullptr);
    QSignalSpy error(&plugin, &IInputPlugin::sError);
    QSignalSpy connected(&plugin, &IInputPlugin::sConnect);
    QSignalSpy disconnected(&plugin, &IInputPlugin::sDisconnect);
    QSignalSpy terminate(&plugin, &IInputPlugin::terminate);

    Q_EMIT plugin.sError(u"out of paper"_s);
    Q_EMIT plugin.sConnect();
    Q_EMIT plugin.sDisconnect();
    Q_EMIT plugin.sDisconnect();
    Q_EMIT plugin.terminate();

    QCOMPARE(error.count(), 1);
    QCOMPARE(error[0][0].toString(), u"out of paper"_s);
    QCOMPARE(connected.count(), 1);
    QCOMPARE(disconnected.count(), 2);
    QCOMPARE(terminate.count(), 1);
}

void tst_Framework::recordsTravelWithoutCopy()
{
    TestPlugin plugin(nullptr);
    shared_parsedData received;
    connect(&plugin, &IInputPlugin::receivedData, this,
            [&received](const shared_parsedData &data) { received = data; });
    QSignalSpy byName(&plugin, SIGNAL(receivedData(shared_parsedData)));
    QVERIFY(byName.isValid());

    const shared_parsedData record(new ParsedData);
    Q_EMIT plugin.receivedData(record);

    QCOMPARE(received, record);
    QCOMPARE(byName.count(), 1);
    QCOMPARE(byName[0][0].value<shared_parsedData>(), record);
}

void tst_Framework::queryWithNothingConnected()
{
    TestPlugin plugin(nullptr);
    QCOMPARE(plugin.query(u"loglevel"_s), QStringList());
}

void tst_Framework::queryAnswers()
{
    TestPlugin plugin(nullptr);
    QString asked;
    connect(&plugin, &IInputPlugin::query, this, [&asked](const QString &q) {
        asked = q;
        return QStringList{u"debug"_s, u"info"_s};
    });
    QCOMPARE(plugin.query(u"loglevel"_s), (QStringList{u"debug"_s, u"info"_s}));
    QCOMPARE(asked, u"loglevel"_s);
}

void tst_Framework::lastDirectAnswerWins()
{
    TestPlugin plugin(nullptr);
    int asked = 0;
    for (const QString &answer : {u"first"_s, u"second"_s, u"third"_s}) {
        connect(
                &plugin, &IInputPlugin::query, this,
                [&asked, answer](const QString &) {
                    ++asked;
                    return QStringList{answer};
                },
                Qt::DirectConnection);
    }
    QCOMPARE(plugin.query(u"loglevel"_s), QStringList{u"third"_s});
    QCOMPARE(asked, 3);
}

void tst_Framework::queuedAnswersDoNotCount()
{
    TestPlugin plugin(nullptr);
    int asked = 0;
    connect(
            &plugin, &IInputPlugin::query, this,
            [&asked](const QString &) {
                ++asked;
                return QStringList{u"late"_s};
            },
            Qt::QueuedConnection);
    QCOMPARE(plugin.query(u"loglevel"_s), QStringList());
    QTRY_COMPARE_WITH_TIMEOUT(asked, 1, HangGuardMs);
}

void tst_Framework::queryByName()
{
    TestPlugin plugin(nullptr);
    connect(&plugin, &IInputPlugin::query, this, [](const QString &q) {
        return QStringList{q, q};
    });
    QList<QString> answer;
    QVERIFY(QMetaObject::invokeMethod(&plugin, "query", Q_RETURN_ARG(QList<QString>, answer),
                                      Q_ARG(QString, u"twice"_s)));
    QCOMPARE(answer, (QList<QString>{u"twice"_s, u"twice"_s}));
}

void tst_Framework::handlerReceivesACopy()
{
    TestHandler handler;
    QTcpServer server;
    Connection connection;
    connection.setPluginId(u"tcp"_s);
    connection.setTcpServer(&server);

    IConnectionHandler &base = handler;
    base.handleConnection(connection);
    QVERIFY(QMetaObject::invokeMethod(&handler, "handleConnection", Q_ARG(Connection, connection)));
    QVERIFY(QMetaObject::invokeMethod(&handler, "stopAll"));

    QCOMPARE(handler.received.size(), 2);
    for (const Connection &received : std::as_const(handler.received)) {
        QCOMPARE(received.getPluginId(), u"tcp"_s);
        QCOMPARE(received.getTcpServer(), &server);
    }
    QCOMPARE(connection.getPluginId(), u"tcp"_s); // the handler changed only its own copy
    QCOMPARE(handler.stops, 1);
}

void tst_Framework::handlerInAnotherThread()
{
    auto handler = std::make_unique<TestHandler>();
    QThread thread;
    handler->moveToThread(&thread);
    thread.start();
    {
        Connection connection;
        connection.setData(QByteArrayLiteral("bytes"));
        QVERIFY(QMetaObject::invokeMethod(handler.get(), "handleConnection", Qt::QueuedConnection,
                                          Q_ARG(Connection, connection)));
        connection.setData(QByteArrayLiteral("changed after the call"));
    }
    QVERIFY(QMetaObject::invokeMethod(handler.get(), "stopAll", Qt::BlockingQueuedConnection));
    thread.quit();
    QVERIFY(thread.wait());

    QCOMPARE(handler->received.size(), 1);
    QCOMPARE(handler->received[0].getData(), QByteArrayLiteral("bytes"));
    QCOMPARE(handler->stops, 1);
}

void tst_Framework::creatorMakesObjects()
{
    const std::unique_ptr<const Factory<IInputPlugin>::Creator> creator(
            new Register<TestPlugin, IInputPlugin>::Creator);
    const std::unique_ptr<IInputPlugin> first(creator->create());
    const std::unique_ptr<IInputPlugin> second(creator->create());
    QVERIFY(first && second);
    QVERIFY(first != second);
    QVERIFY(dynamic_cast<TestPlugin *>(first.get()));
    QCOMPARE(first->parent(), nullptr);
    QVERIFY(first->config.isEmpty());
    QVERIFY(first->pluginId.isEmpty());
}

void tst_Framework::creatorWithAFunction()
{
    static TestPlugin *made = nullptr;
    using Function = IInputPlugin *(*)();
    Register<TestPlugin, IInputPlugin>::Creator creator;
    memberAt<Function>(creator, sizeof(void *)) = []() -> IInputPlugin * {
        made = new TestPlugin(nullptr, {{u"made by"_s, u"function"_s}});
        return made;
    };
    const Factory<IInputPlugin>::Creator &base = creator;
    const std::unique_ptr<IInputPlugin> plugin(base.create());
    QVERIFY(plugin);
    QCOMPARE(plugin.get(), made);
}

void tst_Framework::creatorsAreDestroyedVirtually()
{
    static int destroyed = 0;
    class Counting : public Register<TestPlugin, IInputPlugin>::Creator
    {
    public:
        Counting() = default;
        ~Counting() override { ++destroyed; }
        Q_DISABLE_COPY_MOVE(Counting)
    };
    const Factory<IInputPlugin>::Creator *creator = new Counting;
    const std::unique_ptr<IInputPlugin> plugin(creator->create());
    delete creator;
    QCOMPARE(destroyed, 1);
    QCOMPARE(plugin->getStatus(), u"status"_s); // the plugin outlives its creator
}

void tst_Framework::creatorMap()
{
    static_assert(std::is_same_v<InputPluginCreators,
                                 QMap<QString, const Factory<IInputPlugin>::Creator *>>);
    InputPluginCreators creators;
    creators.insert(u"TestPlugin"_s, new Register<TestPlugin, IInputPlugin>::Creator);
    const std::unique_ptr<IInputPlugin> plugin(creators.value(u"TestPlugin"_s)->create());
    QVERIFY(plugin->start());
    qDeleteAll(creators);
}

QTEST_GUILESS_MAIN(tst_Framework)
#include "tst_framework.moc"
