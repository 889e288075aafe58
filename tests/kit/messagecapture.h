// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include <QtCore/QList>
#include <QtCore/QMutex>
#include <QtCore/QString>
#include <QtCore/QtGlobal>

#include <utility>

//! One message as it reached Qt's message handler.
struct CapturedMessage
{
    QtMsgType level = QtDebugMsg;
    QString text;
    bool contextIsEmpty = false; // no file, line, function or category

    bool operator==(const CapturedMessage &other) const
    {
        return level == other.level && text == other.text && contextIsEmpty == other.contextIsEmpty;
    }
};

/*!
    Collects what is written to Qt's message output during its lifetime. One at a time.

    Thread: any thread may write; take() from any.
    Locks:  mutex.
*/
class MessageCapture
{
public:
    MessageCapture() : previous(qInstallMessageHandler(&MessageCapture::handle)) {}
    ~MessageCapture()
    {
        qInstallMessageHandler(previous);
        take();
    }
    Q_DISABLE_COPY_MOVE(MessageCapture)

    // The messages since the last call.
    static QList<CapturedMessage> take()
    {
        QMutexLocker locker(&mutex);
        return std::exchange(messages, {});
    }

private:
    static void handle(QtMsgType level, const QMessageLogContext &context, const QString &text)
    {
        // QDebug writes without a category, Qt's own warnings with the category "default".
        const bool empty = !context.file && !context.function && !context.category && !context.line;
        QMutexLocker locker(&mutex);
        messages.append({level, text, empty});
    }

    const QtMessageHandler previous;

    static inline QMutex mutex;
    static inline QList<CapturedMessage> messages; // guarded by mutex
};
