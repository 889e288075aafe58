// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "plugin/factory.h"
#include "plugin/iinputplugin.h"
#include "tcpinput/tcpinputplugin2.h"

extern "C" {

Q_DECL_EXPORT void registerPlugin(InputPluginCreators &creators);
Q_DECL_EXPORT IInputPlugin *create(QObject *parent, const QJsonObject &config);

void registerPlugin(InputPluginCreators &creators)
{
    const QString key = QStringLiteral("TcpInputPlugin2");
    const auto *creator = new Register<TcpInputPlugin2, IInputPlugin>::Creator;
    delete creators.value(key); // still in the map: its destructor may look there
    creators.remove(key);
    creators.insert(key, creator);
}

IInputPlugin *create(QObject *parent, const QJsonObject &config)
{
    return new TcpInputPlugin2(parent, config);
}

} // extern "C"
