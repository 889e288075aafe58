// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "plugin/factory.h"
#include "plugin/iconnectionhandler.h"
#include "plugin/iinputplugin.h"
#include "tests/kit/hangguard.h"
#include "tests/kit/messagecapture.h"

#include <QtCore/QFile>
#include <QtCore/QLibrary>
#include <QtCore/QMetaMethod>
#include <QtCore/QPointer>
#include <QtCore/QProcess>
#include <QtCore/QRegularExpression>
#include <QtTest/QSignalSpy>
#include <QtTest/QTest>

#include <cxxabi.h>
#include <dlfcn.h>
#include <link.h>

#include <cstdlib>
#include <functional>
#include <memory>
#include <utility>

using namespace Qt::StringLiterals;

namespace {

const QString ClassName = u"TcpInputPlugin2"_s;

//! A creator made by the host. The library can only call its virtual functions.
class HostCreator : public Factory<IInputPlugin>::Creator
{
public:
    // counter: number of destroyed creators. atEnd: called by the destructor, after it has counted.
    explicit HostCreator(
            int &counter, std::function<void(const HostCreator *)> atEnd = [](auto *) {})
        : destroyed(counter),
          end(std::move(atEnd))
    {}
    ~HostCreator() override
    {
        ++destroyed;
        end(this);
    }
    Q_DISABLE_COPY_MOVE(HostCreator)

    IInputPlugin *create() const override { return nullptr; }

private:
    int &destroyed;
    const std::function<void(const HostCreator *)> end;
};

//! An exported symbol in the output of nm, with its demangled name.
struct Symbol
{
    QChar type;
    QString name; // as in the library file
    QString meaning; // demangled name; equal to name if that is not mangled
};

QString demangled(const QString &name)
{
    int status = 0;
    const std::unique_ptr<char, decltype(&std::free)> text(
            abi::__cxa_demangle(name.toLatin1().constData(), nullptr, nullptr, &status),
            &std::free);
    return status == 0 ? QString::fromLatin1(text.get()) : name;
}

QList<Symbol> exportedSymbols()
{
    QProcess nm;
    nm.start(QStringLiteral(NM_PROGRAM),
             // Without local symbols: no other library can use them.
             {u"-D"_s, u"--defined-only"_s, u"--extern-only"_s, QStringLiteral(PLUGIN_FILE)});
    if (!nm.waitForFinished(HangGuardMs) || nm.exitCode() != 0)
        return {};
    QList<Symbol> symbols;
    const QStringList lines = QString::fromLatin1(nm.readAllStandardOutput()).split(u'\n');
    for (const QString &line : lines) {
        const QStringList columns = line.split(u' ', Qt::SkipEmptyParts); // address, type, name
        if (columns.size() == 3)
            symbols.append({columns[1].front(), columns[2], demangled(columns[2])});
    }
    return symbols;
}

bool libraryIsMapped()
{
    QFile maps(u"/proc/self/maps"_s);
    return maps.open(QIODevice::ReadOnly) && maps.readAll().contains("libtcpinputplugin2.so");
}

// Whether the library asks the loader never to unmap it.
bool libraryIsMarkedNoDelete()
{
    void *handle = dlopen(PLUGIN_FILE, RTLD_NOW | RTLD_NOLOAD);
    if (!handle)
        return false;
    bool marked = false;
    const link_map *map = nullptr;
    if (dlinfo(handle, RTLD_DI_LINKMAP, &map) == 0) {
        for (const ElfW(Dyn) *entry = map->l_ld; entry->d_tag != DT_NULL; ++entry)
            marked |= entry->d_tag == DT_FLAGS_1 && (entry->d_un.d_val & DF_1_NODELETE);
    }
    dlclose(handle);
    return marked;
}

} // namespace

class tst_EntryPoints : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();
    void init();

    void registerOnAnEmptyMap();
    void registerTwice();
    void registerDeletesTheCreatorThatWasThere();
    void registerDeletesBeforeItRemoves();
    void registerAfterACreatorThatTakesItselfOut();
    void registerReplacesANullEntry();
    void registerLeavesOtherKeysAlone();
    void registerDetachesASharedMap();

    void creatorMakesABarePlugin();
    void createTakesParentAndConfiguration();
    void createWithoutParent();

    void castsWork();
    void virtualFunctionsMeet();
    void connectByPointerToMember();
    void connectByName();
    void metaObject();

    void exportedSymbolsAreTheContract();
    void staysMappedAfterUnload(); // the last test: it unloads the library

private:
    std::unique_ptr<IInputPlugin> makePlugin() const
    {
        return std::unique_ptr<IInputPlugin>(createPlugin(nullptr, {}));
    }

    QLibrary library{QStringLiteral(PLUGIN_FILE)};
    RegisterPluginFunction registerPlugin = nullptr;
    CreatePluginFunction createPlugin = nullptr;
};

void tst_EntryPoints::initTestCase()
{
    QVERIFY2(library.load(), qUtf8Printable(library.errorString()));
    registerPlugin = reinterpret_cast<RegisterPluginFunction>(library.resolve("registerPlugin"));
    createPlugin = reinterpret_cast<CreatePluginFunction>(library.resolve("create"));
    QVERIFY(registerPlugin);
    QVERIFY(createPlugin);
}

void tst_EntryPoints::init()
{
    QTest::failOnWarning(QRegularExpression(u".*"_s));
}

void tst_EntryPoints::registerOnAnEmptyMap()
{
    InputPluginCreators creators;
    registerPlugin(creators);
    QCOMPARE(creators.keys(), QStringList{ClassName});
    QVERIFY(creators.value(ClassName));
    qDeleteAll(creators);
}

void tst_EntryPoints::registerTwice()
{
    InputPluginCreators creators;
    registerPlugin(creators);
    const auto *first = creators.value(ClassName);
    registerPlugin(creators);
    const auto *second = creators.value(ClassName);

    QCOMPARE(creators.size(), 1);
    QVERIFY(second);
    QVERIFY(second != first); // the new creator is made before the old one is deleted
    const std::unique_ptr<IInputPlugin> plugin(second->create());
    QVERIFY(plugin);
    qDeleteAll(creators);
}

void tst_EntryPoints::registerDeletesTheCreatorThatWasThere()
{
    int destroyed = 0;
    InputPluginCreators creators{{ClassName, new HostCreator(destroyed)}};
    registerPlugin(creators);
    QCOMPARE(destroyed, 1);
    QCOMPARE(creators.size(), 1);
    qDeleteAll(creators);
    QCOMPARE(destroyed, 1);
}

// While a creator is destroyed, it is still in the map.
void tst_EntryPoints::registerDeletesBeforeItRemoves()
{
    int destroyed = 0;
    InputPluginCreators creators;
    bool found = false;
    creators.insert(ClassName, new HostCreator(destroyed, [&](const HostCreator *creator) {
                        found = creators.value(ClassName) == creator;
                    }));
    registerPlugin(creators);
    QCOMPARE(destroyed, 1);
    QVERIFY(found);
    QVERIFY(creators.value(ClassName));
    qDeleteAll(creators);
}

void tst_EntryPoints::registerAfterACreatorThatTakesItselfOut()
{
    int destroyed = 0;
    InputPluginCreators creators;
    creators.insert(ClassName,
                    new HostCreator(destroyed, [&](const HostCreator *) { creators.clear(); }));
    registerPlugin(creators);
    QCOMPARE(destroyed, 1);
    QCOMPARE(creators.keys(), QStringList{ClassName});
    QVERIFY(creators.value(ClassName));
    qDeleteAll(creators);
}

void tst_EntryPoints::registerReplacesANullEntry()
{
    InputPluginCreators creators{{ClassName, nullptr}};
    registerPlugin(creators);
    QCOMPARE(creators.size(), 1);
    QVERIFY(creators.value(ClassName));
    qDeleteAll(creators);
}

void tst_EntryPoints::registerLeavesOtherKeysAlone()
{
    int destroyed = 0;
    const auto *other = new HostCreator(destroyed);
    InputPluginCreators creators{
            {u"UdpInputPlugin"_s, other}, {u"tcpinputplugin2"_s, nullptr}, {QString(), nullptr}};
    registerPlugin(creators);
    registerPlugin(creators);

    QCOMPARE(creators.keys(),
             (QStringList{QString(), ClassName, u"UdpInputPlugin"_s, u"tcpinputplugin2"_s}));
    QCOMPARE(creators.value(u"UdpInputPlugin"_s), other);
    QCOMPARE(creators.value(u"tcpinputplugin2"_s), nullptr);
    QCOMPARE(destroyed, 0);
    qDeleteAll(creators);
}

void tst_EntryPoints::registerDetachesASharedMap()
{
    int destroyed = 0;
    const Factory<IInputPlugin>::Creator *old = new HostCreator(destroyed);
    InputPluginCreators creators{{ClassName, old}};
    const InputPluginCreators copy = creators;
    registerPlugin(creators);

    QCOMPARE(destroyed, 1);
    QVERIFY(creators.value(ClassName) != old);
    QCOMPARE(copy.value(ClassName), old); // deleted, but its pointer is still in the other copy
    qDeleteAll(creators);
}

void tst_EntryPoints::creatorMakesABarePlugin()
{
    InputPluginCreators creators;
    registerPlugin(creators);
    const std::unique_ptr<IInputPlugin> first(creators.value(ClassName)->create());
    const std::unique_ptr<IInputPlugin> second(creators.value(ClassName)->create());
    qDeleteAll(creators); // plugins outlive their creator

    QVERIFY(first && second && first != second);
    QCOMPARE(first->metaObject()->className(), "TcpInputPlugin2");
    QCOMPARE(first->parent(), nullptr);
    QVERIFY(first->config.isEmpty());
    QVERIFY(first->pluginId.isEmpty());

    first->setConfig({{u"port"_s, 1}});
    QCOMPARE(first->config, (QJsonObject{{u"port"_s, 1}}));
    QVERIFY(second->config.isEmpty());
}

void tst_EntryPoints::createTakesParentAndConfiguration()
{
    auto parent = std::make_unique<QObject>();
    QJsonObject config{{u"port"_s, 7446}, {u"unknown"_s, true}};
    const QJsonObject original = config;
    const QPointer<IInputPlugin> plugin = createPlugin(parent.get(), config);
    config.insert(u"port"_s, 1);

    QVERIFY(plugin);
    QCOMPARE(plugin->parent(), parent.get());
    QCOMPARE(plugin->config, original);
    QVERIFY(plugin->pluginId.isEmpty());

    parent.reset();
    QVERIFY(!plugin);
}

void tst_EntryPoints::createWithoutParent()
{
    const std::unique_ptr<IInputPlugin> plugin(createPlugin(nullptr, {{u"timeout"_s, 5}}));
    QCOMPARE(plugin->parent(), nullptr);
    QCOMPARE(plugin->config, (QJsonObject{{u"timeout"_s, 5}}));
}

void tst_EntryPoints::castsWork()
{
    const std::unique_ptr<IInputPlugin> plugin = makePlugin();
    QObject *object = plugin.get();
    QCOMPARE(qobject_cast<IInputPlugin *>(object), plugin.get());
    QCOMPARE(qobject_cast<IPlugin *>(object), plugin.get());
    QCOMPARE(qobject_cast<IConnectionHandler *>(object), nullptr);
    QCOMPARE(dynamic_cast<IInputPlugin *>(object), plugin.get());
    QCOMPARE(dynamic_cast<IPlugin *>(object), plugin.get());
    QVERIFY(object->inherits("TcpInputPlugin2"));
    QVERIFY(object->inherits("IInputPlugin"));
    QVERIFY(object->inherits("IPlugin"));
    QVERIFY(!object->inherits("IConnectionHandler"));
    // Host and library use the same meta-object. qobject_cast needs that.
    QCOMPARE(plugin->metaObject()->superClass(), &IInputPlugin::staticMetaObject);
    // As a plugin and as a QObject, it has the same address.
    QCOMPARE(static_cast<void *>(object), static_cast<void *>(plugin.get()));
}

// A call of a virtual function by the host reaches the same function in the library.
void tst_EntryPoints::virtualFunctionsMeet()
{
    const std::unique_ptr<IInputPlugin> plugin = makePlugin();
    plugin->pluginId = u"vt"_s;
    plugin->setConfig({{u"port"_s, 1}});
    QCOMPARE(plugin->config.size(), 1);
    plugin->onConfigChanged();
    QCOMPARE(plugin->getStatus(), u"Listen: :0, timeout: 60s, pool size: 4\r\n"_s);

    const MessageCapture capture;
    plugin->drop(17);
    plugin->discard(1, {});
    const QList<CapturedMessage> messages = MessageCapture::take();
    QCOMPARE(messages.size(), 2);
    QVERIFY(messages[0].text.endsWith(u" TcpInputPlugin2(vt): dropping 17 bytes"));
    QVERIFY(messages[1].text.endsWith(u" TcpInput2(vt): subid[task] not set"));
}

// When the library emits, the host's slots are called, and their return value reaches the library.
void tst_EntryPoints::connectByPointerToMember()
{
    const std::unique_ptr<IInputPlugin> plugin = makePlugin();
    plugin->pluginId = u"pmf"_s;
    shared_parsedData received;
    const auto delivery = connect(plugin.get(), &IInputPlugin::receivedData, this,
                                  [&](const shared_parsedData &data) { received = data; });
    QVERIFY(delivery);
    QVERIFY(connect(plugin.get(), &IInputPlugin::query, this, [](const QString &q) {
        return QStringList{q, u"debug"_s};
    }));

    const shared_parsedData record(new ParsedData);
    QVERIFY(QMetaObject::invokeMethod(plugin.get(), "slotReceivedData",
                                      Q_ARG(shared_parsedData, record)));
    QCOMPARE(received, record);
    QCOMPARE(record->getPluginId(), u"pmf"_s);

    QStringList answer;
    QVERIFY(QMetaObject::invokeMethod(plugin.get(), "onQuery", Q_RETURN_ARG(QStringList, answer),
                                      Q_ARG(QString, u"loglevel"_s)));
    QCOMPARE(answer, (QStringList{u"loglevel"_s, u"debug"_s}));

    QVERIFY(disconnect(delivery));
    received.reset();
    QVERIFY(QMetaObject::invokeMethod(plugin.get(), "slotReceivedData",
                                      Q_ARG(shared_parsedData, record)));
    QVERIFY(!received);
}

void tst_EntryPoints::connectByName()
{
    const std::unique_ptr<IInputPlugin> plugin = makePlugin();
    QSignalSpy received(plugin.get(), SIGNAL(receivedData(shared_parsedData)));
    QVERIFY(received.isValid());
    const shared_parsedData record(new ParsedData);
    QVERIFY(QMetaObject::invokeMethod(plugin.get(), "slotReceivedData",
                                      Q_ARG(shared_parsedData, record)));
    QCOMPARE(received.count(), 1);
    QCOMPARE(received[0][0].value<shared_parsedData>(), record);
}

// Includes parameter names: a program that lists a plugin's methods can see them.
void tst_EntryPoints::metaObject()
{
    const std::unique_ptr<IInputPlugin> plugin = makePlugin();
    const QMetaObject *meta = plugin->metaObject();
    QStringList methods;
    for (int i = meta->methodOffset(); i < meta->methodCount(); ++i) {
        const QMetaMethod method = meta->method(i);
        QCOMPARE(method.access(), QMetaMethod::Public);
        methods.append(
                QStringLiteral("%1 %2 %3 [%4]")
                        .arg(method.methodType() == QMetaMethod::Signal ? u"signal" : u"slot")
                        .arg(QString::fromLatin1(method.typeName()),
                             QString::fromLatin1(method.methodSignature()),
                             QString::fromLatin1(method.parameterNames().join(','))));
    }
    const QStringList expected{
            u"signal void newConnection(Connection) [conn]"_s,
            u"signal void stopSignal() []"_s,
            u"signal void logSize(QString) []"_s,
            u"slot void onConfigChanged() []"_s,
            u"slot bool start() []"_s,
            u"slot bool stop() []"_s,
            u"slot QString getStatus() []"_s,
            u"slot void discard(int,QMap<QString,QString>) [,subid]"_s,
            u"slot void slotReceivedData(shared_parsedData) [data]"_s,
            u"slot QStringList onQuery(QString) []"_s,
            u"slot void socketError(QSslSocket*,QAbstractSocket::SocketError) [socket,]"_s,
            u"slot void threadFinished() []"_s,
            u"slot void handleConnection() []"_s,
            u"slot void showThreads() []"_s,
            u"slot void sslErrors(QSslSocket*,QList<QSslError>) [,errors]"_s,
            u"slot void hshakeError(QSslSocket*,QSslError) [,error]"_s,
    };
    QCOMPARE(methods, expected);
    QCOMPARE(meta->propertyCount(), QObject::staticMetaObject.propertyCount());
    QCOMPARE(meta->superClass()->superClass(), &IPlugin::staticMetaObject);
}

void tst_EntryPoints::exportedSymbolsAreTheContract()
{
    const QList<Symbol> symbols = exportedSymbols();
    QVERIFY2(!symbols.isEmpty(), "nm failed");

    QStringList plainNames;
    QStringList metaObjects;
    for (const Symbol &symbol : symbols) {
        QString meaning = symbol.meaning;
        if (meaning.startsWith(u"__")) // a symbol of a sanitizer
            continue;
        if (meaning == symbol.name) {
            plainNames.append(symbol.name);
            continue;
        }
        if (meaning.endsWith(u"::staticMetaObject"))
            metaObjects.append(meaning.chopped(18));

        static const QRegularExpression prefix(
                u"^(typeinfo name for |typeinfo for |vtable for )"_s);
        meaning.remove(prefix);
        static const QRegularExpression framework(
                u"^(IPlugin|IInputPlugin|IConnectionHandler|Factory<IInputPlugin>::Creator)\\b"_s);
        QVERIFY2(meaning.contains(framework),
                 qUtf8Printable(QStringLiteral("%1 %2").arg(symbol.type).arg(meaning)));
    }
    plainNames.sort();
    QCOMPARE(plainNames, (QStringList{u"create"_s, u"registerPlugin"_s}));
    metaObjects.sort();
    QCOMPARE(metaObjects, (QStringList{u"IConnectionHandler"_s, u"IInputPlugin"_s, u"IPlugin"_s}));
}

// The library has registered meta-types. They must stay valid when a host unloads the library.
void tst_EntryPoints::staysMappedAfterUnload()
{
    makePlugin().reset();
    QVERIFY(libraryIsMapped());
    QVERIFY(libraryIsMarkedNoDelete());

    QVERIFY(library.unload());

    QVERIFY(libraryIsMapped());
    const std::unique_ptr<IInputPlugin> plugin = makePlugin(); // its code can still run
    QCOMPARE(plugin->metaObject()->className(), "TcpInputPlugin2");
}

QTEST_GUILESS_MAIN(tst_EntryPoints)

#include "tst_entrypoints.moc"
