// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include "plugin/iinputplugin.h"

namespace frameworktest {

using namespace Qt::StringLiterals;

using SubIdMap = QMap<QString, QString>;

//! A plugin that records which of its functions are called.
class TestPlugin : public IInputPlugin
{
public:
    explicit TestPlugin(QObject *parent) : IInputPlugin(parent) { ++alive; }
    TestPlugin(QObject *parent, const QJsonObject &initial) : IInputPlugin(parent, initial)
    {
        ++alive;
    }
    ~TestPlugin() override { --alive; }
    Q_DISABLE_COPY_MOVE(TestPlugin)

    void onConfigChanged() override { calls += QStringLiteral("onConfigChanged "); }
    bool start() override
    {
        calls += QStringLiteral("start ");
        return startResult;
    }
    bool stop() override
    {
        calls += QStringLiteral("stop ");
        return true;
    }
    QString getStatus() override { return QStringLiteral("status"); }
    void drop(int len) override { calls += QStringLiteral("drop(%1) ").arg(len); }
    void discard(int len, const SubIdMap &subid) override
    {
        calls += QStringLiteral("discard(%1,%2) ").arg(len).arg(subid.value(u"task"_s));
    }

    QString calls;
    bool startResult = true;

    static inline int alive = 0;
};

} // namespace frameworktest
