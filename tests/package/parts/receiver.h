// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include <plugin/iinputplugin.h>

#include <QtCore/QByteArray>

//! Takes complete lines from a plugin, and answers it.
class Receiver : public QObject
{
    Q_OBJECT

public:
    // input: outlives this.
    explicit Receiver(IInputPlugin &input);

    QByteArray lines() const { return received; }

Q_SIGNALS:
    void linesCame();

private:
    void take(const shared_parsedData &record);

    IInputPlugin &plugin;
    QByteArray received;
};
