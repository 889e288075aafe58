// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

// A library from before releases were told: it has both entry points, and answers no question.

#include "plugin/factory.h"
#include "plugin/iinputplugin.h"

namespace {

class OldPlugin final : public IInputPlugin
{
public:
    using IInputPlugin::IInputPlugin;
    void onConfigChanged() override {}
    bool start() override { return true; }
    bool stop() override { return true; }
    QString getStatus() override { return {}; }
    void drop(int) override {}
    void discard(int, const QMap<QString, QString> &) override {}
};

} // namespace

extern "C" {

Q_DECL_EXPORT IInputPlugin *create(QObject *parent, const QJsonObject &config);

IInputPlugin *create(QObject *parent, const QJsonObject &config)
{
    return new OldPlugin(parent, config);
}

} // extern "C"
