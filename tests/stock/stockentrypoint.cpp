// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "stockplugin.h"

extern "C" {

Q_DECL_EXPORT IInputPlugin *create(QObject *parent, const QJsonObject &config);

IInputPlugin *create(QObject *parent, const QJsonObject &config)
{
    return new stock::Plugin(parent, config);
}

} // extern "C"
