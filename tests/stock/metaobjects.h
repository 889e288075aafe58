// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include <QtCore/QMetaMethod>
#include <QtCore/QObject>
#include <QtCore/QStringList>

// The signals and slots that an object's own class declares, in order, as hosts can see them.
inline QStringList methodsOf(const QObject &object)
{
    const QMetaObject *meta = object.metaObject();
    QStringList methods;
    for (int i = meta->methodOffset(); i < meta->methodCount(); ++i) {
        const QMetaMethod method = meta->method(i);
        methods += QStringLiteral("%1 %2 %3(%4), names: %5")
                           .arg(QLatin1String(method.methodType() == QMetaMethod::Signal ? "signal"
                                                                                         : "slot"),
                                QString::fromLatin1(method.typeName()),
                                QString::fromLatin1(method.name()),
                                QString::fromLatin1(method.parameterTypes().join(", ")),
                                QString::fromLatin1(method.parameterNames().join(", ")));
    }
    return methods;
}
