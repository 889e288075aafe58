// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "plugin/factory.h"
#include "plugin/iconnectionhandler.h"
#include "plugin/iinputplugin.h"
#include "tests/kit/memorylayout.h"
#include "tests/plugin/frameworktest.h"

#include <QtCore/QMetaMethod>
#include <QtTest/QTest>

#include <cstddef>
#include <cstring>
#include <new>
#include <type_traits>

using namespace Qt::StringLiterals;
using namespace frameworktest;

static_assert(std::is_base_of_v<QObject, IPlugin>);
static_assert(std::is_base_of_v<IPlugin, IInputPlugin>);
static_assert(std::is_base_of_v<QObject, IConnectionHandler>);
static_assert(std::is_abstract_v<IPlugin> && std::is_abstract_v<IInputPlugin>);
static_assert(std::is_abstract_v<IConnectionHandler>);
static_assert(std::has_virtual_destructor_v<IPlugin>);
static_assert(std::has_virtual_destructor_v<Factory<IInputPlugin>::Creator>);

namespace {

// "index signature(names) -> type" of each method that the class itself adds.
QStringList methodsOf(const QMetaObject &meta)
{
    QStringList result;
    for (int i = meta.methodOffset(); i < meta.methodCount(); ++i) {
        const QMetaMethod method = meta.method(i);
        const QString kind = method.methodType() == QMetaMethod::Signal ? u"signal"_s
                : method.methodType() == QMetaMethod::Slot              ? u"slot"_s
                                                                        : u"other"_s;
        const QString access = method.access() == QMetaMethod::Public ? u"public"_s : u"-"_s;
        result.append(QStringLiteral("%1 %2 %3 %4 %5 [%6]")
                              .arg(i - meta.methodOffset())
                              .arg(access, kind, QString::fromLatin1(method.typeName()),
                                   QString::fromLatin1(method.methodSignature()),
                                   QString::fromLatin1(method.parameterNames().join(','))));
    }
    return result;
}

void compareLists(const QStringList &actual, const QStringList &expected)
{
    QCOMPARE(actual, expected); // one line each: QCOMPARE names the first difference
}

} // namespace

// The binary interface that separately built programs must share.
class tst_FrameworkLayout : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void pluginMetaObject();
    void inputPluginMetaObject();
    void connectionHandlerMetaObject();
    void onlyMethodsInTheMetaObjects();

    void pluginVirtualOrder();
    void connectionHandlerVirtualOrder();
    void creatorVirtualOrder();
    void memberOrder();
    void creatorLayout();
    void basesShareTheAddress();
};

void tst_FrameworkLayout::pluginMetaObject()
{
    QCOMPARE(IPlugin::staticMetaObject.className(), "IPlugin");
    QCOMPARE(IPlugin::staticMetaObject.superClass(), &QObject::staticMetaObject);
    compareLists(methodsOf(IPlugin::staticMetaObject),
                 {u"0 public slot void onConfigChanged() []"_s, u"1 public slot bool start() []"_s,
                  u"2 public slot bool stop() []"_s, u"3 public slot QString getStatus() []"_s});
}

void tst_FrameworkLayout::inputPluginMetaObject()
{
    QCOMPARE(IInputPlugin::staticMetaObject.className(), "IInputPlugin");
    QCOMPARE(IInputPlugin::staticMetaObject.superClass(), &IPlugin::staticMetaObject);
    compareLists(methodsOf(IInputPlugin::staticMetaObject),
                 {
                         u"0 public signal void sError(QString) [msg]"_s,
                         u"1 public signal void sConnect() []"_s,
                         u"2 public signal void sDisconnect() []"_s,
                         u"3 public signal void receivedData(shared_parsedData) [data]"_s,
                         u"4 public signal void terminate() []"_s,
                         u"5 public signal QStringList query(QString) [q]"_s, // Qt's name for
                                                                              // QList<QString>
                         u"6 public slot void onConfigChanged() []"_s,
                         u"7 public slot bool start() []"_s,
                         u"8 public slot bool stop() []"_s,
                         u"9 public slot QString getStatus() []"_s,
                         u"10 public slot void discard(int,QMap<QString,QString>) [len,subid]"_s,
                 });
}

void tst_FrameworkLayout::connectionHandlerMetaObject()
{
    QCOMPARE(IConnectionHandler::staticMetaObject.className(), "IConnectionHandler");
    QCOMPARE(IConnectionHandler::staticMetaObject.superClass(), &QObject::staticMetaObject);
    compareLists(methodsOf(IConnectionHandler::staticMetaObject),
                 {u"0 public slot void handleConnection(Connection) [conn]"_s,
                  u"1 public slot void stopAll() []"_s});
}

void tst_FrameworkLayout::onlyMethodsInTheMetaObjects()
{
    for (const QMetaObject *meta : {&IPlugin::staticMetaObject, &IInputPlugin::staticMetaObject,
                                    &IConnectionHandler::staticMetaObject}) {
        QCOMPARE(meta->propertyCount(), QObject::staticMetaObject.propertyCount());
        QCOMPARE(meta->enumeratorCount(), 0);
        QCOMPARE(meta->classInfoCount(), 0);
    }
    QCOMPARE(IInputPlugin::staticMetaObject.indexOfMethod("drop(int)"), -1);
    QCOMPARE(IPlugin::staticMetaObject.indexOfMethod("setConfig(QJsonObject)"), -1);
}

void tst_FrameworkLayout::pluginVirtualOrder()
{
    const int first = firstSlotAfterQObject();
    QCOMPARE(virtualSlot(&IPlugin::setConfig), first);
    QCOMPARE(virtualSlot(&IPlugin::onConfigChanged), first + 1);
    QCOMPARE(virtualSlot(&IPlugin::start), first + 2);
    QCOMPARE(virtualSlot(&IPlugin::stop), first + 3);
    QCOMPARE(virtualSlot(&IPlugin::getStatus), first + 4);

    QCOMPARE(virtualSlot(&IInputPlugin::setConfig), first);
    QCOMPARE(virtualSlot(&IInputPlugin::onConfigChanged), first + 1);
    QCOMPARE(virtualSlot(&IInputPlugin::start), first + 2);
    QCOMPARE(virtualSlot(&IInputPlugin::stop), first + 3);
    QCOMPARE(virtualSlot(&IInputPlugin::getStatus), first + 4);
    QCOMPARE(virtualSlot(&IInputPlugin::drop), first + 5);
    QCOMPARE(virtualSlot(&IInputPlugin::discard), first + 6);
}

void tst_FrameworkLayout::connectionHandlerVirtualOrder()
{
    const int first = firstSlotAfterQObject();
    QCOMPARE(virtualSlot(&IConnectionHandler::handleConnection), first);
    QCOMPARE(virtualSlot(&IConnectionHandler::stopAll), first + 1);
}

void tst_FrameworkLayout::creatorVirtualOrder()
{
    // A destructor takes two slots: one destroys only, the other one also frees the memory.
    QCOMPARE(virtualSlot(&Factory<IInputPlugin>::Creator::create), 2);
    QCOMPARE(virtualSlot(&Register<TestPlugin, IInputPlugin>::Creator::create), 2);
}

void tst_FrameworkLayout::memberOrder()
{
    // The order is: QObject, plugin id, configuration, one word.
    constexpr std::size_t PluginIdOffset = sizeof(QObject);
    constexpr std::size_t ConfigOffset = PluginIdOffset + sizeof(QString);
    constexpr std::size_t WordOffset = ConfigOffset + sizeof(QJsonObject);
    QCOMPARE(sizeof(IPlugin), WordOffset);
    QCOMPARE(sizeof(IInputPlugin), WordOffset + sizeof(void *));
    QCOMPARE(sizeof(IConnectionHandler), sizeof(QObject));

    for (const bool configured : {false, true}) {
        // The constructor must set the word to zero. So fill the memory with another value first.
        alignas(TestPlugin) char memory[sizeof(TestPlugin)];
        std::memset(memory, 0xA5, sizeof(memory));
        auto *plugin = configured ? new (memory) TestPlugin(nullptr, {{u"a"_s, 1}})
                                  : new (memory) TestPlugin(nullptr);
        plugin->pluginId = u"tcp"_s;
        QCOMPARE(memberAt<QString>(*plugin, PluginIdOffset), u"tcp"_s);
        QCOMPARE(&memberAt<QString>(*plugin, PluginIdOffset), &plugin->pluginId);
        QCOMPARE(&memberAt<QJsonObject>(*plugin, ConfigOffset), &plugin->config);
        QCOMPARE(memberAt<quintptr>(*plugin, WordOffset), 0U);
        plugin->~TestPlugin();
    }
}

void tst_FrameworkLayout::creatorLayout()
{
    using Creator = Register<TestPlugin, IInputPlugin>::Creator;
    QCOMPARE(sizeof(Factory<IInputPlugin>::Creator), sizeof(void *));
    QCOMPARE(sizeof(Creator), 2 * sizeof(void *));

    alignas(Creator) char memory[sizeof(Creator)];
    std::memset(memory, 0xA5, sizeof(memory));
    auto *creator = new (memory) Creator;
    QCOMPARE(memberAt<void *>(*creator, sizeof(void *)), nullptr);
    creator->~Creator();
}

void tst_FrameworkLayout::basesShareTheAddress()
{
    TestPlugin plugin(nullptr);
    const void *address = static_cast<IInputPlugin *>(&plugin);
    QCOMPARE(static_cast<const void *>(static_cast<IPlugin *>(&plugin)), address);
    QCOMPARE(static_cast<const void *>(static_cast<QObject *>(&plugin)), address);
}

QTEST_GUILESS_MAIN(tst_FrameworkLayout)
#include "tst_frameworklayout.moc"
