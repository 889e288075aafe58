// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

// What a host meets before it starts a plugin: entry points, classes, the binary interface.

#include "hostcheck/library/checks.h"
#include "hostcheck/library/subject.h"

#include <QtCore/QMetaMethod>
#include <QtCore/QPointer>

#include <memory>

namespace hostcheck {
namespace {

QString name()
{
    return QStringLiteral("TcpInputPlugin2");
}

//! The creators of a test, deleted as a host deletes them.
struct Creators
{
    Creators() = default;
    ~Creators() { qDeleteAll(map); }
    Q_DISABLE_COPY_MOVE(Creators)

    InputPluginCreators map;
};

//! A host's own creator, which tells when it is deleted.
class TellingCreator : public Factory<IInputPlugin>::Creator
{
public:
    explicit TellingCreator(bool &flag) : isDeleted(flag) {}
    ~TellingCreator() override { isDeleted = true; }
    IInputPlugin *create() const override { return nullptr; }

private:
    bool &isDeleted;
};

void entryPoints(Subject &subject)
{
    (void)subject.create(); // each throws if it is not there
    (void)subject.registration();
}

void createTakesConfig(Subject &subject)
{
    const QJsonObject config{{QStringLiteral("port"), 1234}, {QStringLiteral("x"), true}};
    auto parent = std::make_unique<QObject>();
    const QPointer<IInputPlugin> plugin(subject.create()(parent.get(), config));
    require(plugin, QStringLiteral("create() returned null"));
    requireEqual(plugin->parent(), parent.get(), QStringLiteral("parent"));
    requireEqual(plugin->config, config, QStringLiteral("config"));
    requireEqual(plugin->pluginId, QString(), QStringLiteral("plugin id"));
    parent.reset();
    require(!plugin, QStringLiteral("the parent does not delete the plugin"));
}

void registers(Subject &subject)
{
    Creators creators;
    subject.registration()(creators.map);
    requireEqual(QStringList(creators.map.keys()), {name()}, QStringLiteral("keys"));
    const auto *first = creators.map.value(name());
    require(first, QStringLiteral("the creator is null"));
    subject.registration()(creators.map);
    requireEqual(QStringList(creators.map.keys()), {name()}, QStringLiteral("keys, second time"));
    require(creators.map.value(name()) != nullptr, QStringLiteral("the second creator is null"));
}

void registerReplaces(Subject &subject)
{
    bool isDeleted = false;
    bool isOtherDeleted = false;
    const QString other = QStringLiteral("Other");
    Creators creators;
    const auto *telling = new TellingCreator(isDeleted);
    const auto *otherCreator = new TellingCreator(isOtherDeleted);
    creators.map.insert(name(), telling);
    creators.map.insert(other, otherCreator);
    subject.registration()(creators.map);
    require(isDeleted, QStringLiteral("the former creator was not deleted"));
    require(!isOtherDeleted && creators.map.value(other) == otherCreator,
            QStringLiteral("another plugin's creator was touched"));
    require(creators.map.value(name()) != nullptr, QStringLiteral("no new creator"));

    creators.map.insert(QStringLiteral("Null"), nullptr);
    delete creators.map.value(name());
    creators.map.insert(name(), nullptr);
    subject.registration()(creators.map);
    require(creators.map.value(name()) != nullptr, QStringLiteral("null was not replaced"));
}

void creatorCreates(Subject &subject)
{
    Creators creators;
    subject.registration()(creators.map);
    const std::unique_ptr<IInputPlugin> plugin(creators.map.value(name())->create());
    require(plugin != nullptr, QStringLiteral("null"));
    require(!plugin->parent(), QStringLiteral("it has a parent"));
    requireEqual(plugin->config, QJsonObject(), QStringLiteral("config"));
    requireEqual(plugin->pluginId, QString(), QStringLiteral("plugin id"));
    const QJsonObject config{{QStringLiteral("port"), 1}};
    plugin->setConfig(config);
    requireEqual(plugin->config, config, QStringLiteral("config after setConfig()"));
}

void classNames(Subject &subject)
{
    QByteArrayList names;
    for (const QMetaObject *meta = subject.make().metaObject(); meta; meta = meta->superClass())
        names += meta->className();
    requireEqual(names, {"TcpInputPlugin2", "IInputPlugin", "IPlugin", "QObject"},
                 QStringLiteral("classes"));
}

// The methods that a class itself declares, in their order.
QByteArrayList methodsOf(const QMetaObject *meta)
{
    QByteArrayList methods;
    for (int i = meta->methodOffset(); i < meta->methodCount(); ++i) {
        const QMetaMethod method = meta->method(i);
        const QByteArray kind = method.methodType() == QMetaMethod::Signal ? "signal " : "slot ";
        // Qt has two names for this type, and shows the one that the program has used first.
        const QByteArray type =
                QByteArray(method.typeName()).replace("QList<QString>", "QStringList");
        methods += kind + type + ' ' + method.methodSignature();
    }
    return methods;
}

void requireMethods(const QMetaObject *meta, const QByteArrayList &expected)
{
    const QByteArrayList methods = methodsOf(meta);
    for (qsizetype i = 0; i < expected.size(); ++i)
        requireEqual(methods.value(i), expected.at(i),
                     QStringLiteral("%1, method %2").arg(QLatin1String(meta->className())).arg(i));
    requireEqual(methods.size(), expected.size(),
                 QStringLiteral("methods of ") + QLatin1String(meta->className()));
}

void interfaceMethods(Subject &subject)
{
    const QMetaObject *input = subject.make().metaObject()->superClass();
    requireMethods(input,
                   {"signal void sError(QString)", "signal void sConnect()",
                    "signal void sDisconnect()", "signal void receivedData(shared_parsedData)",
                    "signal void terminate()", "signal QStringList query(QString)",
                    "slot void onConfigChanged()", "slot bool start()", "slot bool stop()",
                    "slot QString getStatus()", "slot void discard(int,QMap<QString,QString>)"});
    requireMethods(input->superClass(),
                   {"slot void onConfigChanged()", "slot bool start()", "slot bool stop()",
                    "slot QString getStatus()"});
}

void pluginMethods(Subject &subject)
{
    requireMethods(subject.make().metaObject(),
                   {"signal void newConnection(Connection)", "signal void stopSignal()",
                    "signal void logSize(QString)", "slot void onConfigChanged()",
                    "slot bool start()", "slot bool stop()", "slot QString getStatus()",
                    "slot void discard(int,QMap<QString,QString>)",
                    "slot void slotReceivedData(shared_parsedData)",
                    "slot QStringList onQuery(QString)",
                    "slot void socketError(QSslSocket*,QAbstractSocket::SocketError)",
                    "slot void threadFinished()", "slot void handleConnection()",
                    "slot void showThreads()", "slot void sslErrors(QSslSocket*,QList<QSslError>)",
                    "slot void hshakeError(QSslSocket*,QSslError)"});
}

// Each function is called through its place in the table of virtual functions, as the headers have
// it.
void virtualOrder(Subject &subject)
{
    IInputPlugin &plugin = subject.make();
    const QJsonObject config = plugin.config;
    LogTap &log = subject.log();
    const auto requireOnly = [&](const QString &call, const QStringList &lines) {
        requireEqual(log.texts(), lines, call + QStringLiteral(": log lines"));
        log.clear();
    };
    plugin.setConfig(QJsonObject());
    requireEqual(plugin.config, QJsonObject(), QStringLiteral("config after setConfig()"));
    plugin.setConfig(config);
    requireOnly(QStringLiteral("setConfig()"), {});
    plugin.onConfigChanged();
    requireOnly(QStringLiteral("onConfigChanged()"), {});
    plugin.drop(7);
    requireOnly(QStringLiteral("drop()"),
                {QStringLiteral("TcpInputPlugin2(checked): dropping 7 bytes")});
    plugin.discard(7, {});
    requireOnly(QStringLiteral("discard()"),
                {QStringLiteral("TcpInput2(checked): subid[task] not set")});
    require(plugin.getStatus().startsWith(QLatin1String("Listen: ")),
            QStringLiteral("getStatus() returned another text"));
    requireOnly(QStringLiteral("getStatus()"), {});
    require(plugin.start(), QStringLiteral("start() returned false"));
    require(!log.texts(QStringLiteral("Starting TCP server")).isEmpty(),
            QStringLiteral("start() does not start"));
    log.clear();
    require(plugin.stop(), QStringLiteral("stop() returned false"));
    requireOnly(QStringLiteral("stop()"), {QStringLiteral("TcpInputPlugin2(checked): stop()")});
}

void metaCalls(Subject &subject)
{
    IInputPlugin &plugin = subject.make();
    bool isStarted = false;
    require(QMetaObject::invokeMethod(&plugin, "start", Q_RETURN_ARG(bool, isStarted)) && isStarted,
            QStringLiteral("start() by its name"));
    QString status;
    require(QMetaObject::invokeMethod(&plugin, "getStatus", Q_RETURN_ARG(QString, status)),
            QStringLiteral("getStatus() by its name"));
    requireEqual(status, plugin.getStatus(), QStringLiteral("getStatus() by its name"));
    bool isStopped = false;
    require(QMetaObject::invokeMethod(&plugin, "stop", Q_RETURN_ARG(bool, isStopped)) && isStopped,
            QStringLiteral("stop() by its name"));
}

void twoPlugins(Subject &subject)
{
    IInputPlugin &first = subject.start();
    const std::unique_ptr<IInputPlugin> second(
            subject.create()(nullptr,
                             {{QStringLiteral("ipAddr"), subject.address().toString()},
                              {QStringLiteral("port"), Subject::freePort(subject.address())}}));
    second->pluginId = QStringLiteral("other");
    require(second->start(), QStringLiteral("a second plugin does not start"));
    require(second->getStatus() != first.getStatus(), QStringLiteral("both have the same status"));
    Device device(subject.address(), subject.port());
    device.send("x");
    requireEqual(subject.waitForRecord(device, 1)->getPluginId(), QStringLiteral("checked"),
                 QStringLiteral("plugin id of the record"));
}

} // namespace

const std::vector<Check> &entryChecks()
{
    static const std::vector<Check> checks = {
            {"entry-points", entryPoints},
            {"create", createTakesConfig},
            {"register", registers},
            {"register-replaces", registerReplaces},
            {"creator", creatorCreates},
            {"class-names", classNames},
            {"interface-methods", interfaceMethods},
            {"plugin-methods", pluginMethods},
            {"virtual-order", virtualOrder},
            {"meta-calls", metaCalls},
            {"two-plugins", twoPlugins},
    };
    return checks;
}

} // namespace hostcheck
